/* SPDX-License-Identifier: MIT
 * Copyright (c) 2026 The Qorv developers */
/*
 * Qorv: point-cloud registration through flat C exports.
 *
 * Conventions shared by every export:
 * - Point clouds are packed float triples (x, y, z; 12 bytes a point) with an int32 count; normal
 *   arrays use the same layout. The caller owns every input and output array and allocates outputs
 *   at the size stated per export.
 * - The first parameter is the instance (except QorvCreateInstance and QorvVersion). A null
 * instance gives QORV_ERROR_NULL_INSTANCE before anything else is looked at; then pointer and count
 *   arguments are tested in parameter order and the first failure gives
 * QORV_ERROR_INVALID_ARGUMENT. Nothing is allocated or written before those checks pass.
 * - Results of variable size are handed to a callback before the export returns. Arrays passed to a
 *   callback belong to the library and are valid only until the callback returns.
 * - Exports never throw. Should memory run out inside a processing export, it returns
 *   QORV_ERROR_ALLOCATION; outputs may then be partly written.
 * - Points with a NaN coordinate are never indexed and never returned as neighbours. Infinite
 *   coordinates are indexed like finite ones; a cloud holding +inf and -inf along one axis can hide
 *   the neighbours of finite points from every search (zero normals, NaN smoothed points, missing
 *   key points): remove non-finite points first.
 * - Informational lines go to standard output, prefixed with "[QORV INFO] ".
 * - Rigid transforms passed out are 12 doubles, a 3 x 4 matrix [R | t] row after row (translation
 * at elements 3, 7 and 11); R * p + t carries a point of the second cloud onto the first.
 *   QorvTransformPoints instead takes the nine rotation values followed by tx, ty, tz.
 * - Every processing export has a single-threaded and a multi-threaded variant, chosen by the
 *   instance's multi-thread setting, that give identical results (RANSAC aside: it is seeded from
 *   the clock).
 *
 * Threads: an instance must not be reconfigured while another call uses it. Calls on distinct
 * instances may run concurrently from several host threads, tree-building exports included: the
 * search-tree node pools are kept per calling thread. A multi-threaded call that the OpenMP runtime
 * gives fewer threads than omp_get_max_threads() (inside the host's own parallel region,
 * OMP_THREAD_LIMIT, OMP_DYNAMIC) still processes every point and gives the same bits.
 */
#ifndef QORV_QORV_H_
#define QORV_QORV_H_

#include <stdint.h>

#if defined(_WIN32)
#define QORV_API __declspec(dllexport)
#elif defined(__GNUC__)
#define QORV_API __attribute__((visibility("default")))
#else
#define QORV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque settings record: match neighbour number (default 0), cross check (default on),
 * multi-threading (default off). */
typedef struct QorvInstance QorvInstance;

typedef int32_t QorvResult;
enum {
  QORV_OK = 0,
  QORV_ERROR_FILE = 1,             /* ASC file could not be read into a point, or not written */
  QORV_ERROR_INVALID_ARGUMENT = 3, /* null pointer, count or size below 1, bad radius */
  QORV_ERROR_NULL_INSTANCE = 8,    /* the instance handle is null */
  QORV_ERROR_ALLOCATION = 9        /* memory could not be allocated */
};

/* Indices of kept points (voxel, outlier and edge filters), ascending. */
typedef void (*QorvIndexCallback)(const int32_t* indices, int32_t count, void* user);

/* One correspondence: key point of the second cloud and its matched key point in the first. */
typedef struct QorvMatchPair {
  uint32_t indexInSecond;
  uint32_t indexInFirst;
} QorvMatchPair;

/* Correspondences in ascending order of indexInSecond; pairs is null when count is 0. */
typedef void (*QorvMatchCallback)(const QorvMatchPair* pairs, uint32_t count, void* user);

/* Key points handed to QorvKeyPointCallback. */
typedef struct QorvKeyPointResult {
  int32_t count;            /* number of key points */
  int32_t reserved;         /* always 0 */
  const float* descriptors; /* count x 33 floats: three 11-bin blocks, each summing to 100 or 0 */
  const float* positions;   /* count x 3 floats */
  const float* normals;     /* count x 3 floats, the input normals at the key points */
} QorvKeyPointResult;

typedef void (*QorvKeyPointCallback)(const QorvKeyPointResult* result, void* user);

/* Arrays read from an ASC file: normals is null unless the file has 6 or 9 columns, colours null
 * unless it has 9. The return value is ignored. */
typedef int32_t (*QorvAscCallback)(const float* points,
                                   const float* normals,
                                   const unsigned char* colours,
                                   int64_t count,
                                   void* user);

/* ---- Instance and settings ------------------------------------------------------------------ */

/* Allocates an instance with the default settings into *out. QORV_ERROR_INVALID_ARGUMENT if out is
 * null, QORV_ERROR_ALLOCATION if the record cannot be allocated. */
QORV_API QorvResult QorvCreateInstance(QorvInstance** out);

/* Frees the instance; a null handle is accepted. Always QORV_OK. */
QORV_API QorvResult QorvDestroyInstance(QorvInstance* inst);

/* Descriptor matching keeps only matches that no other query beats (on by default). */
QORV_API QorvResult QorvEnableCrossCheck(QorvInstance* inst);
QORV_API QorvResult QorvDisableCrossCheck(QorvInstance* inst);

/* Processing exports spread their per-point loops over OpenMP threads (off by default). */
QORV_API QorvResult QorvEnableMultiThread(QorvInstance* inst);
QORV_API QorvResult QorvDisableMultiThread(QorvInstance* inst);

/* Tests out before the handle: null out gives QORV_ERROR_INVALID_ARGUMENT even with a null handle.
 */
QORV_API QorvResult QorvGetMatchNeighborNum(QorvInstance* inst, int32_t* out);

/* Tests n before the handle: n < 0 gives QORV_ERROR_INVALID_ARGUMENT; 0 is accepted. */
QORV_API QorvResult QorvSetMatchNeighborNum(QorvInstance* inst, int32_t n);

/* The library version as "major.minor.patch". */
QORV_API const char* QorvVersion(void);

/* ---- Point files and rigid geometry ---------------------------------------------------------- */

/* Reads an ASC text file of 3, 6 or 9 whitespace-separated numbers a point (position; normal;
 * colour). The layout is chosen from the average count of numbers a line (above 8.99: 9 columns,
 * above 5.99: 6, else 3) and numbers are grouped in file order regardless of line breaks. Words are
 * skipped; a carriage return ends a number. The callback (may be null) receives the arrays once.
 * QORV_ERROR_FILE if the file cannot be opened or read, is 4 GiB or larger, or holds no point; a
 * null path gives QORV_ERROR_FILE too. Lines may carry any number of numbers and the last line
 * needs no line feed: every number is kept. Colour numbers are truncated toward zero and keep their
 * low 8 bits (NaN, infinities and magnitudes of 2^31 or more give 0). */
QORV_API QorvResult QorvReadPointsFromASC(QorvInstance* inst,
                                          const char* path,
                                          QorvAscCallback callback,
                                          void* user);

/* Writes n points as "%f %f %f" lines, with normals "%f %f %f %f %f %f", with normals and colours
 * also "%d %d %d". Colours without normals are ignored. QORV_ERROR_FILE if the path is null or the
 * file cannot be opened, flushed or closed; a file left after a failure may be partly written. */
QORV_API QorvResult QorvWritePointsToASC(QorvInstance* inst,
                                         const char* path,
                                         const float* points,
                                         const float* normals,
                                         const unsigned char* colours,
                                         int32_t n);

/* pointsOut = R * pointsIn for n points, rotation = 9 doubles row after row (converted to float).
 * pointsOut must be pointsIn or must not overlap it. An identity matrix applied in place returns
 * without touching the array. Vector passes use SSE only, which every x86-64 processor has, and
 * give the same bits as the scalar formulas (no fused multiply-add). */
QORV_API QorvResult QorvRotatePoints(
    QorvInstance* inst, const double* rotation, const float* pointsIn, float* pointsOut, int32_t n);

/* pointsOut = R * pointsIn + t; transform = 9 rotation values row after row, then tx, ty, tz. */
QORV_API QorvResult QorvTransformPoints(QorvInstance* inst,
                                        const double* transform,
                                        const float* pointsIn,
                                        float* pointsOut,
                                        int32_t n);

/* Least-squares rigid motion (no scale) carrying pointsB onto pointsA, pair i being (A_i, B_i),
 * by the unit-quaternion method. out receives the 3 x 4 matrix [R | t]. The multi-thread setting
 * has no effect. Degenerate sets (n = 1, all points equal, collinear) still give a proper rotation.
 * A NaN or infinite coordinate, or sums that overflow, make all 12 values NaN. */
QORV_API QorvResult QorvAbsoluteOrientation(
    QorvInstance* inst, const float* pointsA, const float* pointsB, int32_t n, double* out);

/* ---- Normals and filters --------------------------------------------------------------------- */

/* One unit normal per point from the neighbours strictly inside radius; normals always have z >= 0.
 * Fewer than two neighbours, NaN points and degenerate neighbourhoods give (0, 0, 0); so may a
 * neighbourhood with a repeated eigenvalue (regular grids), while a vertical surface gives (0, 0,
 * 0) or a unit vector lying in it. Radius 0 or NaN gives all zeros; a negative radius acts as its
 * absolute value. orientNeighbors is accepted and ignored. */
QORV_API QorvResult QorvComputeNormals(QorvInstance* inst,
                                       const float* points,
                                       float* normals,
                                       int32_t count,
                                       int32_t orientNeighbors,
                                       float radius);

/* Re-estimates normals (input and output) and turns each new one to agree with the caller's.
 * radius must be greater than 0. */
QORV_API QorvResult QorvReComputeNormals(
    QorvInstance* inst, const float* points, float* normals, int32_t n, float radius);

/* Keeps, per occupied voxel of edge leafSize, the point nearest to the voxel's centre; the voxel
 * with the largest key is never kept, so a cloud inside one voxel keeps nothing. Runs on the
 * calling thread. Points with a NaN or infinite coordinate are ignored. The callback receives an
 * empty list when leafSize is not a positive finite number, when no point is finite, or when the
 * grid cannot be represented ((max - min) / leafSize must stay below 2^31 along x and y, and the
 * cell count must fit in 64 bits). Among equally near points the choice is fixed run to run. */
QORV_API QorvResult QorvVoxelFilter(QorvInstance* inst,
                                    const float* points,
                                    int32_t count,
                                    float leafSize,
                                    QorvIndexCallback callback,
                                    void* user);

/* Statistical outlier removal over the meanK nearest neighbours with threshold
 * mean + stdMul * deviation; hands over the prefix 0 .. m-1 of positions, m being the number of
 * scores below the threshold. Any meanK >= 1 is accepted; memory grows with count, not with meanK.
 * A single point, or a NaN threshold, keeps nothing. */
QORV_API QorvResult QorvSORFilter(QorvInstance* inst,
                                  const float* points,
                                  int32_t count,
                                  int32_t meanK,
                                  float stdMul,
                                  QorvIndexCallback callback,
                                  void* user);

/* Boundary points: neighbours within radius leave an angular gap above one radian in the tangent
 * plane. radius must be greater than 0. Tangent directions are eigenvectors solved with z fixed, so
 * a horizontal plane yields no edges; with few neighbours inside radius nearly every point is an
 * edge. Neighbours within radius / 10 shape the plane but give no angle. */
QORV_API QorvResult QorvEdgeFilter(QorvInstance* inst,
                                   const float* points,
                                   int32_t count,
                                   float radius,
                                   QorvIndexCallback callback,
                                   void* user);

/* Gaussian-weighted average of the points strictly inside radius around each point. smoothed must
 * not overlap points (QORV_ERROR_INVALID_ARGUMENT). Points finding no neighbour (NaN points, radius
 * 0 or NaN) come out as NaN. A negative radius acts as its absolute value. */
QORV_API QorvResult QorvGaussianFilter(
    QorvInstance* inst, const float* points, float* smoothed, int32_t count, float radius);

/* ---- Key points and descriptors -------------------------------------------------------------- */

/* Key points: points with at least 9 neighbours (itself included) strictly within keyPointRadius
 * whose distance-weighted scatter about the point has eigenvalues l1 >= l2 >= l3 with
 * l2/l1 < ratio21 and l3/l2 < ratio32; score l3. maxKeyPoints >= 1: ranked by descending score
 * and capped; otherwise ascending point order. nonMaxRadius > 0: a candidate is dropped when
 * another strictly within nonMaxRadius has a strictly greater score (equal scores both stay).
 * Points with a NaN coordinate are never key points. On smooth scanned surfaces l2/l1 is near 1:
 * ratios of 0.01 find almost nothing, 0.5 to 0.8 give hundreds to thousands on 20k-100k points.
 * Descriptors: 33 floats per key point, its neighbours' histograms within featureRadius weighted
 * sqrt(s/(s+d^2)), s = featureRadius^2/9, plus its own weighted by their sum; each point's
 * histogram uses the pairs within histogramRadius. A NaN normal makes the descriptors that use
 * it NaN. Radii and ratios are not checked. On success the callback (if any) is called once, also
 * with count 0 (its arrays may then be null). */
QORV_API QorvResult QorvDetectAndCompute(QorvInstance* inst,
                                         const float* points,
                                         const float* normals,
                                         int32_t pointCount,
                                         float keyPointRadius,
                                         float nonMaxRadius,
                                         float featureRadius,
                                         float histogramRadius,
                                         float ratio21,
                                         float ratio32,
                                         int32_t maxKeyPoints,
                                         QorvKeyPointCallback callback,
                                         void* userData);

/* Depth image (height x width floats, packed rows, any unit) to a vertex map (x, y, z a pixel in
 * the camera frame, height x width x 3 floats), an optional normal map (same size: unit normals
 * facing the camera, averaged over the triangles of neighbouring pixels whose three depths are
 * positive and which face the camera; (0, 0, 0) where none does) and an optional mask
 * (height x width bytes: 255 where the depth is not 0 and, with a normal map, the normal is not
 * zero; else 0). cameraMatrix: 9 doubles row after row; fx = [0], cx = [2], fy = [4], cy = [5] are
 * read, as floats. A depth of 0 gives (0, 0, 0); negative and NaN depths are back-projected as they
 * are (and count as valid in a mask made without normals) but take part in no triangle. Any camera
 * matrix and depth values are accepted: the mask holds only 0 and 255 and every normal is unit
 * length or zero. Runs on the calling thread; the instance is only checked for null. */
QORV_API QorvResult QorvDepthToVmapNmap(QorvInstance* inst,
                                        const double* cameraMatrix,
                                        const float* depth,
                                        float* vertexMap,
                                        float* normalMap,
                                        unsigned char* mask,
                                        int32_t width,
                                        int32_t height);

/* Key pixels and descriptors on vertex and normal maps (height x width x 3 floats each, packed
 * rows). mask (height x width bytes, non-zero = valid) may be null: it is then derived from the
 * maps (z not 0 and normal not (0, 0, 0)).
 * - Score: a valid pixel at least scoreWindow/2 from every edge gets lambda3 of the scatter of the
 *   unit directions to the valid pixels of its window, if at least scoreWindow of them lie farther
 *   than 1.19e-7, lambda2/lambda1 < ratio21 and lambda3/lambda2 < ratio32. A NaN vertex marked
 *   valid spoils every score whose window holds it.
 * - Suppression: a scored pixel at least suppressionWindow/2 from the edges survives unless its
 *   window holds a strictly greater score (equal scores both survive; suppressionWindow <= 1:
 * none).
 * - maxKeyPoints >= 1 keeps the best scores, ties going to the lower pixel index
 *   (row * width + column): the result is the same on every run and with or without threads.
 * - Descriptor of a key pixel p at least descriptorHalfWindow from every edge: the sum over the
 *   valid pixels q of its (2 descriptorHalfWindow + 1)^2 window of q's hard-binned pair-feature
 *   counts (against q's histogramWindow window), weighted by 1 / sqrt(vertex(q) . vertex(p)),
 *   about 1 / depth, so nearly uniform with a little more weight for the nearer side of a depth
 *   edge; products below 1.4e-14, negative or NaN are left out. Each 11-bin block is then scaled
 *   to sum 100, or zeroed. Key pixels nearer the edge get 33 zeros: descriptor k always belongs to
 *   key point k.
 * Window sizes are not checked: a score window below 2, or one too large to fit around any pixel,
 * finds nothing; a suppression window below 2 suppresses nothing; a negative descriptor half-window
 * or a histogram window below 2 leaves every descriptor zero; histogram windows larger than the
 * image act as the whole image; maxKeyPoints below 1 keeps all key pixels. The callback (may
 * be null) is called once, also with count 0; key points come in pixel order with the vertex as
 * position and the normal-map value as normal. Needs about 22 bytes a pixel of working memory;
 * QORV_ERROR_ALLOCATION (callback not called) when it cannot be had. */
QORV_API QorvResult QorvDetectAndComputeVmapNmap(QorvInstance* inst,
                                                 const float* vertexMap,
                                                 const float* normalMap,
                                                 const unsigned char* mask,
                                                 int32_t width,
                                                 int32_t height,
                                                 int32_t scoreWindow,
                                                 int32_t suppressionWindow,
                                                 int32_t descriptorHalfWindow,
                                                 int32_t histogramWindow,
                                                 float ratio21,
                                                 float ratio32,
                                                 int32_t maxKeyPoints,
                                                 QorvKeyPointCallback callback,
                                                 void* userData);

/* ---- Matching and registration --------------------------------------------------------------- */

/* Nearest target descriptor for each query. k = 1: exhaustive, Euclidean distances, ties to the
 * lowest target index, cross check as set (-1 marks a rejected match; its distance is still
 * written; matchDistances is then required). k > 1: k nearest by tree search, squared distances,
 * no cross check, matchDistances may be null. Results of query q are at q * k .. q * k + k - 1.
 * k = 1: a NaN distance never wins, except that a NaN distance to target 0 keeps target 0.
 * k > 1: slot q * k + k - 1 of matchDistances is FLT_MAX when fewer than k targets are found;
 * other unfilled slots keep their contents. */
QORV_API QorvResult QorvMatchDescriptor(QorvInstance* inst,
                                        const float* targetDescriptors,
                                        int32_t targetCount,
                                        const float* queryDescriptors,
                                        int32_t* matchIndices,
                                        float* matchDistances,
                                        int32_t k,
                                        int32_t queryCount);

/* RANSAC over descriptor correspondences (second cloud's key points matched into the first's). The
 * best model goes to transform; the inlier pairs to the callback. Each worker draws from its own
 * generator, equal to the GNU C library's srand/rand, seeded with 8 * workerIndex + time(NULL), so
 * results vary from run to run. With fewer than 3 correspondences, or iterations <= 0, nothing is
 * sampled and the transform is all zeros. The normal test applies only when both normal arrays are
 * given. The count passed to the callback is the best inlier count found while sampling; pairs is
 * null when it is 0. If, in a rare multi-threaded race, fewer pairs survive than that count (logged
 * as "Match condition error."), the missing entries are (0xFFFFFFFF, 0xFFFFFFFF). */
QORV_API QorvResult QorvRansacMatchKeyPoints(QorvInstance* inst,
                                             const float* points1,
                                             const float* normals1,
                                             const float* descriptors1,
                                             int32_t count1,
                                             const float* points2,
                                             const float* normals2,
                                             const float* descriptors2,
                                             int32_t count2,
                                             double* transform,
                                             int32_t iterations,
                                             float edgeRatio,
                                             float inlierDistance,
                                             QorvMatchCallback callback,
                                             void* userData);

/* Robust (annealed Geman-McClure) Gauss-Newton refinement of transform, which is read as the
 * starting pose. Correspondences left at maxDistance or farther are dropped. kernelScale is in
 * squared-distance units and is halved after every 8th step; the refinement stops once
 * maxDistance^2 exceeds it, so no step is taken when iterations <= 0 or maxDistance^2 >
 * kernelScale. A step whose 6 x 6 system (solved by LDLT in double) is singular or not finite
 * (fewer than three non-collinear correspondences, a NaN coordinate) leaves the pose unchanged.
 * Correspondences whose residual is NaN are kept. */
QORV_API QorvResult QorvIterativeMatchKeyPoints(QorvInstance* inst,
                                                const float* points1,
                                                const float* descriptors1,
                                                int32_t count1,
                                                const float* points2,
                                                const float* descriptors2,
                                                int32_t count2,
                                                double* transform,
                                                int32_t iterations,
                                                float kernelScale,
                                                float maxDistance,
                                                QorvMatchCallback callback,
                                                void* userData);

/* Registers two raw clouds in one call. Each cloud, the second first, goes through: statistical
 * outlier removal (50 neighbours, 3.4 deviations), Gaussian smoothing within s (the resolution),
 * voxel thinning with edge s, and normals within 2s (all facing +z). Key points are then detected
 * within 2s under lambda2/lambda1 < 0.01 and lambda3/lambda2 < 0.01, suppressed within s/3, and
 * described with featureRadius s and histogramRadius 5s. kernelScale > 0 runs the iterative matcher
 * from the caller's transform (distance bound s); otherwise (0 included) RANSAC runs with edge
 * ratio 0.995 and inlier distance s, seeded from the clock. The callback receives the surviving
 * pairs; their indices refer to the key points the pipeline detected. The iterative path gives
 * identical results single- and multi-threaded. The detector bounds are fixed at 0.01, which only
 * nearly linear neighbourhoods meet. On smooth scanned surfaces no point does (on the sample dragon
 * and bunny not one point has lambda2/lambda1 below 0.1 at 1-3 spacings). There the pipeline finds
 * no key points: RANSAC writes the all-zero matrix, the iterative path returns the caller's matrix
 * unchanged (rounded to float), and the callback is called once with no pair. To register scans,
 * compose the chain from the exports with looser detector bounds (the qorv tool's `register`
 * command does). normals1 and normals2 are never read: normals are always estimated after thinning.
 * Points with a NaN coordinate are dropped before the chain, so NaN-free input is processed exactly
 * as described. A resolution that is not a positive finite number leaves no points. With fewer than
 * three correspondences RANSAC writes the all-zero matrix and the iterative matcher leaves the pose
 * unchanged. */
QORV_API QorvResult QorvMatchPairPointCloud(QorvInstance* inst,
                                            const float* points1,
                                            const float* normals1,
                                            int32_t count1,
                                            const float* points2,
                                            const float* normals2,
                                            int32_t count2,
                                            double* transform,
                                            float kernelScale,
                                            float resolution,
                                            int32_t iterations,
                                            QorvMatchCallback callback,
                                            void* userData);

/* Trimmed mean (smallest and largest eighth left out) of each point's distance to its k-th nearest
 * neighbour, the point itself counting as the first; k = 2 gives the typical spacing. Points with a
 * NaN coordinate, and every point when k exceeds the number of NaN-free points, count as the float
 * maximum (distance 1.8446743e19) and sort among the largest values. */
QORV_API QorvResult QorvCheckDistance(
    QorvInstance* inst, const float* points, int32_t count, int32_t k, float* meanDistance);

#ifdef __cplusplus
}
#endif

#endif /* QORV_QORV_H_ */
