// The frames the incremental-merge benchmarks offer and merge into: synthesised rooms of one
// million samples (BENCH_SCALE scales them), and maps made of them.
#pragma once

#include <memory>
#include <vector>

#include "bench_maps.h"
#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"
#include "synth/generator.h"

namespace benchmaps {

inline uint32_t frameCount() { return sampleCount(1000000); }

// Frames 0 and 1: the same camera; frame 2: the second camera of the walk; frame 3: three times
// as many samples from the second camera.
inline const std::vector<LUtils::IrradSample>& frame(int which) {
  static std::vector<LUtils::IrradSample> frames[4];
  std::vector<LUtils::IrradSample>& f = frames[which];
  if (f.empty()) {
    synth::Params p;
    p.count = which == 3 ? 3 * frameCount() : frameCount();
    p.seed = 1 + which;
    p.view = synth::presetView(which >= 2 ? 1 : 0);
    synth::generate(p, f);
  }
  return f;
}

// A map of the samples, `copies` times side by side, 20 m apart, like rooms of one building.
inline std::unique_ptr<LUtils::DefIrradianceMap> mapOf(
    const std::vector<LUtils::IrradSample>& samples, int copies = 1) {
  auto map = std::make_unique<LUtils::DefIrradianceMap>();
  synth::Params p;
  map->setHeader(synth::makeHeader(p));
  for (int c = 0; c < copies; ++c) {
    const LUtils::Vector offset{20.0f * static_cast<float>(c), 0.0f, 0.0f};
    for (LUtils::IrradSample s : samples) {
      s.position += offset;
      map->appendSample(s);
    }
  }
  return map;
}

// The reference octree cache holding frame `base` (none when base < 0), with room for `offered`
// more samples.
inline std::unique_ptr<reference::OctreeCache> referenceHolding(int base, size_t offered) {
  synth::Params p;
  auto cache = std::make_unique<reference::OctreeCache>(synth::makeHeader(p));
  if (base >= 0) {
    cache->reserve(frame(base).size() + offered);
    for (const LUtils::IrradSample& s : frame(base)) cache->add(s);
  } else {
    cache->reserve(offered);
  }
  return cache;
}

}  // namespace benchmaps
