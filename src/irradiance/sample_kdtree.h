// The sample kd-tree: answers "which samples' validity spheres contain p" for samples that stay
// where the block storage keeps them. One full rebuild indexes every stored sample; samples added
// afterwards go in one at a time through a small insert buffer that is folded into a logarithmic
// set of static trees, so an insertion never rebuilds the whole index.
//
// The tree keeps, per entry, a pointer to the sample and a bounding sphere (the position and the
// squared validity radius read when the entry was last built). A query tests the bounding sphere
// first and then the sample's current validRadius2, so radii may be lowered while indexed (the
// incremental merge does that to neighbours) but must not grow, and positions must not change,
// until the next rebuild. Samples whose position is not finite or whose radius is not positive can
// never contain a point and are left out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "io/vector.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_map.h"
#include "threads/block_sequence.h"

namespace LUtils {

class SampleKdTree {
 public:
  // Entries per leaf of a static tree, and inserted samples kept in the linear buffer before they
  // become a tree of their own.
  static constexpr uint32_t kLeafSize = 8;
  static constexpr size_t kBufferSize = 32;

  // Drops every entry.
  void clear();

  // Rebuilds the index over every sample of the storage.
  void build(BlockSequence<IrradSample>& samples);
  // Rebuilds the index over the given samples.
  void build(IrradSample* const* samples, size_t count);

  // Adds one sample to the index without a full rebuild.
  void insert(IrradSample& sample);

  // Entries indexed (samples left out as unreachable are not counted).
  size_t size() const;
  // Static trees currently held (the insert buffer not counted); for tests and statistics.
  size_t treeCount() const { return trees_.size(); }

  // Calls f(IrradSample&) for every indexed sample with |p - position|^2 < validRadius2.
  template <class F>
  void forEachContaining(const Vector& p, F&& f) const;
  void query(const Vector& p, StoreCB& store) const {
    forEachContaining(p, [&store](IrradSample& s) { store.store(s); });
  }

 private:
  struct Entry {
    float x, y, z, r2;  // bounding sphere when built
    IrradSample* sample;
  };
  struct Node {
    float lo[3], hi[3];  // box around every bounding sphere below
    uint32_t first;      // leaf: first entry; inner: index of the right child (left is next)
    uint32_t count;      // leaf: number of entries; 0 for an inner node
  };
  struct Tree {
    std::vector<Node> nodes;
    std::vector<Entry> entries;
  };

  static bool makeEntry(IrradSample& s, Entry& out);
  static void buildTree(Tree& tree);
  static uint32_t buildNode(Tree& tree, uint32_t begin, uint32_t end, int depth);
  void addTree(std::vector<Entry>&& entries);

  template <class F>
  static void scan(const Entry* e, uint32_t n, const Vector& p, F& f) {
    for (uint32_t i = 0; i < n; ++i) {
      const float dx = p.x - e[i].x, dy = p.y - e[i].y, dz = p.z - e[i].z;
      const float d2 = dx * dx + dy * dy + dz * dz;
      if (d2 < e[i].r2 && d2 < e[i].sample->validRadius2) f(*e[i].sample);
    }
  }
  static bool inside(const Vector& p, const Node& n) {
    return p.x >= n.lo[0] && p.x <= n.hi[0] && p.y >= n.lo[1] && p.y <= n.hi[1] &&
           p.z >= n.lo[2] && p.z <= n.hi[2];
  }

  // Sorted by size, largest first; each is larger than all that follow together, roughly.
  std::vector<Tree> trees_;
  std::vector<Entry> buffer_;
};

template <class F>
void SampleKdTree::forEachContaining(const Vector& p, F&& f) const {
  for (const Tree& tree : trees_) {
    if (tree.nodes.empty()) continue;
    uint32_t stack[64];
    int top = 0;
    stack[top++] = 0;
    const Node* nodes = tree.nodes.data();
    const Entry* entries = tree.entries.data();
    while (top > 0) {
      const uint32_t i = stack[--top];
      const Node& n = nodes[i];
      if (!inside(p, n)) continue;
      if (n.count) {
        scan(entries + n.first, n.count, p, f);
      } else {
        stack[top++] = n.first;
        stack[top++] = i + 1;
      }
    }
  }
  scan(buffer_.data(), static_cast<uint32_t>(buffer_.size()), p, f);
}

}  // namespace LUtils
