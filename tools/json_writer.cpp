// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "json_writer.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace qorv::tools {

std::string FormatNumber(double number) {
  if (!std::isfinite(number)) return "null";
  // A value that is exactly a float (most of ours are) is written with the digits that read
  // back to that float, not the seventeen of its double widening.
  const bool isFloat = static_cast<double>(static_cast<float>(number)) == number;
  char buffer[40];
  for (int precision = 6; precision <= 17; ++precision) {
    std::snprintf(buffer, sizeof(buffer), "%.*g", precision, number);
    if (isFloat ? std::strtof(buffer, nullptr) == static_cast<float>(number)
                : std::strtod(buffer, nullptr) == number) {
      break;
    }
  }
  return buffer;
}

void JsonWriter::indent() {
  out_ += '\n';
  out_.append(2 * hasItems_.size(), ' ');
}

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (hasItems_.empty()) return;
  if (hasItems_.back()) out_ += ',';
  hasItems_.back() = true;
  indent();
}

void JsonWriter::raw(const std::string& text) {
  separate();
  out_ += text;
}

JsonWriter& JsonWriter::beginObject() {
  raw("{");
  hasItems_.push_back(false);
  return *this;
}

void JsonWriter::close(char bracket) {
  const bool items = hasItems_.back();
  hasItems_.pop_back();
  if (items) indent();
  out_ += bracket;
  if (hasItems_.empty()) out_ += '\n';
}

JsonWriter& JsonWriter::endObject() {
  close('}');
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  raw("[");
  hasItems_.push_back(false);
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  close(']');
  return *this;
}

JsonWriter& JsonWriter::key(const std::string& name) {
  separate();
  quote(name);
  out_ += ": ";
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(const std::string& text) {
  separate();
  quote(text);
  return *this;
}

void JsonWriter::quote(const std::string& text) {
  out_ += '"';
  for (const char c : text) {
    switch (c) {
      case '"':
        out_ += "\\\"";
        break;
      case '\\':
        out_ += "\\\\";
        break;
      case '\n':
        out_ += "\\n";
        break;
      case '\r':
        out_ += "\\r";
        break;
      case '\t':
        out_ += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(c));
          out_ += escaped;
        } else {
          out_ += c;
        }
    }
  }
  out_ += '"';
}

JsonWriter& JsonWriter::value(double number) {
  raw(FormatNumber(number));
  return *this;
}

JsonWriter& JsonWriter::value(int64_t number) {
  raw(std::to_string(number));
  return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
  raw(flag ? "true" : "false");
  return *this;
}

JsonWriter& JsonWriter::null() {
  raw("null");
  return *this;
}

JsonWriter& JsonWriter::numbers(const double* values, size_t count) {
  std::string text = "[";
  for (size_t i = 0; i < count; ++i) {
    if (i > 0) text += ", ";
    text += FormatNumber(values[i]);
  }
  text += ']';
  raw(text);
  return *this;
}

}  // namespace qorv::tools
