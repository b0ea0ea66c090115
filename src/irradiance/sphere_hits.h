// The sphere test shared by the sample indexes: bounding spheres kept field by field are tested
// against a query point four at a time, and the samples of those that contain it wait in a short
// list for their own test.
#pragma once

#include <bit>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "io/prefetch.h"
#include "io/vector.h"
#include "irradiance/irrad_sample.h"

namespace LUtils {

// Asks for the fields of a sample that a lookup reads: they lie in its first 44 bytes, which may
// span two cache lines. Always issued (prefetchLine), also from a loop that does nothing else.
inline void prefetchLookedUp(const IrradSample* s) {
  prefetchLine(s);
  prefetchLine(reinterpret_cast<const char*>(s) + 43);
}

// Spheres found to contain a query point by their bounds, waiting for their samples' own test
// (the current validRadius2). Each sample is asked for from memory as soon as it is found and
// tested later, in the order found, so that the waits for the samples overlap with the rest of
// the search instead of following one another.
template <class F>
class PendingHits {
 public:
  explicit PendingHits(F& f) : f_(f) {}
  PendingHits(const PendingHits&) = delete;
  PendingHits& operator=(const PendingHits&) = delete;

  void add(IrradSample* s, float d2) {
    prefetchLookedUp(s);
    if (n_ == kCapacity) flush();
    hits_[n_++] = {s, d2};
  }
  // Calls f for the pending samples that pass their own test; the caller calls it once the search
  // is done.
  void flush() {
    for (uint32_t i = 0; i < n_; ++i) {
      if (hits_[i].d2 < currentValidRadius2(*hits_[i].sample)) f_(*hits_[i].sample);
    }
    n_ = 0;
  }

 private:
  static constexpr uint32_t kCapacity = 64;
  struct Hit {
    IrradSample* sample;
    float d2;
  };
  F& f_;
  uint32_t n_ = 0;
  Hit hits_[kCapacity];
};

#if defined(__SSE2__)
// Adds to `hits` the samples of four spheres (centres x, y, z, radii r) whose bounds contain the
// point (px, py, pz), of the first `left`. `hits` is a PendingHits or any sink with the same
// add(sample, squared distance).
template <class Hits>
inline void gatherFour(__m128 px, __m128 py, __m128 pz, __m128 x, __m128 y, __m128 z, __m128 r,
                       IrradSample* const* samples, uint32_t left, Hits& hits) {
  const __m128 dx = _mm_sub_ps(px, x), dy = _mm_sub_ps(py, y), dz = _mm_sub_ps(pz, z);
  const __m128 d2 =
      _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
  uint32_t in = static_cast<uint32_t>(_mm_movemask_ps(_mm_cmplt_ps(d2, _mm_mul_ps(r, r))));
  if (left < 4) in &= (1u << left) - 1;
  if (!in) return;
  alignas(16) float d2s[4];
  _mm_store_ps(d2s, d2);
  while (in) {
    const int k = std::countr_zero(in);
    in &= in - 1;
    hits.add(samples[k], d2s[k]);
  }
}
#endif

// Four bounding spheres field by field: a cache line that one test reads whole.
struct alignas(64) SphereGroup {
  float x[4], y[4], z[4], r[4];
};

// Adds to `hits` the samples of the first n spheres of consecutive groups (sample k of the k-th
// sphere) whose bounds contain p.
template <class Hits>
void gatherGroups(const SphereGroup* g, IrradSample* const* samples, uint32_t n, const Vector& p,
                  Hits& hits) {
#if defined(__SSE2__)
  const __m128 px = _mm_set1_ps(p.x), py = _mm_set1_ps(p.y), pz = _mm_set1_ps(p.z);
  for (uint32_t i = 0; i < n; i += 4, ++g) {
    gatherFour(px, py, pz, _mm_load_ps(g->x), _mm_load_ps(g->y), _mm_load_ps(g->z),
               _mm_load_ps(g->r), samples + i, n - i, hits);
  }
#else
  for (uint32_t i = 0; i < n; ++i) {
    const SphereGroup& s = g[i / 4];
    const uint32_t k = i % 4;
    const float dx = p.x - s.x[k], dy = p.y - s.y[k], dz = p.z - s.z[k];
    const float d2 = dx * dx + dy * dy + dz * dz;
    if (d2 < s.r[k] * s.r[k]) hits.add(samples[i], d2);
  }
#endif
}

// Adds to `hits` the samples of the n spheres (centres x, y, z and radii r, one array per field)
// whose bounds contain p. The arrays are read in groups of four: they must be readable up to the
// next multiple of four past n.
template <class F>
void gatherSpheres(const float* x, const float* y, const float* z, const float* r,
                   IrradSample* const* samples, uint32_t n, const Vector& p,
                   PendingHits<F>& hits) {
#if defined(__SSE2__)
  const __m128 px = _mm_set1_ps(p.x), py = _mm_set1_ps(p.y), pz = _mm_set1_ps(p.z);
  for (uint32_t i = 0; i < n; i += 4) {
    gatherFour(px, py, pz, _mm_loadu_ps(x + i), _mm_loadu_ps(y + i), _mm_loadu_ps(z + i),
               _mm_loadu_ps(r + i), samples + i, n - i, hits);
  }
#else
  for (uint32_t i = 0; i < n; ++i) {
    const float dx = p.x - x[i], dy = p.y - y[i], dz = p.z - z[i];
    const float d2 = dx * dx + dy * dy + dz * dz;
    if (d2 < r[i] * r[i]) hits.add(samples[i], d2);
  }
#endif
}

}  // namespace LUtils
