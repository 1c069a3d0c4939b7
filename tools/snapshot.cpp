// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "snapshot.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "session.hpp"

#include <png.h>

namespace qorv::tools {
namespace {

using Rgb = std::array<uint8_t, 3>;

constexpr Rgb kBackground{250, 250, 247};
constexpr Rgb kTargetColour{52, 110, 190};
constexpr Rgb kSourceColour{238, 128, 30};
constexpr Rgb kBothColour{150, 70, 150};  // target and source on the same surface
constexpr Rgb kInk{60, 60, 60};

struct Image {
  int width = 0, height = 0;
  std::vector<uint8_t> rgb;
  std::vector<float> depth;    // nearer is larger
  std::vector<uint8_t> owner;  // 0 background, else the index + 1 of the layer drawn there

  Image(int w, int h)
      : width(w),
        height(h),
        rgb(3 * static_cast<size_t>(w) * h),
        depth(static_cast<size_t>(w) * h, -std::numeric_limits<float>::infinity()),
        owner(static_cast<size_t>(w) * h, 0) {
    for (size_t i = 0; i < rgb.size(); i += 3)
      std::copy(kBackground.begin(), kBackground.end(), &rgb[i]);
  }
  void set(int x, int y, const Rgb& c) {
    if (x < 0 || y < 0 || x >= width || y >= height) return;
    std::copy(c.begin(), c.end(), &rgb[3 * (static_cast<size_t>(y) * width + x)]);
  }
};

// A fixed oblique view: yaw about y, then pitch about x; screen x right, y up, depth towards
// the viewer.
struct View {
  double m[9];
  View(float yawDegrees, float pitchDegrees) {
    const double yaw = yawDegrees * M_PI / 180.0, pitch = pitchDegrees * M_PI / 180.0;
    const double cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch);
    // Rx(pitch) * Ry(yaw)
    const double ry[9] = {cy, 0, sy, 0, 1, 0, -sy, 0, cy};
    const double rx[9] = {1, 0, 0, 0, cp, -sp, 0, sp, cp};
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        m[3 * r + c] = rx[3 * r] * ry[c] + rx[3 * r + 1] * ry[3 + c] + rx[3 * r + 2] * ry[6 + c];
      }
    }
  }
  std::array<double, 3> operator()(const float* p) const {
    return {m[0] * p[0] + m[1] * p[1] + m[2] * p[2],
            m[3] * p[0] + m[4] * p[1] + m[5] * p[2],
            m[6] * p[0] + m[7] * p[1] + m[8] * p[2]};
  }
};

struct Layer {
  const std::vector<float>* points;
  Rgb colour;
};

Rgb Shaded(const Rgb& colour, double shade) {
  Rgb out;
  for (int c = 0; c < 3; ++c)
    out[c] = static_cast<uint8_t>(std::clamp(colour[c] * shade, 0.0, 255.0));
  return out;
}

bool Finite(const float* p) {
  return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

// Draws the layers into the panel [x0, x0 + w) x [0, h), framed on their joint bounds.
void DrawPanel(
    Image& image, int x0, int w, int h, const View& view, const std::vector<Layer>& layers) {
  double lo[3] = {1e300, 1e300, 1e300}, hi[3] = {-1e300, -1e300, -1e300};
  size_t total = 0;
  for (const Layer& layer : layers) {
    for (size_t i = 0; i + 2 < layer.points->size(); i += 3) {
      if (!Finite(&(*layer.points)[i])) continue;
      const auto v = view(&(*layer.points)[i]);
      for (int c = 0; c < 3; ++c) lo[c] = std::min(lo[c], v[c]), hi[c] = std::max(hi[c], v[c]);
      ++total;
    }
  }
  if (total == 0) return;
  const int margin = std::max(8, w / 24);
  const double spanX = std::max(hi[0] - lo[0], 1e-12), spanY = std::max(hi[1] - lo[1], 1e-12);
  const double scale = std::min((w - 2 * margin) / spanX, (h - 2 * margin) / spanY);
  const double offsetX = x0 + w / 2.0 - scale * (lo[0] + hi[0]) / 2.0;
  const double offsetY = h / 2.0 + scale * (lo[1] + hi[1]) / 2.0;
  const double spanZ = std::max(hi[2] - lo[2], 1e-12);
  // Splat radius from the density: about the spacing of points spread over the panel's area.
  const double area = spanX * spanY * scale * scale;
  const double spacingPx = std::sqrt(area / static_cast<double>(total));
  const int radius = std::clamp(static_cast<int>(std::lround(spacingPx * 0.9)), 1, 6);

  // Where a later layer lies on the surface of an earlier one (within about two point spacings
  // in depth), the pixel takes the mixed colour: aligned overlap shows as one blended band,
  // misalignment as separate colours.
  const float sameSurface = static_cast<float>(2.0 * spacingPx / scale);
  for (size_t l = 0; l < layers.size(); ++l) {
    const Layer& layer = layers[l];
    const auto id = static_cast<uint8_t>(l + 1);
    for (size_t i = 0; i + 2 < layer.points->size(); i += 3) {
      if (!Finite(&(*layer.points)[i])) continue;
      const auto v = view(&(*layer.points)[i]);
      const int px = static_cast<int>(std::lround(offsetX + scale * v[0]));
      const int py = static_cast<int>(std::lround(offsetY - scale * v[1]));
      const float depth = static_cast<float>(v[2]);
      // Nearer points are brighter: 0.45 .. 1.0 of the colour.
      const double shade = 0.45 + 0.55 * (v[2] - lo[2]) / spanZ;
      for (int dy = -radius; dy <= radius; ++dy) {
        for (int dx = -radius; dx <= radius; ++dx) {
          if (dx * dx + dy * dy > radius * radius) continue;
          const int x = px + dx, y = py + dy;
          if (x < x0 || x >= x0 + w || y < 0 || y >= h) continue;
          const size_t at = static_cast<size_t>(y) * image.width + x;
          float& z = image.depth[at];
          uint8_t& owner = image.owner[at];
          const bool otherLayer = owner != 0 && owner != id;
          if (otherLayer && std::abs(depth - z) <= sameSurface) {
            z = std::max(z, depth);
            owner = 255;  // mixed
            image.set(x, y, Shaded(kBothColour, shade));
            continue;
          }
          if (depth <= z) continue;
          z = depth;
          owner = id;
          image.set(x, y, Shaded(layer.colour, shade));
        }
      }
    }
  }
}

// 5 x 7 glyphs for the panel labels, one bit a pixel, rows top down, bit 4 the leftmost.
const std::array<uint8_t, 7>* Glyph(char c) {
  static const std::array<uint8_t, 7> kA{14, 17, 17, 31, 17, 17, 17},
      kB{30, 17, 17, 30, 17, 17, 30}, kE{31, 16, 16, 30, 16, 16, 31},
      kF{31, 16, 16, 30, 16, 16, 16}, kG{14, 17, 16, 23, 17, 17, 15},
      kO{14, 17, 17, 17, 17, 17, 14}, kR{30, 17, 17, 30, 20, 18, 17}, kS{15, 16, 16, 14, 1, 1, 30},
      kT{31, 4, 4, 4, 4, 4, 4}, kU{17, 17, 17, 17, 17, 17, 14}, kC{14, 17, 16, 16, 16, 17, 14},
      kN{17, 25, 21, 19, 17, 17, 17}, kI{14, 4, 4, 4, 4, 4, 14}, kH{17, 17, 17, 31, 17, 17, 17},
      kBlank{0, 0, 0, 0, 0, 0, 0};
  switch (c) {
    case 'A':
      return &kA;
    case 'B':
      return &kB;
    case 'C':
      return &kC;
    case 'E':
      return &kE;
    case 'F':
      return &kF;
    case 'G':
      return &kG;
    case 'H':
      return &kH;
    case 'I':
      return &kI;
    case 'N':
      return &kN;
    case 'O':
      return &kO;
    case 'R':
      return &kR;
    case 'S':
      return &kS;
    case 'T':
      return &kT;
    case 'U':
      return &kU;
    default:
      return &kBlank;
  }
}

void DrawText(Image& image, int x, int y, const std::string& text, const Rgb& colour, int scale) {
  for (const char c : text) {
    const auto& rows = *Glyph(c);
    for (int r = 0; r < 7; ++r) {
      for (int b = 0; b < 5; ++b) {
        if (((rows[r] >> (4 - b)) & 1) == 0) continue;
        for (int sy = 0; sy < scale; ++sy) {
          for (int sx = 0; sx < scale; ++sx)
            image.set(x + b * scale + sx, y + r * scale + sy, colour);
        }
      }
    }
    x += 6 * scale;
  }
}

void DrawSwatch(Image& image, int x, int y, int size, const Rgb& colour) {
  for (int dy = 0; dy < size; ++dy) {
    for (int dx = 0; dx < size; ++dx) image.set(x + dx, y + dy, colour);
  }
}

}  // namespace

void WriteSnapshot(const std::string& path,
                   const std::vector<float>& target,
                   const std::vector<float>& sourceBefore,
                   const std::vector<float>& sourceAfter,
                   const SnapshotOptions& options) {
  const int width = std::clamp(options.width, 64, 8192);
  const int height = std::clamp(options.height, 64, 8192);
  Image image(width, height);
  const View view(options.yawDegrees, options.pitchDegrees);
  const int panel = width / 2;
  DrawPanel(
      image, 0, panel, height, view, {{&target, kTargetColour}, {&sourceBefore, kSourceColour}});
  DrawPanel(image,
            panel,
            width - panel,
            height,
            view,
            {{&target, kTargetColour}, {&sourceAfter, kSourceColour}});
  for (int y = 0; y < height; ++y) image.set(panel, y, kInk);

  const int scale = std::max(1, height / 200);
  DrawText(image, 10 * scale, 8 * scale, "BEFORE", kInk, scale);
  DrawText(image, panel + 10 * scale, 8 * scale, "AFTER", kInk, scale);
  const int legendY = height - 14 * scale;
  DrawSwatch(image, 10 * scale, legendY, 7 * scale, kTargetColour);
  DrawText(image, 20 * scale, legendY, "TARGET", kInk, scale);
  DrawSwatch(image, 64 * scale, legendY, 7 * scale, kSourceColour);
  DrawText(image, 74 * scale, legendY, "SOURCE", kInk, scale);
  DrawSwatch(image, 118 * scale, legendY, 7 * scale, kBothColour);
  DrawText(image, 128 * scale, legendY, "BOTH", kInk, scale);

  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(width);
  png.height = static_cast<png_uint_32>(height);
  png.format = PNG_FORMAT_RGB;
  if (png_image_write_to_file(&png, path.c_str(), 0, image.rgb.data(), 0, nullptr) == 0) {
    const std::string reason = png.message[0] != '\0' ? png.message : "unknown error";
    png_image_free(&png);
    throw ToolError("cannot write snapshot '" + path + "': " + reason);
  }
}

}  // namespace qorv::tools
