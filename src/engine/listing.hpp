// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <array>
#include <cstddef>
#include <memory>

namespace qorv::engine {

// One implementation of a stage (a refiner, a matcher, a hypothesis maker): its method, the name
// the tools and bindings spell it with, and its factory.
template <class Interface, class Method>
struct Listed {
  Method method;
  const char* name;
  std::unique_ptr<Interface> (*make)();
};

// The implementation listed for a method, made once on first use and shared (implementations
// hold no state, so threads may share them); null for a method nothing is listed for.
template <class Interface, class Method, size_t N>
const Interface* FindListed(const Listed<Interface, Method> (&list)[N], Method method) {
  static const auto made = [&list] {
    std::array<std::unique_ptr<Interface>, N> all;
    for (size_t i = 0; i < N; ++i) all[i] = list[i].make();
    return all;
  }();
  for (size_t i = 0; i < N; ++i) {
    if (list[i].method == method) return made[i].get();
  }
  return nullptr;
}

// The name listed for a method; "" for a method nothing is listed for.
template <class Interface, class Method, size_t N>
const char* ListedName(const Listed<Interface, Method> (&list)[N], Method method) {
  for (const auto& listed : list) {
    if (listed.method == method) return listed.name;
  }
  return "";
}

}  // namespace qorv::engine
