// The one rule by which every spatial index of samples (the irradiance kd-tree, its insertion
// grid and the light cache's tree) decides whether it can place a sample.
//
// A sample is placed when its position is finite on all three axes and its squared radius is
// finite and positive. Any other sample (a NaN or infinite coordinate or radius, a radius that
// is zero or negative) comes from a damaged file or a renderer fault: it stays in the map and is
// saved unchanged, since nothing a user loaded is ever dropped, but no index lists it, so no
// query returns it and it covers no point. The scans that stand in for an index where there is
// none apply the same rule, so a map answers the same with or without its index.
//
// Finite positions are all placed, the extreme ones too (coordinates near the float limit, or
// samples a denormal apart): the indexes do their extent arithmetic (spans, bin positions,
// padded bounds) in double, where neither the span of two float coordinates overflows nor the
// reciprocal of a denormal span does.
#pragma once

#include <cmath>

#include "io/vector.h"

namespace LUtils {

inline bool placeable(const Vector& position, float radiusSquared) {
  return std::isfinite(position.x) && std::isfinite(position.y) && std::isfinite(position.z) &&
         radiusSquared > 0.0f && std::isfinite(radiusSquared);
}

// The radius of a box, around a placeable sample, that holds every point the samples' own float
// test (|p - position|^2 against the squared radius, the squares and sums rounded to float)
// accepts. Rounding is relative for most values, covered by the factors of 1 + 2^-20; but a
// square in the float's subnormal range is rounded by up to 2^-150 absolutely, so that a point
// well outside a tiny sphere may pass its test: the 2^-148 added to the squared radius covers
// the three squares and their sums.
inline float boundingRadius(float radiusSquared) {
  return static_cast<float>(std::sqrt((double{radiusSquared} + 0x1p-148) * (1.0 + 0x1p-20)) *
                            (1.0 + 0x1p-20));
}

}  // namespace LUtils
