# Decides whether the Python module is built unless told otherwise: with CMake 3.26, Python 3.12 and nanobind at hand.
# Sets BRACKENFEN_PYTHON_DEFAULT and, when it is on, nanobind_ROOT. -DPython_EXECUTABLE names the interpreter.

if(PYTHON_EXECUTABLE AND NOT Python_EXECUTABLE)
  set(Python_EXECUTABLE ${PYTHON_EXECUTABLE})
endif()

set(BRACKENFEN_PYTHON_DEFAULT OFF)
if(NOT Python_EXECUTABLE OR NOT EXISTS ${Python_EXECUTABLE})
  message(STATUS "Python module: no interpreter given with -DPython_EXECUTABLE")
else()
  execute_process(
    COMMAND ${Python_EXECUTABLE} -c "import sys; assert sys.version_info >= (3, 12); import nanobind; print(nanobind.cmake_dir())"
    OUTPUT_VARIABLE nanobind_ROOT OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE nanobind_missing ERROR_QUIET)
  if(nanobind_missing)
    message(STATUS "Python module: ${Python_EXECUTABLE} is older than 3.12 or has no nanobind")
  elseif(CMAKE_VERSION VERSION_LESS 3.26)
    message(STATUS "Python module: needs CMake 3.26, this is ${CMAKE_VERSION}")
  else()
    set(BRACKENFEN_PYTHON_DEFAULT ON)
  endif()
endif()
