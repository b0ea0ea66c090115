// The reference irradiance cache of the benchmarks: a plain octree of the kind a renderer's
// textbook builds. Each sample is stored in every node of one level that its validity sphere
// overlaps, the level whose cubes are the smallest that are still at least as wide as the
// sphere; a lookup walks from the root down to the leaf holding the point and tests the samples
// listed on its way. The root grows (the old root becoming one of its children) until it holds
// every sphere and every point asked about.
//
// Offering a sample applies the incremental merge's decision rule to it: the samples whose
// validity region contains the point, the candidate test with its normal stretch, the spacing
// test with its colour and intensity bounds, the same-point rule, and on insertion the lowering
// of the neighbours' radii. The rule is our lookup's, so the cache keeps exactly the samples the
// incremental merge keeps: the benchmarks compare speed against it and the tests use it as a
// brute-force check of the map's index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_lookup.h"
#include "irradiance/irradiance_map_header.h"

namespace reference {

class OctreeCache {
 public:
  explicit OctreeCache(const IrradianceMapHeader& header);

  // Reserves room for this many samples in all.
  void reserve(size_t samples) { samples_.reserve(samples); }
  // Stores a sample as it is and indexes it (building the cache over an existing map).
  void add(const LUtils::IrradSample& sample);
  // Offers a sample at its own point: stores it, indexes it and lowers its neighbours' radii
  // when the cache does not cover the point; returns whether it was kept.
  bool offer(const LUtils::IrradSample& sample);

  // Every stored sample, in the order stored.
  const std::vector<LUtils::IrradSample>& samples() const { return samples_; }
  size_t nodeCount() const { return nodes_.size(); }

 private:
  struct Node {
    double centre[3];
    double half;  // half the cube's side
    int32_t child[8];
    std::vector<uint32_t> samples;
  };

  void index(uint32_t sample);
  // Grows the root until it holds the box [lo, hi].
  void growToHold(const double lo[3], const double hi[3]);
  int32_t newNode(const double centre[3], double half);
  void insertInto(int32_t node, uint32_t sample, const double lo[3], const double hi[3],
                  double width, int depth);

  LUtils::LookupSettings settings_;
  bool keepsRenderIds_;
  std::vector<LUtils::IrradSample> samples_;
  std::vector<Node> nodes_;
  int32_t root_ = -1;
  std::vector<LUtils::LookupCandidate> candidates_;
};

}  // namespace reference
