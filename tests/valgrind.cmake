# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
#
# Memcheck over the API tests: every export end to end through the shared library, in the plain
# (unsanitized) build, where reads of uninitialised memory show up that AddressSanitizer does not
# look for. Registered only when valgrind is installed and nothing is sanitized.
if(QORV_SANITIZE OR NOT TARGET qorv_api_tests)
  return()
endif()
find_program(QORV_VALGRIND valgrind)
if(NOT QORV_VALGRIND)
  message(STATUS "valgrind not found: no memcheck test")
  return()
endif()

# The OpenMP runtime's worker threads keep their thread-local blocks until exit, which memcheck
# calls "possibly lost": only definite and indirect leaks fail the test. Passive waiting keeps idle
# workers from spinning under valgrind, which runs one thread at a time.
add_test(NAME api.valgrind_memcheck
  COMMAND ${QORV_VALGRIND} --tool=memcheck --error-exitcode=1 --leak-check=full
          --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect
          --num-callers=30 --quiet
          $<TARGET_FILE:qorv_api_tests> --gtest_brief=1)
set_tests_properties(api.valgrind_memcheck PROPERTIES
  LABELS "api;valgrind"
  TIMEOUT 600
  ENVIRONMENT "OMP_NUM_THREADS=2;OMP_WAIT_POLICY=passive")
