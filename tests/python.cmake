# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
# The Python package's tests (pytest on python/tests) against the library just built. They need a
# Python 3 with numpy and pytest (Debian: python3-numpy, python3-pytest); QORV_TEST_PYTHON picks
# one, else the first candidate that imports both is taken.
set(QORV_TEST_PYTHON "" CACHE FILEPATH "Python 3 with numpy and pytest for the package and tool tests")
if(NOT QORV_TEST_PYTHON)
  find_program(QORV_PATH_PYTHON3 NAMES python3)
  foreach(candidate /usr/bin/python3 ${QORV_PATH_PYTHON3})
    if(EXISTS ${candidate})
      execute_process(COMMAND ${candidate} -c "import numpy, pytest"
                      RESULT_VARIABLE missing OUTPUT_QUIET ERROR_QUIET)
      if(missing EQUAL 0)
        set(QORV_TEST_PYTHON ${candidate} CACHE FILEPATH "" FORCE)
        break()
      endif()
    endif()
  endforeach()
endif()

if(NOT QORV_TEST_PYTHON)
  message(STATUS "Python tests skipped: no python3 with numpy and pytest found")
  return()
endif()

# Environment of every Python-driven test: the library and data of this build, no bytecode or
# pytest cache written into the source tree.
set(QORV_PYTHON_TEST_ENV
  "QORV_LIBRARY=$<TARGET_FILE:qorv>"
  "QORV_ENGINE_LIBRARY=$<TARGET_FILE:qorv_engine_lib>"
  "QORV_DATA_DIR=${PROJECT_SOURCE_DIR}/data"
  "PYTHONDONTWRITEBYTECODE=1")
if(QORV_SANITIZE MATCHES "thread")
  # An uninstrumented interpreter cannot host the thread sanitizer's runtime.
  message(STATUS "Python tests skipped under the thread sanitizer")
  return()
elseif(QORV_SANITIZE MATCHES "address")
  # The interpreter is not instrumented: the sanitizer runtime must be loaded first, and the
  # interpreter's own lifetime allocations are not leaks of ours.
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
                  OUTPUT_VARIABLE qorv_asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND QORV_PYTHON_TEST_ENV "LD_PRELOAD=${qorv_asan_runtime}"
       "ASAN_OPTIONS=detect_leaks=0:abort_on_error=1" "QORV_TEST_SANITIZED=1")
endif()

add_test(NAME python.package
  COMMAND ${QORV_TEST_PYTHON} -m pytest -q -p no:cacheprovider ${PROJECT_SOURCE_DIR}/python/tests)
set_tests_properties(python.package PROPERTIES
  ENVIRONMENT "${QORV_PYTHON_TEST_ENV}" LABELS python TIMEOUT 600)
