// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// Replays a fuzz corpus through a fuzzer's entry point, without libFuzzer, as an ordinary test:
// every file of the folder must be read or refused the way the fuzzer accepts (it catches the
// readers' IoError and traps on a broken oracle); any other exception fails the test here.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  if (files.empty()) {
    std::fprintf(stderr, "no seed file in %s\n", argv[1]);
    return 1;
  }
  for (const auto& path : files) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    try {
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s: not read nor refused with IoError: %s\n", path.c_str(), e.what());
      return 1;
    } catch (...) {
      std::fprintf(stderr, "%s: not read nor refused with IoError\n", path.c_str());
      return 1;
    }
  }
  std::printf("%zu seed files replayed\n", files.size());
  return 0;
}
