# brackenfen/sync.abi3.so: one file for CPython 3.12 and every later version, exporting PyInit_sync alone.

if(CMAKE_VERSION VERSION_LESS 3.26)
  message(FATAL_ERROR "The Python module needs CMake 3.26 or newer: older ones drop the stable ABI without a word")
endif()
find_package(Python 3.12 REQUIRED COMPONENTS Interpreter Development.Module Development.SABIModule)
find_package(nanobind CONFIG REQUIRED)

file(GLOB_RECURSE module_sources CONFIGURE_DEPENDS python/*.cpp)
# Symbols stay for profilers; what is installed goes without them.
nanobind_add_module(sync NOSTRIP NB_STATIC STABLE_ABI NB_DOMAIN brackenfen NB_SUPPRESS_WARNINGS PROTECT_STACK NOMINSIZE ${module_sources})
get_target_property(module_suffix sync SUFFIX)
if(NOT module_suffix MATCHES "abi3")
  message(FATAL_ERROR "Not a stable ABI build: the module's suffix is ${module_suffix}")
endif()

set(version_script ${PROJECT_SOURCE_DIR}/python/sync.map)
target_link_libraries(sync PRIVATE brackenfen_sync_core)
target_link_options(sync PRIVATE "-Wl,--version-script=${version_script}")
target_link_options(sync PRIVATE "-Wl,--wrap=__gxx_personality_v0")  # python/interpreter/gate.cpp says why
if(BRACKENFEN_STATIC_LIBRARIES)
  # libgcc stays the system's: the unwinder that ends a thread must be the one that knows this module's frames.
  target_sources(sync PRIVATE wheel/arc4random.cpp)
  target_link_options(sync PRIVATE -static-libstdc++)
  if(SKBUILD_METADATA_DIR)
    install(DIRECTORY ${BRACKENFEN_STATIC_LIBRARIES}/licences/ DESTINATION ${SKBUILD_METADATA_DIR}/licenses/libraries COMPONENT python)
  endif()
endif()
brackenfen_warnings(sync)

# Importable from the build tree, with its types beside it.
set(package_dir ${CMAKE_BINARY_DIR}/python/brackenfen)
set_target_properties(sync PROPERTIES LINK_DEPENDS ${version_script} LIBRARY_OUTPUT_DIRECTORY ${package_dir})
foreach(file IN ITEMS sync.pyi py.typed)
  configure_file(${PROJECT_SOURCE_DIR}/python/${file} ${package_dir}/${file} COPYONLY)
endforeach()

# The command beside the module, as in the wheel; a link, so that an edit needs no build.
foreach(package IN ITEMS sync_command sync_metrics)
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/tools/command/brackenfen/${package} ${package_dir}/${package} SYMBOLIC)
endforeach()

install(TARGETS sync LIBRARY DESTINATION . COMPONENT python)
install(FILES python/sync.pyi python/py.typed DESTINATION . COMPONENT python)
