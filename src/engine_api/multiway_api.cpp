// SPDX-License-Identifier: MIT
// Copyright (c) 2026 The Qorv developers
// The C interface of many-scan alignment: argument checks, then the C++ alignment.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <qorv/engine_multiway.h>

#include "engine_api/conversions.hpp"
#include "engine_api/guard.hpp"
#include "multiway/multiway.hpp"

using qorv::engine::Fail;
using qorv::engine::Guarded;
using qorv::engine::SetLastError;

extern "C" {

QORV_ENGINE_API int32_t QorvEngineMultiwayPlace(const QorvEngineCloud* scans,
                                                int32_t count,
                                                const QorvEngineOptions* options,
                                                int32_t loops,
                                                int32_t reference,
                                                const QorvEngineMultiwayEdge* extra,
                                                int32_t extra_count,
                                                QorvEngineMultiwayProgress progress,
                                                void* user,
                                                double* poses,
                                                QorvEngineMultiwayScan* placed,
                                                QorvEngineMultiwayEdge* edges,
                                                int32_t edge_capacity,
                                                int32_t* edge_count) {
  return Guarded([&]() -> int32_t {
    if (scans == nullptr || count < 2)
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "at least two scans are needed");
    if (reference < 0 || reference >= count) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the reference " + std::to_string(reference) + " names no scan (0 to " +
                      std::to_string(count - 1) + ")");
    }
    if (extra_count < 0 || (extra_count > 0 && extra == nullptr)) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the extra edges are null or their count negative");
    }
    if (poses == nullptr) return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, "the poses are null");
    if (edge_capacity < 0 || (edge_capacity > 0 && edges == nullptr)) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the edges are null or their capacity negative");
    }
    const size_t cloudSize = qorv::engine::CloudSize(options);
    if (cloudSize == 0) {
      return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                  "the options' cloud_size is smaller than any QorvEngineCloud");
    }
    std::vector<qorv::engine::CloudView> views;
    for (int32_t i = 0; i < count; ++i) {
      const std::string what = "scan " + std::to_string(i);
      const QorvEngineCloud scan = qorv::engine::CloudAt(scans, static_cast<size_t>(i), cloudSize);
      if (std::string m = qorv::engine::CheckCloud(&scan, what.c_str()); !m.empty()) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, m);
      }
      views.push_back(qorv::engine::ViewOf(scan));
    }
    qorv::engine::Options opts;
    if (options != nullptr) {
      if (options->struct_size < offsetof(QorvEngineOptions, sensor_origin)) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "the options' struct_size is not set: fill them with QorvEngineDefaultOptions");
      }
      QorvEngineOptions global = qorv::engine::OptionsWithin(*options);
      global.mode = QORV_ENGINE_MODE_GLOBAL;
      global.has_initial = 0;
      if (std::string bad = qorv::engine::FromC(global, opts); !bad.empty()) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT, bad);
      }
    }
    std::vector<qorv::multiway::Edge> given;
    for (int32_t e = 0; e < extra_count; ++e) {
      const QorvEngineMultiwayEdge& x = extra[e];
      if (x.from < 0 || x.from >= count || x.to < 0 || x.to >= count || x.from == x.to) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "extra edge " + std::to_string(e) + " names no two scans");
      }
      if (!(x.rotation_sigma > 0.0) || !(x.shift_sigma > 0.0)) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "extra edge " + std::to_string(e) + " needs positive sigmas");
      }
      qorv::multiway::Edge edge;
      edge.from = x.from;
      edge.to = x.to;
      edge.motion = qorv::engine::FromRowMajor(x.motion);
      if (!edge.motion.allFinite()) {
        return Fail(QORV_ENGINE_ERROR_INVALID_ARGUMENT,
                    "extra edge " + std::to_string(e) + " holds a non-finite number");
      }
      edge.rotationSigma = x.rotation_sigma;
      edge.shiftSigma = x.shift_sigma;
      given.push_back(edge);
    }
    qorv::multiway::MultiwayOptions multiway;
    multiway.loops = loops != 0;
    multiway.reference = reference;
    if (progress != nullptr) {
      multiway.progress = [progress, user](const qorv::multiway::Progress& p) {
        progress(p.pairsDone, p.pairsPlanned, p.edgesKept, user);
      };
    }
    std::vector<qorv::multiway::Pose> settled;
    std::vector<qorv::multiway::ScanReport> where;
    std::vector<qorv::multiway::EdgeReport> reports;
    std::string error;
    const int32_t code =
        qorv::multiway::AlignScans(views, opts, multiway, given, settled, where, reports, error);
    if (code != QORV_ENGINE_OK) return Fail(code, error);
    for (int32_t i = 0; i < count; ++i) {
      qorv::engine::ToRowMajor(settled[static_cast<size_t>(i)], poses + 16 * i);
      if (placed != nullptr) {
        placed[i].placed = where[static_cast<size_t>(i)].placed ? 1 : 0;
        placed[i].group = where[static_cast<size_t>(i)].group;
      }
    }
    const int32_t total = static_cast<int32_t>(reports.size());
    for (int32_t e = 0; e < std::min(total, edge_capacity); ++e) {
      const qorv::multiway::EdgeReport& r = reports[static_cast<size_t>(e)];
      QorvEngineMultiwayEdge& out = edges[e];
      out.from = r.edge.from;
      out.to = r.edge.to;
      qorv::engine::ToRowMajor(r.edge.motion, out.motion);
      out.rotation_sigma = r.edge.rotationSigma;
      out.shift_sigma = r.edge.shiftSigma;
      out.loop = r.loop ? 1 : 0;
      out.registered = r.registered ? 1 : 0;
      out.rejected = r.edge.rejected ? 1 : 0;
      out.fitness = r.fitness;
      out.consistent_pairs = r.consistentPairs;
      out.residual = r.residual;
    }
    if (edge_count != nullptr) *edge_count = total;
    SetLastError("");
    return QORV_ENGINE_OK;
  });
}

QORV_ENGINE_API int32_t QorvEngineMultiway(const QorvEngineCloud* scans,
                                           int32_t count,
                                           const QorvEngineOptions* options,
                                           int32_t loops,
                                           const QorvEngineMultiwayEdge* extra,
                                           int32_t extra_count,
                                           double* poses,
                                           QorvEngineMultiwayEdge* edges,
                                           int32_t edge_capacity,
                                           int32_t* edge_count) {
  return QorvEngineMultiwayPlace(scans,
                                 count,
                                 options,
                                 loops,
                                 0,
                                 extra,
                                 extra_count,
                                 nullptr,
                                 nullptr,
                                 poses,
                                 nullptr,
                                 edges,
                                 edge_capacity,
                                 edge_count);
}

}  // extern "C"
