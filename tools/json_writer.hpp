// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qorv::tools {

// A small streaming JSON writer: objects, arrays, strings, numbers, booleans; two-space
// indentation; non-finite numbers written as null.
class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  JsonWriter& key(const std::string& name);  // inside an object, before each value
  JsonWriter& value(const std::string& text);
  JsonWriter& value(const char* text) { return value(std::string(text)); }
  JsonWriter& value(double number);
  JsonWriter& value(int64_t number);
  JsonWriter& value(int32_t number) { return value(static_cast<int64_t>(number)); }
  JsonWriter& value(bool flag);
  JsonWriter& null();
  // A flat array of numbers on one line (matrices, vectors).
  JsonWriter& numbers(const double* values, size_t count);

  // The document so far; complete once every object and array is closed.
  const std::string& str() const { return out_; }

 private:
  void separate();
  void raw(const std::string& text);
  void indent();
  void close(char bracket);
  void quote(const std::string& text);

  std::string out_;
  std::vector<bool> hasItems_;  // one per open container
  bool afterKey_ = false;
};

// The shortest "%g" form (6 to 17 digits) that reads back to the same value (to the same float
// for values that are exactly floats); null if not finite.
std::string FormatNumber(double number);

}  // namespace qorv::tools
