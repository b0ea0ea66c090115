// The node of the light cache's spatial tree: a bounding-volume hierarchy over the sample spheres
// (centre = position, radius = sqrt(radiusSquared)). Nodes live in the light cache's node block
// sequence, laid out depth first; a node is exactly one 64-byte cache line. Samples with a
// non-finite position or radius, or a radius that is not positive, are in no node: no query
// returns them (the rule of io/placement.h, shared with the irradiance indexes).
#pragma once

#include <cstdint>

struct LightMapSample;

struct LightMapNode {
  static constexpr uint32_t kLeafSize = 4;  // samples per leaf at most

  // Box enclosing every sphere below the node, slightly widened so that float rounding never
  // makes it miss a point that the sphere test accepts.
  float lo[3];
  float hi[3];
  // 0 for an inner node; otherwise the number of samples in the leaf (1 to kLeafSize).
  uint32_t count;
  uint32_t reserved;
  union {
    LightMapNode* child[2];                 // inner node
    LightMapSample* samples[kLeafSize];     // leaf
  };

  bool isLeaf() const { return count != 0; }
  bool boxContains(float x, float y, float z) const {
    return x >= lo[0] && x <= hi[0] && y >= lo[1] && y <= hi[1] && z >= lo[2] && z <= hi[2];
  }
};

static_assert(sizeof(LightMapNode) == 64, "a tree node is one cache line");
