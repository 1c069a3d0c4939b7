// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/manifest.hpp"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "io/cloud_data.hpp"

#include <nlohmann/json.hpp>

namespace qorv::io {
namespace {

struct Line {
  int64_t number = 0;
  std::string text;
};

// The lines that say something: blank and '#' lines passed over, line ends trimmed.
std::vector<Line> MeaningfulLines(std::string_view text) {
  std::vector<Line> lines;
  int64_t number = 0;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string line(text.substr(at, end - at));
    at = end + 1;
    ++number;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
      line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    lines.push_back({number, std::move(line)});
  }
  return lines;
}

std::string Where(const std::string& path, int64_t line) {
  return "manifest '" + path + "' line " + std::to_string(line);
}

std::string Beside(const std::string& manifest, const std::string& named) {
  const std::filesystem::path given(named);
  if (given.is_absolute()) return named;
  return (std::filesystem::path(manifest).parent_path() / given).lexically_normal().string();
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw IoError(IoError::kFile, "cannot open manifest '" + path + "': " + std::strerror(errno));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw IoError(IoError::kFile, "cannot read manifest '" + path + "'");
  return text.str();
}

std::vector<std::string> SplitCsv(const std::string& line) {
  std::vector<std::string> cells;
  std::string cell;
  bool quoted = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      cells.push_back(cell);
      cell.clear();
    } else {
      cell += c;
    }
  }
  cells.push_back(cell);
  for (std::string& s : cells) {
    const size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t");
    s = a == std::string::npos ? "" : s.substr(a, b - a + 1);
  }
  return cells;
}

// 12 or 16 finite numbers (a 4 x 4 ends with the row 0 0 0 1) into pair.initial.
void SetInitial(ManifestPair& pair, const std::vector<double>& values, const std::string& where) {
  for (double v : values) {
    if (!std::isfinite(v))
      throw IoError(IoError::kFormat, where + ": the initial guess is not finite");
  }
  if (values.size() == 16 &&
      (values[12] != 0 || values[13] != 0 || values[14] != 0 || values[15] != 1)) {
    throw IoError(IoError::kFormat,
                  where + ": a 4 x 4 initial guess must end with the row 0 0 0 1");
  }
  if (values.size() != 12 && values.size() != 16) {
    throw IoError(IoError::kFormat,
                  where +
                      ": an initial guess is 12 numbers (3 x 4 [R | t]) or 16 "
                      "(4 x 4), not " +
                      std::to_string(values.size()));
  }
  for (size_t i = 0; i < 12; ++i) pair.initial[i] = values[i];
  pair.hasInitial = true;
}

std::vector<double> NumbersOf(const std::string& text, const std::string& where) {
  std::vector<double> values;
  const char* at = text.c_str();
  while (*at != '\0') {
    if (*at == ',' || *at == ';' || *at == '[' || *at == ']' ||
        std::isspace(static_cast<unsigned char>(*at))) {
      ++at;
      continue;
    }
    char* end = nullptr;
    const double v = std::strtod(at, &end);
    if (end == at) {
      throw IoError(IoError::kFormat,
                    where + ": the initial guess has a word that is no number near '" +
                        std::string(at).substr(0, 16) + "'");
    }
    values.push_back(v);
    at = end;
  }
  return values;
}

std::vector<double> NumbersOf(const nlohmann::json& value, const std::string& where) {
  std::vector<double> values;
  auto add = [&](const nlohmann::json& x) {
    if (!x.is_number())
      throw IoError(IoError::kFormat, where + ": the initial guess holds something not a number");
    values.push_back(x.get<double>());
  };
  if (!value.is_array())
    throw IoError(IoError::kFormat, where + ": \"initial\" is a list of numbers or of rows");
  for (const auto& v : value) {
    if (v.is_array()) {
      for (const auto& x : v) add(x);
    } else {
      add(v);
    }
  }
  return values;
}

}  // namespace

std::vector<ManifestPair> ParsePairManifest(std::string_view text, const std::string& path) {
  std::vector<ManifestPair> pairs;
  int targetColumn = -1, sourceColumn = -1, initialColumn = -1;
  bool json = false, header = false;
  for (const Line& entry : MeaningfulLines(text)) {
    const std::string& line = entry.text;
    const std::string where = Where(path, entry.number);
    if (!header && !json && line[line.find_first_not_of(" \t")] == '{') json = true;
    ManifestPair pair;
    pair.line = entry.number;
    if (json) {
      nlohmann::json doc;
      try {
        doc = nlohmann::json::parse(line);
      } catch (const nlohmann::json::exception& e) {
        throw IoError(IoError::kFormat, where + ": not JSON: " + e.what());
      }
      if (!doc.is_object() || !doc.contains("target") || !doc.contains("source") ||
          !doc["target"].is_string() || !doc["source"].is_string()) {
        throw IoError(IoError::kFormat, where + ": needs \"target\" and \"source\" strings");
      }
      pair.target = doc["target"].get<std::string>();
      pair.source = doc["source"].get<std::string>();
      if (doc.contains("initial") && !doc["initial"].is_null())
        SetInitial(pair, NumbersOf(doc["initial"], where), where);
    } else if (!header) {
      const std::vector<std::string> cells = SplitCsv(line);
      for (size_t c = 0; c < cells.size(); ++c) {
        if (cells[c] == "target") targetColumn = static_cast<int>(c);
        if (cells[c] == "source") sourceColumn = static_cast<int>(c);
        if (cells[c] == "initial") initialColumn = static_cast<int>(c);
      }
      if (targetColumn < 0 || sourceColumn < 0) {
        throw IoError(IoError::kFormat,
                      where +
                          ": a CSV manifest starts with a header naming target and source "
                          "columns");
      }
      header = true;
      continue;
    } else {
      const std::vector<std::string> cells = SplitCsv(line);
      const int needed = std::max(targetColumn, sourceColumn);
      if (static_cast<int>(cells.size()) <= needed)
        throw IoError(IoError::kFormat, where + ": too few columns");
      pair.target = cells[static_cast<size_t>(targetColumn)];
      pair.source = cells[static_cast<size_t>(sourceColumn)];
      if (initialColumn >= 0 && static_cast<int>(cells.size()) > initialColumn &&
          !cells[static_cast<size_t>(initialColumn)].empty()) {
        SetInitial(pair, NumbersOf(cells[static_cast<size_t>(initialColumn)], where), where);
      }
    }
    if (pair.target.empty() || pair.source.empty())
      throw IoError(IoError::kFormat, where + ": a target and a source path are needed");
    pair.targetPath = Beside(path, pair.target);
    pair.sourcePath = Beside(path, pair.source);
    pairs.push_back(std::move(pair));
  }
  if (pairs.empty()) throw IoError(IoError::kFormat, "manifest '" + path + "' lists no pair");
  return pairs;
}

std::vector<ManifestPair> ReadPairManifest(const std::string& path) {
  return ParsePairManifest(ReadText(path), path);
}

std::vector<std::string> ParseScanList(std::string_view text, const std::string& path) {
  std::vector<std::string> scans;
  for (const Line& line : MeaningfulLines(text)) {
    const size_t first = line.text.find_first_not_of(" \t");
    scans.push_back(Beside(path, line.text.substr(first)));
  }
  return scans;
}

std::vector<std::string> ReadScanList(const std::string& path) {
  return ParseScanList(ReadText(path), path);
}

}  // namespace qorv::io
