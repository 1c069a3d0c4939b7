# SPDX-License-Identifier: MIT
# Copyright (c) 2026 The Qorv developers
# Every fuzz corpus replayed as an ordinary test: fuzz/<name>_fuzz.cpp is built with the small
# driver fuzz/replay_main.cpp (no libFuzzer, any compiler) and run over fuzz/corpus/qorv_fuzz_<name>/.
# Each seed must be read or refused with IoError; a trap, a crash or another exception fails.
set(QORV_REPLAY_LAYERS qorv_io qorv_registration qorv_features qorv_surface qorv_search qorv_geometry
                       qorv_runtime)
set(QORV_REPLAYED column_text obj_reader stl_reader ply_reader pcd_reader depth_image asc_reader
                   manifest)
# The exports fuzzer takes its arguments through libFuzzer's header-only FuzzedDataProvider, which
# comes with clang; without it that corpus is replayed by `make fuzz` only.
file(GLOB QORV_CLANG_INCLUDE_DIRS /usr/lib/llvm-*/lib/clang/*/include)
find_path(QORV_FUZZED_DATA_PROVIDER_DIR fuzzer/FuzzedDataProvider.h HINTS ${QORV_CLANG_INCLUDE_DIRS})
if(QORV_FUZZED_DATA_PROVIDER_DIR)
  list(APPEND QORV_REPLAYED exports)
endif()

foreach(name ${QORV_REPLAYED})
  add_executable(qorv_replay_${name} ${PROJECT_SOURCE_DIR}/fuzz/${name}_fuzz.cpp
                                     ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cpp)
  target_link_libraries(qorv_replay_${name} PRIVATE ${QORV_REPLAY_LAYERS})
  target_include_directories(qorv_replay_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  if(name STREQUAL "exports")
    target_sources(qorv_replay_${name} PRIVATE ${QORV_API_SOURCES})
    # Only the one header from that folder: the compiler's own headers live beside it.
    file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/fuzzer-include/fuzzer)
    file(COPY ${QORV_FUZZED_DATA_PROVIDER_DIR}/fuzzer/FuzzedDataProvider.h
         DESTINATION ${CMAKE_CURRENT_BINARY_DIR}/fuzzer-include/fuzzer)
    target_include_directories(qorv_replay_${name} SYSTEM PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/fuzzer-include)
    target_include_directories(qorv_replay_${name} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  endif()
  qorv_target_options(qorv_replay_${name})
  add_test(NAME fuzz_corpus.${name}
           COMMAND qorv_replay_${name} ${PROJECT_SOURCE_DIR}/fuzz/corpus/qorv_fuzz_${name})
  set_tests_properties(fuzz_corpus.${name} PROPERTIES LABELS fuzz_corpus TIMEOUT 300)
endforeach()
