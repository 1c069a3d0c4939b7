// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "cloud_io.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "session.hpp"

namespace qorv::tools {
namespace {

constexpr int64_t kMaxPoints = std::numeric_limits<int32_t>::max();

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return static_cast<char>(std::tolower(c));
  });
  return text;
}

// File content quoted in a message: at most 40 bytes, anything but printable ASCII as '?'.
std::string Quote(const std::string& text) {
  std::string out = text.substr(0, 40);
  for (char& c : out) {
    if (c < 0x20 || c > 0x7e) c = '?';
  }
  return "'" + out + (text.size() > 40 ? "...'" : "'");
}

std::string Extension(const std::string& path) {
  const size_t dot = path.find_last_of('.');
  const size_t slash = path.find_last_of('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return Lower(path.substr(dot));
}

std::string ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ToolError("cannot open '" + path + "': " + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) throw ToolError("cannot read '" + path + "'");
  return content.str();
}

// Keeps the points whose three coordinates are finite (with their normals and colours).
void DropNonFinite(Cloud& cloud) {
  const int32_t count = cloud.size();
  int32_t kept = 0;
  for (int32_t i = 0; i < count; ++i) {
    const float* p = &cloud.points[3 * static_cast<size_t>(i)];
    if (!std::isfinite(p[0]) || !std::isfinite(p[1]) || !std::isfinite(p[2])) continue;
    for (int c = 0; c < 3; ++c) {
      const size_t from = 3 * static_cast<size_t>(i) + c;
      const size_t to = 3 * static_cast<size_t>(kept) + c;
      cloud.points[to] = cloud.points[from];
      if (cloud.hasNormals()) cloud.normals[to] = cloud.normals[from];
      if (cloud.hasColours()) cloud.colours[to] = cloud.colours[from];
    }
    ++kept;
  }
  cloud.droppedNonFinite += count - kept;
  cloud.points.resize(3 * static_cast<size_t>(kept));
  if (cloud.hasNormals()) cloud.normals.resize(3 * static_cast<size_t>(kept));
  if (cloud.hasColours()) cloud.colours.resize(3 * static_cast<size_t>(kept));
}

// ---- Scalar types shared by PLY and PCD -----------------------------------------------------

enum class Scalar { kInt8, kUint8, kInt16, kUint16, kInt32, kUint32, kFloat32, kFloat64 };

int ScalarSize(Scalar type) {
  switch (type) {
    case Scalar::kInt8:
    case Scalar::kUint8:
      return 1;
    case Scalar::kInt16:
    case Scalar::kUint16:
      return 2;
    case Scalar::kInt32:
    case Scalar::kUint32:
    case Scalar::kFloat32:
      return 4;
    case Scalar::kFloat64:
      return 8;
  }
  return 0;
}

double DecodeScalar(const unsigned char* data, Scalar type, bool bigEndian) {
  unsigned char bytes[8];
  const int size = ScalarSize(type);
  for (int i = 0; i < size; ++i) bytes[i] = data[bigEndian ? size - 1 - i : i];
  switch (type) {
    case Scalar::kInt8: {
      int8_t v;
      std::memcpy(&v, bytes, 1);
      return v;
    }
    case Scalar::kUint8:
      return bytes[0];
    case Scalar::kInt16: {
      int16_t v;
      std::memcpy(&v, bytes, 2);
      return v;
    }
    case Scalar::kUint16: {
      uint16_t v;
      std::memcpy(&v, bytes, 2);
      return v;
    }
    case Scalar::kInt32: {
      int32_t v;
      std::memcpy(&v, bytes, 4);
      return v;
    }
    case Scalar::kUint32: {
      uint32_t v;
      std::memcpy(&v, bytes, 4);
      return v;
    }
    case Scalar::kFloat32: {
      float v;
      std::memcpy(&v, bytes, 4);
      return v;
    }
    case Scalar::kFloat64: {
      double v;
      std::memcpy(&v, bytes, 8);
      return v;
    }
  }
  return 0.0;
}

// Reads whitespace-separated numbers from a text body.
class TextNumbers {
 public:
  TextNumbers(const std::string& text, size_t offset, std::string path)
      : text_(text), pos_(offset), path_(std::move(path)) {}

  double next() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
    if (pos_ >= text_.size()) throw ToolError("'" + path_ + "': data ends early");
    const char* begin = text_.c_str() + pos_;
    char* end = nullptr;
    const double value = std::strtod(begin, &end);
    if (end == begin) {
      throw ToolError("'" + path_ + "': not a number: " +
                      Quote(text_.substr(pos_, std::min<size_t>(20, text_.size() - pos_))));
    }
    pos_ += static_cast<size_t>(end - begin);
    return value;
  }

 private:
  const std::string& text_;
  size_t pos_;
  std::string path_;
};

// Splits the header (lines up to and including the line `last`) into lines; returns the
// offset of the body. Lines may end in "\r\n".
size_t HeaderLines(const std::string& bytes,
                   const std::string& last,
                   const std::string& path,
                   std::vector<std::string>& lines,
                   const char* format) {
  size_t pos = 0;
  while (pos < bytes.size()) {
    size_t end = bytes.find('\n', pos);
    if (end == std::string::npos) break;
    std::string line = bytes.substr(pos, end - pos);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    pos = end + 1;
    lines.push_back(line);
    std::istringstream words(line);
    std::string first;
    words >> first;
    if (first == last) return pos;
    if (lines.size() > 10000) break;
  }
  throw ToolError("'" + path + "': " + format + " header has no '" + last + "' line");
}

std::vector<std::string> Words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

int64_t ParseCount(const std::string& text, const std::string& path, const char* what) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0' || value < 0) {
    throw ToolError("'" + path + "': bad " + what + " " + Quote(text));
  }
  return value;
}

// Copies per-point fields into a cloud; slots -1 mean absent.
struct FieldSlots {
  int xyz[3] = {-1, -1, -1};
  int normal[3] = {-1, -1, -1};
  int colour[3] = {-1, -1, -1};
  int packedRgb = -1;  // PCD rgb/rgba float holding 0x00RRGGBB
};

void Reserve(Cloud& cloud, int64_t count, const FieldSlots& slots) {
  cloud.points.resize(3 * static_cast<size_t>(count));
  if (slots.normal[0] >= 0 && slots.normal[1] >= 0 && slots.normal[2] >= 0) {
    cloud.normals.resize(3 * static_cast<size_t>(count));
  }
  if ((slots.colour[0] >= 0 && slots.colour[1] >= 0 && slots.colour[2] >= 0) ||
      slots.packedRgb >= 0) {
    cloud.colours.resize(3 * static_cast<size_t>(count));
  }
}

unsigned char ColourByte(double v) {
  if (!(v > 0)) return 0;
  return static_cast<unsigned char>(std::min(v, 255.0));
}

void Store(Cloud& cloud, size_t i, const double* values, const FieldSlots& slots) {
  for (int c = 0; c < 3; ++c) cloud.points[3 * i + c] = static_cast<float>(values[slots.xyz[c]]);
  if (cloud.hasNormals()) {
    for (int c = 0; c < 3; ++c) {
      cloud.normals[3 * i + c] = static_cast<float>(values[slots.normal[c]]);
    }
  }
  if (cloud.hasColours()) {
    if (slots.packedRgb >= 0) {
      const float packed = static_cast<float>(values[slots.packedRgb]);
      uint32_t bits;
      std::memcpy(&bits, &packed, 4);
      cloud.colours[3 * i] = static_cast<unsigned char>((bits >> 16) & 0xff);
      cloud.colours[3 * i + 1] = static_cast<unsigned char>((bits >> 8) & 0xff);
      cloud.colours[3 * i + 2] = static_cast<unsigned char>(bits & 0xff);
    } else {
      for (int c = 0; c < 3; ++c) cloud.colours[3 * i + c] = ColourByte(values[slots.colour[c]]);
    }
  }
}

void CheckCount(int64_t count, const std::string& path) {
  if (count == 0) throw ToolError("'" + path + "' holds no point");
  if (count > kMaxPoints) throw ToolError("'" + path + "' holds more points than supported");
}

// ---- PLY ----------------------------------------------------------------------------------

Scalar PlyScalar(const std::string& name, const std::string& path) {
  static const std::pair<const char*, Scalar> kNames[] = {{"char", Scalar::kInt8},
                                                          {"int8", Scalar::kInt8},
                                                          {"uchar", Scalar::kUint8},
                                                          {"uint8", Scalar::kUint8},
                                                          {"short", Scalar::kInt16},
                                                          {"int16", Scalar::kInt16},
                                                          {"ushort", Scalar::kUint16},
                                                          {"uint16", Scalar::kUint16},
                                                          {"int", Scalar::kInt32},
                                                          {"int32", Scalar::kInt32},
                                                          {"uint", Scalar::kUint32},
                                                          {"uint32", Scalar::kUint32},
                                                          {"float", Scalar::kFloat32},
                                                          {"float32", Scalar::kFloat32},
                                                          {"double", Scalar::kFloat64},
                                                          {"float64", Scalar::kFloat64}};
  for (const auto& [text, type] : kNames) {
    if (name == text) return type;
  }
  throw ToolError("'" + path + "': unknown PLY property type " + Quote(name));
}

struct PlyProperty {
  std::string name;
  Scalar type = Scalar::kFloat32;
  bool isList = false;
  Scalar countType = Scalar::kUint8;
};

struct PlyElement {
  std::string name;
  int64_t count = 0;
  std::vector<PlyProperty> properties;
};

}  // namespace

Cloud Cloud::subset(const std::vector<int32_t>& indices) const {
  Cloud out;
  out.format = format;
  out.points.reserve(indices.size() * 3);
  for (const int32_t i : indices) {
    for (int c = 0; c < 3; ++c) {
      const size_t at = 3 * static_cast<size_t>(i) + c;
      out.points.push_back(points[at]);
      if (hasNormals()) out.normals.push_back(normals[at]);
      if (hasColours()) out.colours.push_back(colours[at]);
    }
  }
  return out;
}

Cloud ParsePly(const std::string& bytes, const std::string& path) {
  std::vector<std::string> lines;
  const size_t body = HeaderLines(bytes, "end_header", path, lines, "PLY");
  std::string format;
  std::vector<PlyElement> elements;
  for (const std::string& line : lines) {
    const std::vector<std::string> w = Words(line);
    if (w.empty() || w[0] == "comment" || w[0] == "obj_info" || w[0] == "ply" ||
        w[0] == "end_header") {
      continue;
    }
    if (w[0] == "format" && w.size() >= 2) {
      format = w[1];
    } else if (w[0] == "element" && w.size() == 3) {
      elements.push_back({w[1], ParseCount(w[2], path, "element count"), {}});
    } else if (w[0] == "property" && !elements.empty()) {
      PlyProperty property;
      if (w.size() == 5 && w[1] == "list") {
        property.isList = true;
        property.countType = PlyScalar(w[2], path);
        property.type = PlyScalar(w[3], path);
        property.name = w[4];
      } else if (w.size() == 3) {
        property.type = PlyScalar(w[1], path);
        property.name = w[2];
      } else {
        throw ToolError("'" + path + "': bad PLY property line " + Quote(line));
      }
      elements.back().properties.push_back(property);
    } else {
      throw ToolError("'" + path + "': unexpected PLY header line " + Quote(line));
    }
  }
  const bool ascii = format == "ascii";
  const bool bigEndian = format == "binary_big_endian";
  if (!ascii && !bigEndian && format != "binary_little_endian") {
    throw ToolError("'" + path + "': unsupported PLY format " + Quote(format));
  }
  Cloud cloud;
  cloud.format = std::string("ply (") +
                 (ascii       ? "ascii"
                  : bigEndian ? "binary big endian"
                              : "binary little endian") +
                 ")";
  TextNumbers text(bytes, body, path);
  size_t pos = body;
  auto binaryValue = [&](Scalar type) {
    const size_t size = static_cast<size_t>(ScalarSize(type));
    if (bytes.size() - pos < size) throw ToolError("'" + path + "': PLY data ends early");
    const double v =
        DecodeScalar(reinterpret_cast<const unsigned char*>(bytes.data()) + pos, type, bigEndian);
    pos += size;
    return v;
  };
  auto value = [&](Scalar type) { return ascii ? text.next() : binaryValue(type); };

  bool sawVertex = false;
  for (const PlyElement& element : elements) {
    const bool isVertex = element.name == "vertex";
    FieldSlots slots;
    if (isVertex) {
      static const char* kNormals[3] = {"nx", "ny", "nz"};
      static const char* kXyz[3] = {"x", "y", "z"};
      static const char* kColours[3] = {"red", "green", "blue"};
      for (size_t p = 0; p < element.properties.size(); ++p) {
        const std::string& name = element.properties[p].name;
        for (int c = 0; c < 3; ++c) {
          if (element.properties[p].isList) continue;
          if (name == kXyz[c]) slots.xyz[c] = static_cast<int>(p);
          if (name == kNormals[c]) slots.normal[c] = static_cast<int>(p);
          if (name == kColours[c]) slots.colour[c] = static_cast<int>(p);
        }
      }
      if (slots.xyz[0] < 0 || slots.xyz[1] < 0 || slots.xyz[2] < 0) {
        throw ToolError("'" + path + "': PLY vertex element lacks x, y or z");
      }
      CheckCount(element.count, path);
      // Each vertex takes at least a byte: a count beyond the file's size is a broken header.
      if (static_cast<uint64_t>(element.count) > bytes.size() - body) {
        throw ToolError("'" + path + "': PLY data ends early");
      }
      Reserve(cloud, element.count, slots);
      sawVertex = true;
    }
    if (element.properties.empty()) continue;  // nothing stored, nothing to read
    std::vector<double> values(element.properties.size());
    for (int64_t i = 0; i < element.count; ++i) {
      for (size_t p = 0; p < element.properties.size(); ++p) {
        const PlyProperty& property = element.properties[p];
        if (property.isList) {
          const double n = value(property.countType);
          if (!(n >= 0) || n > 1e6) throw ToolError("'" + path + "': bad PLY list length");
          for (int64_t k = 0; k < static_cast<int64_t>(n); ++k) value(property.type);
          values[p] = 0.0;
        } else {
          values[p] = value(property.type);
        }
      }
      if (isVertex) Store(cloud, static_cast<size_t>(i), values.data(), slots);
    }
    if (isVertex) break;  // later elements (faces, ...) are not needed
  }
  if (!sawVertex) throw ToolError("'" + path + "': PLY file has no vertex element");
  return cloud;
}

// ---- PCD ------------------------------------------------------------------------------------

Cloud ParsePcd(const std::string& bytes, const std::string& path) {
  std::vector<std::string> lines;
  const size_t body = HeaderLines(bytes, "DATA", path, lines, "PCD");
  std::vector<std::string> fields;
  std::vector<int> sizes;
  std::vector<char> types;
  std::vector<int64_t> counts;
  int64_t points = -1;
  int64_t width = -1;
  int64_t height = 1;
  std::string data;
  for (const std::string& line : lines) {
    const std::vector<std::string> w = Words(line);
    if (w.empty() || w[0][0] == '#') continue;
    const std::string& key = w[0];
    if (key == "FIELDS") {
      fields.assign(w.begin() + 1, w.end());
    } else if (key == "SIZE") {
      for (size_t i = 1; i < w.size(); ++i) {
        sizes.push_back(static_cast<int>(ParseCount(w[i], path, "SIZE")));
      }
    } else if (key == "TYPE") {
      for (size_t i = 1; i < w.size(); ++i) types.push_back(w[i].empty() ? '?' : w[i][0]);
    } else if (key == "COUNT") {
      for (size_t i = 1; i < w.size(); ++i) counts.push_back(ParseCount(w[i], path, "COUNT"));
    } else if (key == "POINTS" && w.size() == 2) {
      points = ParseCount(w[1], path, "POINTS");
    } else if (key == "WIDTH" && w.size() == 2) {
      width = ParseCount(w[1], path, "WIDTH");
    } else if (key == "HEIGHT" && w.size() == 2) {
      height = ParseCount(w[1], path, "HEIGHT");
    } else if (key == "DATA" && w.size() == 2) {
      data = w[1];
    }
  }
  if (counts.empty()) counts.assign(fields.size(), 1);
  if (fields.empty() || sizes.size() != fields.size() || types.size() != fields.size() ||
      counts.size() != fields.size()) {
    throw ToolError("'" + path + "': PCD header needs FIELDS, SIZE and TYPE of equal length");
  }
  if (points < 0 && width >= 0) {
    if (static_cast<double>(width) * static_cast<double>(height) >
        static_cast<double>(kMaxPoints)) {
      throw ToolError("'" + path + "' holds more points than supported");
    }
    points = width * height;
  }
  if (points < 0) throw ToolError("'" + path + "': PCD header has no POINTS");
  if (data == "binary_compressed") {
    throw ToolError("'" + path + "': compressed PCD data is not supported");
  }
  if (data != "ascii" && data != "binary") {
    throw ToolError("'" + path + "': unsupported PCD DATA " + Quote(data));
  }
  // One value slot per field element; a field with COUNT > 1 takes several.
  std::vector<Scalar> slotTypes;
  FieldSlots slots;
  static const char* kXyz[3] = {"x", "y", "z"};
  static const char* kNormals[3] = {"normal_x", "normal_y", "normal_z"};
  for (size_t f = 0; f < fields.size(); ++f) {
    Scalar type;
    const int size = sizes[f];
    if (types[f] == 'F' && size == 4) {
      type = Scalar::kFloat32;
    } else if (types[f] == 'F' && size == 8) {
      type = Scalar::kFloat64;
    } else if ((types[f] == 'I' || types[f] == 'U') && (size == 1 || size == 2 || size == 4)) {
      const bool isSigned = types[f] == 'I';
      type = size == 1   ? (isSigned ? Scalar::kInt8 : Scalar::kUint8)
             : size == 2 ? (isSigned ? Scalar::kInt16 : Scalar::kUint16)
                         : (isSigned ? Scalar::kInt32 : Scalar::kUint32);
    } else {
      throw ToolError("'" + path + "': unsupported PCD field type " +
                      Quote(std::string(1, types[f]) + std::to_string(size)));
    }
    if (counts[f] < 1 || counts[f] > 4096) throw ToolError("'" + path + "': bad PCD COUNT");
    const int first = static_cast<int>(slotTypes.size());
    for (int c = 0; c < 3; ++c) {
      if (counts[f] == 1 && fields[f] == kXyz[c]) slots.xyz[c] = first;
      if (counts[f] == 1 && fields[f] == kNormals[c]) slots.normal[c] = first;
    }
    if ((fields[f] == "rgb" || fields[f] == "rgba") && counts[f] == 1 && size == 4) {
      slots.packedRgb = first;
      type = Scalar::kFloat32;  // the packed bytes are read back through a float
    }
    for (int64_t c = 0; c < counts[f]; ++c) slotTypes.push_back(type);
  }
  if (slots.xyz[0] < 0 || slots.xyz[1] < 0 || slots.xyz[2] < 0) {
    throw ToolError("'" + path + "': PCD fields lack x, y or z");
  }
  CheckCount(points, path);
  size_t rowBytes = 0;
  for (const Scalar type : slotTypes) rowBytes += static_cast<size_t>(ScalarSize(type));
  const size_t available = bytes.size() - body;
  if (data == "binary" ? static_cast<uint64_t>(points) * rowBytes > available
                       : static_cast<uint64_t>(points) > available) {
    throw ToolError("'" + path + "': PCD data ends early");
  }

  Cloud cloud;
  cloud.format = "pcd (" + data + ")";
  Reserve(cloud, points, slots);
  std::vector<double> values(slotTypes.size());
  TextNumbers text(bytes, body, path);
  const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data()) + body;
  for (int64_t i = 0; i < points; ++i) {
    for (size_t s = 0; s < slotTypes.size(); ++s) {
      if (data == "ascii") {
        values[s] = text.next();
      } else {
        values[s] = DecodeScalar(raw, slotTypes[s], false);
        raw += ScalarSize(slotTypes[s]);
      }
    }
    if (data == "ascii" && slots.packedRgb >= 0) {
      // ASCII PCD writes the packed colour either as a float or as its integer bits.
      const double v = values[slots.packedRgb];
      if (v >= 1.0 && v == std::floor(v) && v <= 16777215.0) {
        const auto bits = static_cast<uint32_t>(v);
        float asFloat;
        std::memcpy(&asFloat, &bits, 4);
        values[slots.packedRgb] = asFloat;
      }
    }
    Store(cloud, static_cast<size_t>(i), values.data(), slots);
  }
  return cloud;
}

// ---- Entry points -------------------------------------------------------------------------

namespace {

struct AscReceiver {
  Cloud* cloud = nullptr;
  bool tooLarge = false;
};

int32_t ReceiveAsc(const float* points,
                   const float* normals,
                   const unsigned char* colours,
                   int64_t count,
                   void* user) {
  auto* receiver = static_cast<AscReceiver*>(user);
  if (count > kMaxPoints) {
    receiver->tooLarge = true;
    return 0;
  }
  const size_t n = 3 * static_cast<size_t>(count);
  Cloud& cloud = *receiver->cloud;
  cloud.points.assign(points, points + n);
  if (normals != nullptr) cloud.normals.assign(normals, normals + n);
  if (colours != nullptr) cloud.colours.assign(colours, colours + n);
  return 0;
}

}  // namespace

Cloud ReadCloud(QorvInstance* inst, const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) throw ToolError("'" + path + "' is a folder");
  std::ifstream probe(path, std::ios::binary);
  if (!probe) throw ToolError("cannot open '" + path + "': " + std::strerror(errno));
  char head[16] = {};
  probe.read(head, sizeof(head) - 1);
  probe.close();
  const std::string start(head);
  Cloud cloud;
  if (start.rfind("ply", 0) == 0 && (start[3] == '\n' || start[3] == '\r')) {
    cloud = ParsePly(ReadFileBytes(path), path);
  } else if (start.rfind("# .PCD", 0) == 0 || start.rfind("VERSION", 0) == 0 ||
             start.rfind("FIELDS", 0) == 0) {
    cloud = ParsePcd(ReadFileBytes(path), path);
  } else {
    const std::string ext = Extension(path);
    if (ext == ".ply" || ext == ".pcd") {
      throw ToolError("'" + path + "' is not a " + ext.substr(1) + " file (no " +
                      (ext == ".ply" ? "'ply' magic line" : "PCD header") + ")");
    }
    AscReceiver receiver{&cloud};
    const QorvResult code = QorvReadPointsFromASC(inst, path.c_str(), ReceiveAsc, &receiver);
    if (code == QORV_ERROR_FILE) {
      throw ToolError("cannot read '" + path + "' as ASC text (unreadable, or no point in it)");
    }
    Check(code, "QorvReadPointsFromASC", "reading '" + path + "'");
    if (receiver.tooLarge) throw ToolError("'" + path + "' holds more points than supported");
    cloud.format = "asc";
  }
  DropNonFinite(cloud);
  if (cloud.size() == 0) throw ToolError("'" + path + "' holds no point with finite coordinates");
  return cloud;
}

void WriteCloud(QorvInstance* inst, const std::string& path, const Cloud& cloud) {
  const std::string ext = Extension(path);
  if (ext == ".ply" || ext == ".pcd") {
    throw ToolError("output '" + path +
                    "': clouds are written as ASC text; use a name ending in "
                    ".asc, .xyz or .txt");
  }
  if (cloud.size() == 0) throw ToolError("nothing to write to '" + path + "': no point left");
  const QorvResult code = QorvWritePointsToASC(inst,
                                               path.c_str(),
                                               cloud.points.data(),
                                               cloud.hasNormals() ? cloud.normals.data() : nullptr,
                                               cloud.hasColours() ? cloud.colours.data() : nullptr,
                                               cloud.size());
  if (code == QORV_ERROR_FILE) throw ToolError("cannot write '" + path + "'");
  Check(code, "QorvWritePointsToASC", "writing '" + path + "'");
}

}  // namespace qorv::tools
