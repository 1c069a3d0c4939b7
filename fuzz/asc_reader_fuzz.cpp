// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The ASC tokenizer on arbitrary bytes: it must stay inside the text (the buffer holds exactly the
// bytes and the closing zero, so AddressSanitizer sees any step past it) and agree bit for bit with
// the literal reading of tests/support.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "geometry/asc_file.hpp"
#include "support/asc_reference.hpp"

namespace {

template <typename T>
bool SameBits(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::unique_ptr<char[]> text(new char[size + 1]);
  if (size > 0) std::memcpy(text.get(), data, size);
  text[size] = '\0';
  const qorv::AscCloud cloud = qorv::ParseAsc(text.get(), size);

  const qorv::test::ReferenceAsc ref =
      qorv::test::ReadAscReference(std::string(reinterpret_cast<const char*>(data), size));
  const bool same = cloud.columns == ref.columns && cloud.count == ref.count &&
                    SameBits(cloud.points, ref.points) && SameBits(cloud.normals, ref.normals) &&
                    SameBits(cloud.colours, ref.colours);
  if (!same) {
    std::fprintf(stderr,
                 "mismatch: columns %d/%d count %lld/%lld\n",
                 cloud.columns,
                 ref.columns,
                 static_cast<long long>(cloud.count),
                 static_cast<long long>(ref.count));
    __builtin_trap();
  }
  return 0;
}
