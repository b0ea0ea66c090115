// A frame of the synthesised room as a sample list, for the incremental merge's tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "irradiance/irrad_sample.h"
#include "synth/generator.h"

namespace LUtils {

// `count` samples seen from the synthesiser's camera preset `view`.
inline std::vector<IrradSample> frame(int view, uint32_t count, uint64_t seed) {
  synth::Params p;
  p.count = count;
  p.seed = seed;
  p.view = synth::presetView(view);
  std::vector<IrradSample> out;
  EXPECT_EQ(synth::generate(p, out), static_cast<int64_t>(count));
  return out;
}

}  // namespace LUtils
