# Warnings, sanitizers and the compiler cache, the same for every target of ours.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

# Sanitizers instrument everything that is compiled here, the binding library included.
if(BRACKENFEN_SANITIZE)
  add_compile_options(-fsanitize=${BRACKENFEN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${BRACKENFEN_SANITIZE})
endif()
if(BRACKENFEN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

function(brackenfen_warnings target)
  target_compile_options(${target} PRIVATE
    -Werror -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  elseif(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
      # GCC 12 reports overlapping copies inside std::string's own operator+ (fixed in 13).
      target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
    if(BRACKENFEN_SANITIZE)
      # The instrumentation hides initialisations from the optimiser; the plain builds keep this warning.
      target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
    endif()
  endif()
endfunction()
