// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qorv {

// Sorts the entries by key (keyOf(entry), at most maxKey), keeping equal keys in their present
// order: least significant digit first, over the bits up to the highest set bit of maxKey only, in
// digits of at most 11 bits, all passes counted in one read; linear in the entries.
template <typename Entry, typename KeyOf>
void RadixSortByKey(std::vector<Entry>& entries, uint64_t maxKey, KeyOf keyOf) {
  constexpr int kMaxDigitBits = 11;
  int bits = 0;
  while (bits < 64 && (maxKey >> bits) != 0) ++bits;
  const int passes = (bits + kMaxDigitBits - 1) / kMaxDigitBits;
  if (passes == 0 || entries.size() < 2) return;
  const int digitBits = (bits + passes - 1) / passes;
  const size_t buckets = size_t{1} << digitBits;
  const uint64_t mask = buckets - 1;
  std::vector<size_t> counts(static_cast<size_t>(passes) * buckets, 0);
  for (const Entry& e : entries) {
    const uint64_t key = keyOf(e);
    for (int pass = 0; pass < passes; ++pass) {
      ++counts[static_cast<size_t>(pass) * buckets + ((key >> (pass * digitBits)) & mask)];
    }
  }
  std::vector<Entry> buffer(entries.size());
  for (int pass = 0; pass < passes; ++pass) {
    size_t* offsets = counts.data() + static_cast<size_t>(pass) * buckets;
    size_t sum = 0;
    bool moves = true;
    for (size_t b = 0; b < buckets; ++b) {
      const size_t c = offsets[b];
      if (c == entries.size()) moves = false;  // a digit every entry shares moves nothing
      offsets[b] = sum;
      sum += c;
    }
    if (!moves) continue;
    const int digitShift = pass * digitBits;
    for (const Entry& e : entries) buffer[offsets[(keyOf(e) >> digitShift) & mask]++] = e;
    entries.swap(buffer);
  }
}

}  // namespace qorv
