// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/column_text.hpp"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <vector>

#include "io/text_fields.hpp"

namespace qorv::io {
namespace {

enum Role : uint8_t { kSkip, kX, kY, kZ, kNx, kNy, kNz, kRed, kGreen, kBlue, kIntensity, kRoles };

const char* const kRoleName[kRoles] = {
    "skip", "x", "y", "z", "nx", "ny", "nz", "red", "green", "blue", "intensity"};

bool SameLetters(std::string_view a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i] != '\0'; ++i) {
    const char c = (a[i] >= 'A' && a[i] <= 'Z') ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    if (c != b[i]) return false;
  }
  return i == a.size() && b[i] == '\0';
}

// The role of a column name, or -1 for a name we do not know.
int RoleOf(std::string_view name) {
  static const std::pair<const char*, Role> kNames[] = {{"x", kX},
                                                        {"y", kY},
                                                        {"z", kZ},
                                                        {"nx", kNx},
                                                        {"ny", kNy},
                                                        {"nz", kNz},
                                                        {"normal_x", kNx},
                                                        {"normal_y", kNy},
                                                        {"normal_z", kNz},
                                                        {"r", kRed},
                                                        {"g", kGreen},
                                                        {"b", kBlue},
                                                        {"red", kRed},
                                                        {"green", kGreen},
                                                        {"blue", kBlue},
                                                        {"i", kIntensity},
                                                        {"intensity", kIntensity},
                                                        {"skip", kSkip},
                                                        {"_", kSkip}};
  for (const auto& [text, role] : kNames) {
    if (SameLetters(name, text)) return role;
  }
  return -1;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsBlank(s.back())) s.remove_suffix(1);
  return s;
}

// The text after a comment marker, or nothing when the line is no comment.
bool CommentBody(std::string_view line, std::string_view& body) {
  if (!line.empty() && line[0] == '#') {
    body = Trim(line.substr(1));
    return true;
  }
  if (line.size() >= 2 && line[0] == '/' && line[1] == '/') {
    body = Trim(line.substr(2));
    return true;
  }
  return false;
}

// ';' when the line has one, else ',' when it has one, else 0 (whitespace).
char DelimiterOf(std::string_view line) {
  if (line.find(';') != std::string_view::npos) return ';';
  if (line.find(',') != std::string_view::npos) return ',';
  return 0;
}

// Calls f on each field of a trimmed line, returns how many. With a delimiter every field counts,
// empty ones too, each trimmed; without, fields are runs of non-blank bytes.
template <typename F>
size_t ForEachField(std::string_view line, char delimiter, F&& f) {
  size_t count = 0;
  size_t pos = 0;
  if (delimiter != 0) {
    while (true) {
      const size_t end = line.find(delimiter, pos);
      f(count++, Trim(line.substr(pos, end == std::string_view::npos ? end : end - pos)));
      if (end == std::string_view::npos) return count;
      pos = end + 1;
    }
  }
  while (pos < line.size()) {
    while (pos < line.size() && IsBlank(line[pos])) ++pos;
    if (pos == line.size()) break;
    size_t end = pos;
    while (end < line.size() && !IsBlank(line[end])) ++end;
    f(count++, line.substr(pos, end - pos));
    pos = end;
  }
  return count;
}

// A whole word as a number. from_chars takes no leading plus sign, and reports values beyond
// double's range without a value: those become infinite (or zero when too small), as strtod does.
bool ParseNumber(std::string_view word, double& value) {
  const char* begin = word.data();
  const char* const end = begin + word.size();
  if (begin != end && *begin == '+') {
    ++begin;
    if (begin == end || *begin == '-') return false;
  }
  const auto [stop, error] = std::from_chars(begin, end, value);
  if (stop != end || begin == end) return false;
  if (error == std::errc::result_out_of_range) {
    const bool negative = *begin == '-';
    const size_t e = word.find_first_of("eE");
    const bool tiny = e != std::string_view::npos && e + 1 < word.size() && word[e + 1] == '-';
    value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
    if (negative) value = -value;
    return true;
  }
  return error == std::errc();
}

bool IsNumber(std::string_view word) {
  double unused;
  return ParseNumber(word, unused);
}

// Lines of the text, with their numbers counted from 1; '\r' before the line feed is dropped.
class Lines {
 public:
  explicit Lines(std::string_view bytes, size_t offset = 0, size_t number = 0)
      : bytes_(bytes), pos_(offset), number_(number) {}
  bool next(std::string_view& line) {
    if (pos_ >= bytes_.size()) return false;
    size_t end = bytes_.find('\n', pos_);
    if (end == std::string_view::npos) end = bytes_.size();
    line = Trim(bytes_.substr(pos_, end - pos_));
    pos_ = end + 1;
    ++number_;
    return true;
  }
  size_t number() const { return number_; }
  size_t offset() const { return pos_; }

 private:
  std::string_view bytes_;
  size_t pos_;
  size_t number_;
};

std::string Count(size_t n, const char* what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

[[noreturn]] void Fail(const std::string& path, size_t line, const std::string& what) {
  throw IoError(IoError::kFormat,
                "'" + path + "'" + (line > 0 ? " line " + std::to_string(line) : "") + ": " + what);
}

// What the lines before the first row said.
struct Prelude {
  bool hasCount = false;
  int64_t count = 0;
  std::string_view header;  // empty when none
  size_t headerLine = 0;
  size_t rowsOffset = 0;  // where the line of the first row starts
  size_t rowsLine = 0;    // the number of the line before it
  size_t firstRowLine = 0;
  std::string_view firstRow;  // empty when there is no row
};

// Whether every word of the line is a name (no number), and how many there are.
bool AllNames(std::string_view line, size_t& words) {
  bool names = true;
  words = ForEachField(line, DelimiterOf(line), [&](size_t, std::string_view w) {
    if (w.empty() || IsNumber(w)) names = false;
  });
  return names && words > 0;
}

// A comment is a header when it names x, y and z and nothing but names.
bool CommentIsHeader(std::string_view body) {
  size_t words = 0;
  if (!AllNames(body, words)) return false;
  bool seen[kRoles] = {};
  ForEachField(body, DelimiterOf(body), [&](size_t, std::string_view w) {
    const int role = RoleOf(w);
    if (role > 0) seen[role] = true;
  });
  return seen[kX] && seen[kY] && seen[kZ];
}

Prelude ReadPrelude(std::string_view bytes, const std::string& path) {
  Prelude p;
  Lines lines(bytes);
  std::string_view line;
  bool sawLine = false;  // a line that is neither blank nor a comment
  size_t start = 0;
  while (start = lines.offset(), lines.next(line)) {
    if (line.empty()) continue;
    std::string_view body;
    if (CommentBody(line, body)) {
      if (p.header.empty() && CommentIsHeader(body)) {
        p.header = body;
        p.headerLine = lines.number();
      }
      continue;
    }
    size_t words = 0;
    const bool names = AllNames(line, words);
    if (!sawLine && words == 1 && line.find_first_not_of("0123456789") == std::string_view::npos) {
      const auto [stop, error] = std::from_chars(line.data(), line.data() + line.size(), p.count);
      if (error != std::errc())
        Fail(path, lines.number(), "the count " + Quote(line) + " is too large");
      p.hasCount = true;
      sawLine = true;
      continue;
    }
    sawLine = true;
    if (names && p.header.empty()) {
      p.header = line;
      p.headerLine = lines.number();
      continue;
    }
    p.rowsOffset = start;
    p.rowsLine = lines.number() - 1;
    p.firstRow = line;
    p.firstRowLine = lines.number();
    return p;
  }
  return p;
}

std::vector<Role> RolesFromNames(std::string_view names,
                                 bool passUnknown,
                                 const std::string& path,
                                 size_t line,
                                 const char* source,
                                 std::vector<std::string>& fields) {
  std::vector<Role> roles;
  bool seen[kRoles] = {};
  ForEachField(names, DelimiterOf(names), [&](size_t, std::string_view name) {
    if (name.empty()) Fail(path, line, std::string(source) + " has an empty column name");
    const int role = RoleOf(name);
    if (role < 0 && !passUnknown) {
      Fail(path,
           line,
           "unknown column name " + Quote(name) + " in " + source +
               " (known: x y z nx ny nz r g b intensity, and skip or _)");
    }
    const Role r = role < 0 ? kSkip : static_cast<Role>(role);
    if (r != kSkip && seen[r])
      Fail(path, line, std::string(source) + " names " + kRoleName[r] + " twice");
    seen[r] = true;
    roles.push_back(r);
    if (passUnknown) {
      fields.emplace_back(name);
    } else if (r != kSkip) {
      fields.emplace_back(kRoleName[r]);
    }
  });
  if (!seen[kX] || !seen[kY] || !seen[kZ]) {
    Fail(path,
         line,
         std::string(source) + " " + Quote(names) +
             " names no x, y and z columns; give the columns (for example --columns x,y,z)");
  }
  const Role groups[2][3] = {{kNx, kNy, kNz}, {kRed, kGreen, kBlue}};
  for (const auto& group : groups) {
    const int n = seen[group[0]] + seen[group[1]] + seen[group[2]];
    if (n != 0 && n != 3) {
      Fail(path,
           line,
           std::string(source) + " names only some of " + kRoleName[group[0]] + " " +
               kRoleName[group[1]] + " " + kRoleName[group[2]] + ": all three or none");
    }
  }
  return roles;
}

// The layout of rows without header or given columns, from their number and the extension.
std::vector<Role> GuessRoles(size_t columns,
                             const std::string& ext,
                             const std::string& path,
                             size_t line,
                             std::vector<std::string>& fields) {
  std::vector<Role> roles;
  switch (columns) {
    case 3:
      roles = {kX, kY, kZ};
      break;
    case 4:
      roles = {kX, kY, kZ, kIntensity};
      break;
    case 6:
      if (ext == ".xyzrgb" || ext == ".pts") {
        roles = {kX, kY, kZ, kRed, kGreen, kBlue};
      } else if (ext == ".asc" || ext == ".xyz" || ext == ".xyzn") {
        roles = {kX, kY, kZ, kNx, kNy, kNz};
      } else {
        Fail(path,
             line,
             "rows of 6 columns may hold normals or colours, and no header names them; give the "
             "columns (--columns x,y,z,nx,ny,nz or --columns x,y,z,r,g,b)");
      }
      break;
    case 7:
      roles = {kX, kY, kZ, kIntensity, kRed, kGreen, kBlue};
      break;
    case 9:
      roles = {kX, kY, kZ, kNx, kNy, kNz, kRed, kGreen, kBlue};
      break;
    default:
      Fail(path,
           line,
           "rows of " + Count(columns, "column") +
               " and no header naming them; give the columns (for example --columns "
               "x,y,z,skip,intensity)");
  }
  for (Role r : roles) fields.emplace_back(kRoleName[r]);
  return roles;
}

// The first byte that text does not hold (control bytes but whitespace), or npos.
size_t FirstBinaryByte(std::string_view bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    if ((c < 0x20 && c != '\n' && !IsBlank(static_cast<char>(c))) || c == 0x7f) return i;
  }
  return std::string_view::npos;
}

}  // namespace

bool IsColumnTextExtension(const std::string& ext) {
  return ext == ".asc" || ext == ".xyz" || ext == ".xyzn" || ext == ".xyzrgb" || ext == ".pts" ||
         ext == ".txt" || ext == ".csv";
}

CloudData ParseColumnText(std::string_view bytes,
                          const std::string& path,
                          const std::string& columns) {
  const std::string ext = Extension(path);
  // Spreadsheets save CSV with a byte order mark first.
  if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
  if (const size_t at = FirstBinaryByte(bytes); at != std::string_view::npos) {
    char byte[8];
    std::snprintf(byte, sizeof byte, "0x%02x", static_cast<unsigned char>(bytes[at]));
    Fail(path,
         0,
         "expected column text (rows of numbers) but found binary bytes (" + std::string(byte) +
             " at offset " + std::to_string(at) + ")");
  }

  const Prelude prelude = ReadPrelude(bytes, path);
  if (prelude.firstRow.empty()) {
    Fail(path,
         0,
         "expected rows of numbers but found none" +
             (prelude.header.empty() ? std::string()
                                     : " (only the header " + Quote(prelude.header) + ")"));
  }
  const char delimiter = DelimiterOf(prelude.firstRow);
  const size_t fileColumns =
      ForEachField(prelude.firstRow, delimiter, [](size_t, std::string_view) {});

  // Count the rows: every line that is neither blank nor a comment from the first row on.
  size_t rows = 0;
  {
    Lines lines(bytes, prelude.rowsOffset, prelude.rowsLine);
    std::string_view line, body;
    while (lines.next(line)) rows += !line.empty() && !CommentBody(line, body);
  }
  if (prelude.hasCount && static_cast<uint64_t>(prelude.count) != rows) {
    Fail(path,
         0,
         "its first line says " + Count(static_cast<size_t>(prelude.count), "row") + " but " +
             Count(rows, "row") + " follow");
  }
  if (rows > static_cast<size_t>(kMaxPoints)) Fail(path, 0, "more rows than points supported");

  CloudData cloud;
  std::vector<Role> roles;
  if (!columns.empty()) {
    roles = RolesFromNames(columns, false, path, 0, "the columns given", cloud.fields);
    if (roles.size() > fileColumns) {
      Fail(path,
           prelude.firstRowLine,
           "the columns given name " + Count(roles.size(), "column") + " but the rows have " +
               std::to_string(fileColumns));
    }
  } else if (!prelude.header.empty()) {
    roles =
        RolesFromNames(prelude.header, true, path, prelude.headerLine, "the header", cloud.fields);
    if (roles.size() != fileColumns) {
      Fail(path,
           prelude.firstRowLine,
           Count(fileColumns, "column") + " where the header (line " +
               std::to_string(prelude.headerLine) + ") names " + std::to_string(roles.size()));
    }
  } else {
    roles = GuessRoles(fileColumns, ext, path, prelude.firstRowLine, cloud.fields);
  }
  roles.resize(fileColumns, kSkip);

  bool has[kRoles] = {};
  for (Role r : roles) has[r] = true;
  const size_t n = rows;
  cloud.points.resize(3 * n);
  if (has[kNx]) cloud.normals.resize(3 * n);
  std::vector<float> colours(has[kRed] ? 3 * n : 0);
  if (has[kIntensity]) cloud.intensity.resize(n);

  bool allUnit = true, anyFraction = false;
  Lines lines(bytes, prelude.rowsOffset, prelude.rowsLine);
  std::string_view line, body;
  size_t i = 0;
  double value[kRoles] = {};
  while (lines.next(line)) {
    if (line.empty() || CommentBody(line, body)) continue;
    const size_t found = ForEachField(line, delimiter, [&](size_t c, std::string_view word) {
      if (c >= fileColumns || roles[c] == kSkip) return;
      if (!ParseNumber(word, value[roles[c]])) {
        Fail(path,
             lines.number(),
             word.empty() ? "column " + std::to_string(c + 1) + " is empty"
                          : Quote(word) + " is no number");
      }
    });
    if (found != fileColumns) {
      Fail(path,
           lines.number(),
           Count(found, "column") + " where the rows before have " + std::to_string(fileColumns));
    }
    cloud.setPoint(i, value[kX], value[kY], value[kZ]);
    if (has[kNx]) {
      for (size_t k = 0; k < 3; ++k) cloud.normals[3 * i + k] = static_cast<float>(value[kNx + k]);
    }
    if (has[kRed]) {
      for (size_t k = 0; k < 3; ++k) {
        const double v = value[kRed + k];
        if (!(v >= 0.0 && v <= 255.0)) {
          Fail(path, lines.number(), "colour " + std::to_string(v) + " is outside 0-255");
        }
        allUnit = allUnit && v <= 1.0;
        anyFraction = anyFraction || v != std::floor(v);
        colours[3 * i + k] = static_cast<float>(v);
      }
    }
    if (has[kIntensity]) cloud.intensity[i] = static_cast<float>(value[kIntensity]);
    ++i;
  }

  if (has[kRed]) {
    // Colours between 0 and 1 with fractions are unit floats; anything else is a byte (rounded).
    const float scale = allUnit && anyFraction ? 255.0f : 1.0f;
    cloud.colours.resize(colours.size());
    for (size_t k = 0; k < colours.size(); ++k)
      cloud.colours[k] = static_cast<uint8_t>(std::lround(colours[k] * scale));
  }
  cloud.format = ext.size() > 1 ? ext.substr(1) : "text";
  cloud.width = static_cast<int64_t>(n);
  cloud.countNonFinite();
  return cloud;
}

}  // namespace qorv::io
