# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
# The command-line tool's tests: tests/tools/cli_test.py runs every command through the built
# executable (python.cmake found the interpreter and installs the package they use).
if(NOT TARGET qorv_cli)
  return()
endif()
if(NOT QORV_TEST_PYTHON)
  message(STATUS "Tool tests skipped: no python3 with numpy and pytest found")
  return()
endif()

# tools.cli runs tests/tools/cli_test.py, tools.batch tests/tools/batch_test.py.
foreach(suite cli batch)
  add_test(NAME tools.${suite}
    COMMAND ${QORV_TEST_PYTHON} -m pytest -q -p no:cacheprovider
            ${CMAKE_CURRENT_SOURCE_DIR}/tools/${suite}_test.py)
  set_tests_properties(tools.${suite} PROPERTIES
    ENVIRONMENT "${QORV_PYTHON_TEST_ENV};QORV_CLI=$<TARGET_FILE:qorv_cli>"
    FIXTURES_REQUIRED qorv_python_site LABELS tools TIMEOUT 600)
endforeach()
