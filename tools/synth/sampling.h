// What the synthesiser's two generators share: the random numbers, the camera frame, the lighting
// of a surface point, and the chunked, seeded generation that makes the output independent of the
// number of threads. Internal to cv_synth.
#pragma once

#include <algorithm>
#include <cstdint>
#include <system_error>
#include <thread>
#include <vector>

#include "io/vector.h"
#include "synth/generator.h"
#include "synth/scene.h"

namespace synth::detail {

using LUtils::Color;

// PCG32: small, fast and the same on every platform.
class Rng {
 public:
  explicit Rng(uint64_t seed, uint64_t stream) : state_(0), inc_((stream << 1u) | 1u) {
    next();
    state_ += seed;
    next();
  }
  uint32_t next() {
    const uint64_t old = state_;
    state_ = old * 6364136223846793005ULL + inc_;
    const uint32_t xorshifted = static_cast<uint32_t>(((old >> 18u) ^ old) >> 27u);
    const uint32_t rot = static_cast<uint32_t>(old >> 59u);
    return (xorshifted >> rot) | (xorshifted << ((32 - rot) & 31));
  }
  // Uniform in [0, 1).
  float uniform() { return static_cast<float>(next() >> 8) * (1.0f / 16777216.0f); }

 private:
  uint64_t state_;
  uint64_t inc_;
};

// The camera's orthonormal frame and the image's half extents at unit distance.
struct Frame {
  Vector eye, right, up, forward;
  float tanX = 0, tanY = 0;

  Vector direction(float u, float v) const {
    return forward + right * ((2.0f * u - 1.0f) * tanX) + up * ((1.0f - 2.0f * v) * tanY);
  }
  // Area of the image at unit distance in front of the eye.
  float imageArea() const { return 4.0f * tanX * tanY; }
};

Frame makeFrame(const Params& p);

// The harmonic-mean distance of a few cosine-distributed rays over the hemisphere about n.
float harmonicDistance(const Scene& scene, const Vector& p, const Vector& n, Rng& rng);

// The light arriving at a surface point: a bounce term that fades where nearby geometry, measured
// by the harmonic distance, hems the point in, and direct light from the ceiling light and from
// the sky through the window (shadow rays).
struct Lighting {
  Color bounce, light, sky;
  Color direct() const { return light + sky; }
  Color total() const { return bounce + light + sky; }
};
Lighting lightingAt(const Scene& scene, const Vector& p, const Vector& n, float harmonic, Rng& rng);

// Runs `chunks` independently seeded chunks, `threads` at a time, each into its own buffer, and
// hands the buffers to `deliver` in chunk order. produce(chunk, buffer) fills a buffer;
// deliver(buffer) returns false to stop. Returns false when delivery stopped.
template <typename T, typename Produce, typename Deliver>
bool runChunks(uint64_t chunks, unsigned threads, size_t reserve, Produce produce,
               Deliver deliver) {
  if (threads == 0) threads = std::thread::hardware_concurrency();
  threads = static_cast<unsigned>(std::clamp<uint64_t>(threads, 1, std::min<uint64_t>(chunks, 64)));
  std::vector<std::vector<T>> buffers(threads);
  for (auto& b : buffers) b.reserve(reserve);
  for (uint64_t base = 0; base < chunks; base += threads) {
    const unsigned n = static_cast<unsigned>(std::min<uint64_t>(threads, chunks - base));
    std::vector<std::thread> workers;
    for (unsigned i = 1; i < n; ++i) {
      try {
        workers.emplace_back([&, i] { produce(base + i, buffers[i]); });
      } catch (const std::system_error&) {
        produce(base + i, buffers[i]);
      }
    }
    produce(base, buffers[0]);
    for (auto& w : workers) w.join();
    for (unsigned i = 0; i < n; ++i) {
      if (!deliver(buffers[i])) return false;
    }
  }
  return true;
}

}  // namespace synth::detail
