// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace qorv::io {

// A cloud as files hold it. An organized cloud (a sensor frame) has width x height points, row
// after row, with NaN coordinates where the sensor saw nothing; an unorganized one has height 1.
struct CloudData {
  std::vector<float> points;            // 3 per point
  std::vector<float> normals;           // empty, or 3 per point
  std::vector<uint8_t> colours;         // empty, or 3 per point (red, green, blue)
  std::vector<float> intensity;         // empty, or 1 per point
  std::vector<uint8_t> classification;  // empty, or 1 per point (LAS classes)
  std::vector<double> gpsTime;          // empty, or 1 per point (LAS GPS time)
  // Coordinates are kept in float relative to this origin (whole metres), so that survey-scale
  // files keep their precision: a point's true position is origin + its float triple. It stays 0
  // while the file's coordinates are small enough for float to hold them (see setPoint).
  double origin[3] = {0, 0, 0};
  // A LAS file's own quantisation (scale and offset a coordinate), kept to write LAS back alike.
  bool hasLasQuantum = false;
  double lasScale[3] = {0.001, 0.001, 0.001};
  double lasOffset[3] = {0, 0, 0};
  int64_t width = 0;
  int64_t height = 1;
  bool hasViewpoint = false;
  double viewpoint[7] = {0, 0, 0, 1, 0, 0, 0};  // translation, then the rotation quaternion w x y z
  std::string format;                           // "pcd (binary_compressed)", "ply (ascii)", ...
  std::vector<std::string> fields;              // the file's per-point fields, in file order
  int64_t nonFinite = 0;                        // points with a NaN or infinite coordinate
  int64_t fileWidth = 0, fileHeight = 0;        // the layout in the file, when it was organized

  int64_t size() const { return static_cast<int64_t>(points.size() / 3); }
  bool organized() const { return height > 1; }
  // Drops the points with a non-finite coordinate (and their attributes); the cloud becomes
  // unorganized (fileWidth and fileHeight keep the layout it had). Counts them in nonFinite first.
  void keepFinite();
  // Counts the non-finite points into nonFinite.
  void countNonFinite();
  // Stores point i (points already sized) from coordinates in double. The first coordinate of an
  // axis that float cannot hold to a tenth of a millimetre (|v| >= kLargeCoordinate) fixes that
  // axis's origin at v rounded to a metre, and the points stored before it are moved onto it.
  // Readers store points in file order through this.
  void setPoint(size_t i, double x, double y, double z);
  // The true position of point i, in double.
  void position(size_t i, double out[3]) const;
  bool hasOrigin() const { return origin[0] != 0.0 || origin[1] != 0.0 || origin[2] != 0.0; }
};

// A file that cannot be read or written (kFile), or whose contents are no cloud we read (kFormat).
class IoError : public std::runtime_error {
 public:
  enum Kind { kFile = 1, kFormat = 2 };
  IoError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// Beyond this magnitude (metres, or the file's unit) float steps exceed 0.1 mm, and coordinates
// are kept relative to an origin.
constexpr double kLargeCoordinate = 1024.0;

// The most points a cloud may hold (the engine and the library count in int32).
constexpr int64_t kMaxPoints = 2147483647;

}  // namespace qorv::io
