#include "octree_cache.h"

#include <algorithm>
#include <cmath>

#include "io/placement.h"
#include "irradiance/shading.h"

namespace reference {

using LUtils::IrradSample;
using LUtils::LookupCandidate;

namespace {

// Below this depth cubes are no longer split: a sphere narrower than such a cube still overlaps
// at most two of them per axis.
constexpr int kMaxDepth = 100;

// The box around a sample's validity sphere, widened so that it holds every point the sample's
// own float test accepts.
void sphereBox(const IrradSample& s, double lo[3], double hi[3]) {
  const double r = LUtils::boundingRadius(s.validRadius2);
  const double c[3] = {s.position.x, s.position.y, s.position.z};
  for (int a = 0; a < 3; ++a) {
    const double margin = r + (std::abs(c[a]) + r) * 0x1p-40;
    lo[a] = c[a] - margin;
    hi[a] = c[a] + margin;
  }
}

}  // namespace

OctreeCache::OctreeCache(const IrradianceMapHeader& header)
    : settings_(LUtils::LookupSettings::fromHeader(header)),
      keepsRenderIds_(header.containsRenderIds != 0) {}

int32_t OctreeCache::newNode(const double centre[3], double half) {
  Node n;
  for (int a = 0; a < 3; ++a) n.centre[a] = centre[a];
  n.half = half;
  std::fill(n.child, n.child + 8, -1);
  nodes_.push_back(std::move(n));
  return static_cast<int32_t>(nodes_.size() - 1);
}

void OctreeCache::growToHold(const double lo[3], const double hi[3]) {
  if (root_ < 0) {
    double centre[3], half = 0.0;
    for (int a = 0; a < 3; ++a) {
      centre[a] = 0.5 * (lo[a] + hi[a]);
      half = std::max(half, 0.5 * (hi[a] - lo[a]));
    }
    root_ = newNode(centre, half > 0.0 ? half : 1.0);
    return;
  }
  for (;;) {
    const Node& r = nodes_[root_];
    bool holds = true;
    for (int a = 0; a < 3; ++a) {
      holds = holds && lo[a] >= r.centre[a] - r.half && hi[a] <= r.centre[a] + r.half;
    }
    if (holds) return;
    // A root twice as wide, extended towards the box; the old root is one of its octants.
    double centre[3];
    int octant = 0;
    for (int a = 0; a < 3; ++a) {
      const bool below = lo[a] < r.centre[a] - r.half;
      centre[a] = below ? r.centre[a] - r.half : r.centre[a] + r.half;
      if (below) octant |= 1 << a;  // the old root lies on the upper side of this axis
    }
    const double half = 2.0 * r.half;
    const int32_t old = root_;
    root_ = newNode(centre, half);
    nodes_[root_].child[octant] = old;
  }
}

void OctreeCache::insertInto(int32_t node, uint32_t sample, const double lo[3],
                             const double hi[3], double width, int depth) {
  const double half = nodes_[node].half;
  // Stored here when the children would be narrower than the sphere.
  if (half < width || depth >= kMaxDepth) {
    nodes_[node].samples.push_back(sample);
    return;
  }
  for (int octant = 0; octant < 8; ++octant) {
    double centre[3];
    bool overlaps = true;
    for (int a = 0; a < 3; ++a) {
      const double c = nodes_[node].centre[a];
      const bool upper = (octant >> a) & 1;
      const double from = upper ? c : c - half, to = upper ? c + half : c;
      overlaps = overlaps && lo[a] <= to && hi[a] >= from;
      centre[a] = upper ? c + 0.5 * half : c - 0.5 * half;
    }
    if (!overlaps) continue;
    int32_t child = nodes_[node].child[octant];
    if (child < 0) {
      child = newNode(centre, 0.5 * half);
      nodes_[node].child[octant] = child;
    }
    insertInto(child, sample, lo, hi, width, depth + 1);
  }
}

void OctreeCache::index(uint32_t i) {
  const IrradSample& s = samples_[i];
  if (!LUtils::placeable(s.position, s.validRadius2)) return;
  double lo[3], hi[3];
  sphereBox(s, lo, hi);
  growToHold(lo, hi);
  double width = 0.0;
  for (int a = 0; a < 3; ++a) width = std::max(width, hi[a] - lo[a]);
  insertInto(root_, i, lo, hi, width, 0);
}

void OctreeCache::add(const IrradSample& sample) {
  samples_.push_back(sample);
  // Building over a map that keeps no render IDs clamps them into -1..0, as the map's own
  // preparation does.
  if (!keepsRenderIds_) samples_.back().renderId = std::clamp(samples_.back().renderId, -1, 0);
  index(static_cast<uint32_t>(samples_.size() - 1));
}

bool OctreeCache::offer(const IrradSample& sample) {
  LUtils::ThreadData thread;
  const LUtils::ShadeContext context = LUtils::makeInsertionContext(sample, thread);
  const LUtils::Vector p = context.position;

  // The samples whose validity region holds the point, and among them the candidates.
  candidates_.clear();
  if (root_ >= 0 && std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z)) {
    const double point[3] = {p.x, p.y, p.z};
    // Every indexed sphere lies inside the root: a point outside it is covered by none.
    const Node& r = nodes_[root_];
    bool inside = true;
    for (int a = 0; a < 3; ++a) inside = inside && std::abs(point[a] - r.centre[a]) <= r.half;
    for (int32_t node = inside ? root_ : -1; node >= 0;) {
      const Node& n = nodes_[node];
      for (const uint32_t i : n.samples) {
        IrradSample& s = samples_[i];
        if (!(LUtils::lengthSquared(p - s.position) < s.validRadius2)) continue;
        LookupCandidate c;
        if (LUtils::testCandidate(s, p, context.normal, settings_.normalStretch, c)) {
          candidates_.push_back(c);
        }
      }
      int octant = 0;
      for (int a = 0; a < 3; ++a) {
        if (point[a] >= n.centre[a]) octant |= 1 << a;
      }
      node = n.child[octant];
    }
  }
  const LUtils::SpacingDecision decision =
      LUtils::decideSpacing(settings_, LUtils::lookupFootprint(context), candidates_);
  if (decision.samePoint || decision.covered || !context.allowNewSamples) return false;

  // The new sample is the offered one, whole. Lower each neighbour's radius so that its region
  // reaches no farther past the new sample than the new sample's own.
  const float radius = std::sqrt(std::max(sample.validRadius2, 0.0f));
  for (const LookupCandidate& c : candidates_) {
    const float limit = LUtils::length(c.sample->position - sample.position) + radius;
    if (c.sample->validRadius2 > limit * limit) c.sample->validRadius2 = limit * limit;
  }
  // The candidates point into the storage: store only once they are done with.
  samples_.push_back(sample);
  index(static_cast<uint32_t>(samples_.size() - 1));
  return true;
}

}  // namespace reference
