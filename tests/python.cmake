# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
# The Python package's tests (pytest on python/tests) against the library just built, through the
# package as pip installs it. They need a Python 3 with numpy, pytest, pip and setuptools (Debian:
# python3-numpy, python3-pytest, python3-pip, python3-setuptools); QORV_TEST_PYTHON picks one,
# else the first candidate that imports them all is taken.
set(QORV_TEST_PYTHON "" CACHE FILEPATH "Python 3 with numpy, pytest, pip and setuptools for the package and tool tests")
if(NOT QORV_TEST_PYTHON)
  find_program(QORV_PATH_PYTHON3 NAMES python3)
  foreach(candidate /usr/bin/python3 ${QORV_PATH_PYTHON3})
    if(EXISTS ${candidate})
      # setuptools before pip: Debian's pip loads the old distutils, which setuptools then refuses.
      execute_process(COMMAND ${candidate} -c "import setuptools, pip, numpy, pytest"
                      RESULT_VARIABLE missing OUTPUT_QUIET ERROR_QUIET)
      if(missing EQUAL 0)
        set(QORV_TEST_PYTHON ${candidate} CACHE FILEPATH "" FORCE)
        break()
      endif()
    endif()
  endforeach()
endif()

if(NOT QORV_TEST_PYTHON)
  message(STATUS "Python tests skipped: no python3 with numpy, pytest, pip and setuptools found")
  return()
endif()

# Environment of every Python-driven test: the package installed by python.install, the library
# and data of this build, no bytecode or pytest cache written into the source tree.
set(QORV_PYTHON_SITE ${PROJECT_BINARY_DIR}/python-site)
set(QORV_PYTHON_TEST_ENV
  "PYTHONPATH=${QORV_PYTHON_SITE}"
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

# pip installs the package as a user would, offline, into a folder of this build (--upgrade
# replaces the copy of an earlier run); the package's build leaves the source folder as it was.
add_test(NAME python.install
  COMMAND ${QORV_TEST_PYTHON} -m pip install --no-build-isolation --no-deps --no-index
          --no-cache-dir --disable-pip-version-check --upgrade --target ${QORV_PYTHON_SITE}
          ${PROJECT_SOURCE_DIR}/python)
set_tests_properties(python.install PROPERTIES
  FIXTURES_SETUP qorv_python_site LABELS "python;tools" TIMEOUT 300)

add_test(NAME python.package
  COMMAND ${QORV_TEST_PYTHON} -m pytest -q -p no:cacheprovider ${PROJECT_SOURCE_DIR}/python/tests)
set_tests_properties(python.package PROPERTIES
  ENVIRONMENT "${QORV_PYTHON_TEST_ENV}" FIXTURES_REQUIRED qorv_python_site
  LABELS python TIMEOUT 600)
