// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
#include "io/depth_image.hpp"

#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "features/depth_maps.hpp"

#include <png.h>
#include <tiffio.h>

namespace qorv::io {
namespace {

constexpr int64_t kMaxPixels = 1ll << 31;

struct PngSource {
  const unsigned char* data;
  size_t size;
  size_t pos;
};

void ReadFromMemory(png_structp png, png_bytep out, png_size_t length) {
  auto* source = static_cast<PngSource*>(png_get_io_ptr(png));
  if (length > source->size - source->pos) png_error(png, "the file ends early");
  std::memcpy(out, source->data + source->pos, length);
  source->pos += length;
}

void SilentWarning(png_structp, png_const_charp) {}

// Errors end the decoding through the jump buffer without printing: the caller reports them.
void SilentError(png_structp png, png_const_charp) { png_longjmp(png, 1); }

// The decoding itself, in C style: libpng reports errors by longjmp, which must not cross C++
// objects with destructors. Returns an error message, or nullptr with *rows filled (big endian).
const char* DecodePngRows(PngSource* source,
                          png_uint_32* width,
                          png_uint_32* height,
                          unsigned char** pixels,
                          char* message,
                          size_t messageSize) {
  png_structp png =
      png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, SilentError, SilentWarning);
  if (png == nullptr) return "out of memory";
  png_infop info = png_create_info_struct(png);
  unsigned char* volatile buffer = nullptr;
  png_bytep* volatile rows = nullptr;
  if (info == nullptr || setjmp(png_jmpbuf(png))) {
    std::free(buffer);
    std::free(rows);
    png_destroy_read_struct(&png, &info, nullptr);
    std::snprintf(message, messageSize, "corrupt or truncated PNG");
    return message;
  }
  png_set_read_fn(png, source, ReadFromMemory);
  png_read_info(png, info);
  const png_uint_32 w = png_get_image_width(png, info), h = png_get_image_height(png, info);
  const int depth = png_get_bit_depth(png, info), type = png_get_color_type(png, info);
  if (depth != 16 || type != PNG_COLOR_TYPE_GRAY) {
    png_destroy_read_struct(&png, &info, nullptr);
    std::snprintf(message,
                  messageSize,
                  "a depth PNG must be 16-bit grey, this one is %d-bit %s",
                  depth,
                  type == PNG_COLOR_TYPE_GRAY ? "grey" : "colour");
    return message;
  }
  if (w == 0 || h == 0 || static_cast<int64_t>(w) * h > kMaxPixels ||
      static_cast<uint64_t>(w) * h * 2 > 2048ull * (source->size + 64)) {
    png_destroy_read_struct(&png, &info, nullptr);
    std::snprintf(message, messageSize, "implausible PNG size %u x %u", w, h);
    return message;
  }
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  buffer = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(w) * h * 2));
  rows = static_cast<png_bytep*>(std::malloc(sizeof(png_bytep) * h));
  if (buffer == nullptr || rows == nullptr) png_error(png, "out of memory");
  for (png_uint_32 r = 0; r < h; ++r) rows[r] = buffer + static_cast<size_t>(r) * w * 2;
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  std::free(rows);
  *width = w;
  *height = h;
  *pixels = buffer;
  return nullptr;
}

}  // namespace

DepthImage DecodePng(std::string_view bytes, const std::string& path) {
  PngSource source{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), 0};
  png_uint_32 width = 0, height = 0;
  unsigned char* pixels = nullptr;
  char message[160];
  if (const char* error =
          DecodePngRows(&source, &width, &height, &pixels, message, sizeof(message))) {
    throw IoError(IoError::kFormat, "'" + path + "': " + error);
  }
  DepthImage image;
  image.width = static_cast<int32_t>(width);
  image.height = static_cast<int32_t>(height);
  image.depth.resize(static_cast<size_t>(width) * height);
  for (size_t i = 0; i < image.depth.size(); ++i) {
    image.depth[i] =
        static_cast<float>((pixels[2 * i] << 8) | pixels[2 * i + 1]);  // PNG is big endian
  }
  std::free(pixels);
  return image;
}

DepthImage ReadTiff(const std::string& path) {
  TIFFSetErrorHandler(nullptr);
  TIFFSetWarningHandler(nullptr);
  TIFF* tiff = TIFFOpen(path.c_str(), "r");
  if (tiff == nullptr) throw IoError(IoError::kFormat, "'" + path + "': not a readable TIFF file");
  uint32_t width = 0, height = 0;
  uint16_t bits = 0, samples = 1, format = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG;
  TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &planar);
  const bool u16 = bits == 16 && format == SAMPLEFORMAT_UINT;
  const bool f32 = bits == 32 && format == SAMPLEFORMAT_IEEEFP;
  std::string problem;
  if (samples != 1 || !(u16 || f32)) {
    problem =
        "a depth TIFF must hold one 16-bit unsigned or 32-bit float sample a pixel (this one: " +
        std::to_string(samples) + " x " + std::to_string(bits) + "-bit)";
  } else if (width == 0 || height == 0 || static_cast<int64_t>(width) * height > kMaxPixels ||
             static_cast<tmsize_t>(TIFFScanlineSize(tiff)) <
                 static_cast<tmsize_t>(width) * (bits / 8)) {
    problem = "implausible TIFF size " + std::to_string(width) + " x " + std::to_string(height);
  }
  DepthImage image;
  if (problem.empty()) {
    image.width = static_cast<int32_t>(width);
    image.height = static_cast<int32_t>(height);
    std::vector<unsigned char> line(static_cast<size_t>(TIFFScanlineSize(tiff)));
    // Rows are read one at a time and the image grows with them: a lying size runs out of file
    // before it can claim its memory.
    for (uint32_t r = 0; r < height && problem.empty(); ++r) {
      if (TIFFReadScanline(tiff, line.data(), r, 0) < 0) {
        problem = "corrupt or truncated TIFF (row " + std::to_string(r) + ")";
        break;
      }
      for (uint32_t c = 0; c < width; ++c) {
        if (u16) {
          uint16_t v;
          std::memcpy(&v, line.data() + 2 * static_cast<size_t>(c), 2);
          image.depth.push_back(v);
        } else {
          float v;
          std::memcpy(&v, line.data() + 4 * static_cast<size_t>(c), 4);
          image.depth.push_back(v);
        }
      }
    }
  }
  TIFFClose(tiff);
  if (!problem.empty()) throw IoError(IoError::kFormat, "'" + path + "': " + problem);
  return image;
}

CloudData DepthToCloud(const DepthImage& image, const DepthCamera& camera) {
  CloudData cloud;
  cloud.format = "depth image";
  cloud.width = image.width;
  cloud.height = image.height;
  cloud.hasViewpoint = true;  // the camera at the origin
  const size_t n = static_cast<size_t>(image.width) * static_cast<size_t>(image.height);
  std::vector<float> metres(n);
  for (size_t i = 0; i < n; ++i) {
    const double d = image.depth[i] / camera.depthScale;
    metres[i] = std::isfinite(d) && d > 0.0 ? static_cast<float>(d) : 0.0f;
  }
  cloud.points.assign(3 * n, 0.0f);
  cloud.normals.assign(3 * n, 0.0f);
  const Intrinsics k{static_cast<float>(camera.fx),
                     static_cast<float>(camera.fy),
                     static_cast<float>(camera.cx),
                     static_cast<float>(camera.cy)};
  const ImageView<const float> depthView{metres.data(), 0, image.width, image.height};
  const ImageView<float, 3> vertices{cloud.points.data(), 0, image.width, image.height};
  const ImageView<float, 3> normals{cloud.normals.data(), 0, image.width, image.height};
  DepthToVertexMap(depthView, k, vertices);
  VertexToNormalMap(ImageView<const float, 3>{cloud.points.data(), 0, image.width, image.height},
                    normals);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (size_t i = 0; i < n; ++i) {
    if (metres[i] > 0.0f) continue;
    for (size_t c = 0; c < 3; ++c) cloud.points[3 * i + c] = nan;
  }
  cloud.fields = {"x", "y", "z", "normal_x", "normal_y", "normal_z"};
  cloud.countNonFinite();
  return cloud;
}

}  // namespace qorv::io
