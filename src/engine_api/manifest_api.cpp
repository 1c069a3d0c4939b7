// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
//
// The manifests of batch and multiway, read once for the tool and the Python package.
#include <memory>
#include <string>
#include <vector>

#include <qorv/engine_io.h>

#include "engine_api/guard.hpp"
#include "io/manifest.hpp"

namespace {

// The C records and the strings they point into; the record is the first member, so its address
// is the owner's.
struct OwnedManifest {
  QorvEngineManifest data{};
  std::vector<qorv::io::ManifestPair> pairs;
  std::vector<QorvEngineManifestPair> records;
};

struct OwnedScanList {
  QorvEngineScanList data{};
  std::vector<std::string> paths;
  std::vector<const char*> pointers;
};

}  // namespace

using qorv::engine::Fail;
using qorv::engine::Guarded;

QORV_ENGINE_API int32_t QorvEngineReadManifest(const char* path, QorvEngineManifest** manifest) {
  return Guarded([&]() -> int32_t {
    if (path == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the path is null");
    if (manifest == nullptr)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the output pointer is null");
    auto owned = std::make_unique<OwnedManifest>();
    owned->pairs = qorv::io::ReadPairManifest(path);
    for (const qorv::io::ManifestPair& pair : owned->pairs) {
      QorvEngineManifestPair record{};
      record.line = pair.line;
      record.target = pair.target.c_str();
      record.source = pair.source.c_str();
      record.target_path = pair.targetPath.c_str();
      record.source_path = pair.sourcePath.c_str();
      record.has_initial = pair.hasInitial ? 1 : 0;
      for (int i = 0; i < 16; ++i) record.initial[i] = pair.initial[i];
      owned->records.push_back(record);
    }
    owned->data.count = static_cast<int64_t>(owned->records.size());
    owned->data.pairs = owned->records.data();
    *manifest = &owned.release()->data;
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API void QorvEngineFreeManifest(QorvEngineManifest* manifest) {
  delete reinterpret_cast<OwnedManifest*>(manifest);
}

QORV_ENGINE_API int32_t QorvEngineReadScanList(const char* path, QorvEngineScanList** list) {
  return Guarded([&]() -> int32_t {
    if (path == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the path is null");
    if (list == nullptr)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the output pointer is null");
    auto owned = std::make_unique<OwnedScanList>();
    owned->paths = qorv::io::ReadScanList(path);
    for (const std::string& p : owned->paths) owned->pointers.push_back(p.c_str());
    owned->data.count = static_cast<int64_t>(owned->pointers.size());
    owned->data.paths = owned->pointers.data();
    *list = &owned.release()->data;
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API void QorvEngineFreeScanList(QorvEngineScanList* list) {
  delete reinterpret_cast<OwnedScanList*>(list);
}
