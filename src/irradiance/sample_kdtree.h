// The sample kd-tree: answers "which samples' validity spheres contain p" for samples that stay
// where the block storage keeps them. One full rebuild indexes every stored sample; samples added
// afterwards go in one at a time through a small insert buffer that is folded into a logarithmic
// set of static trees, so an insertion never rebuilds the whole index.
//
// The tree keeps, per entry, a pointer to the sample and a bounding sphere (the position and the
// validity radius read when the entry was last built). A query tests the bounding sphere
// first and then the sample's current validRadius2, so radii may be lowered while indexed (the
// incremental merge does that to neighbours) but must not grow, and positions must not change,
// until the next rebuild. Samples whose position is not finite or whose radius is not positive can
// never contain a point and are left out.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "io/vector.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_map.h"
#include "threads/block_sequence.h"

namespace LUtils {

class SampleKdTree {
 public:
  // Entries per leaf of a static tree, and inserted samples kept in the linear buffer before they
  // become a tree of their own.
  static constexpr uint32_t kLeafSize = 16;
  static constexpr size_t kBufferSize = 32;
  // Size ratio between successive trees of the insertion set (see insert()).
  static constexpr size_t kMergeRatio = 8;
  // Subtrees of at least this many entries are built on two threads while the machine has cores
  // to spare (parallelDepth() levels from the root).
  static constexpr uint32_t kParallelMinimum = 1u << 16;

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
    // Bounding sphere when built: the radius is the validity radius then, widened a little so
    // that rounding never drops a point that the sample's own test accepts.
    float x, y, z, r;
    IrradSample* sample;
  };
  // A box around bounding spheres and what it holds: `count` entries from `first`, or, when
  // `count` is 0, the inner node `first`.
  struct Child {
    float lo[3], hi[3];
    uint32_t first, count;
  };
  // The build splits in two; the query walks nodes of kWidth children made by collapsing those
  // binary levels, so a query's path has about a third of the dependent loads. A node holds its
  // children's boxes axis by axis (lo[axis][child]), so one query tests them all at once without
  // touching the children; unused slots hold empty boxes.
  static constexpr int kWidth = 8;
  static_assert(kWidth % 4 == 0);
  struct BinaryNode {
    Child child[2];
  };
  struct alignas(64) Node {
    float lo[3][kWidth], hi[3][kWidth];
    uint32_t first[kWidth], count[kWidth];
  };
  struct Tree {
    Child root{};
    std::vector<Node> nodes;
    // The entries in leaf order, one array per field, so that a leaf is scanned four entries at
    // a time. The float arrays carry kPad entries more that no sphere can contain.
    std::vector<float> x, y, z, r;
    std::vector<IrradSample*> samples;
    size_t size() const { return samples.size(); }
  };
  static constexpr size_t kPad = 3;

  static bool makeEntry(IrradSample& s, Entry& out);
  static void buildTree(Tree& tree, std::vector<Entry>& entries, bool sah);
  static uint32_t sahSplit(std::vector<Entry>& entries, uint32_t begin, uint32_t end,
                           const float* plo, const float* phi);
  static Child buildChild(std::vector<Entry>& entries, std::vector<BinaryNode>& nodes,
                          uint32_t begin, uint32_t end, int depth, bool sah);
  static int parallelDepth();
  static Child appendNodes(std::vector<BinaryNode>& nodes, const std::vector<BinaryNode>& part,
                           Child c);
  static Child collapse(const std::vector<BinaryNode>& binary, const Child& c,
                        std::vector<Node>& nodes);
  void addTree(std::vector<Entry>&& entries, bool sah);

  template <class F>
  static void scan(const Entry* e, uint32_t n, const Vector& p, F& f) {
    for (uint32_t i = 0; i < n; ++i) {
      const float dx = p.x - e[i].x, dy = p.y - e[i].y, dz = p.z - e[i].z;
      const float d2 = dx * dx + dy * dy + dz * dz;
      if (d2 < e[i].r * e[i].r && d2 < e[i].sample->validRadius2) f(*e[i].sample);
    }
  }
  template <class F>
  static void scanLeaf(const Tree& t, uint32_t first, uint32_t n, const Vector& p, F& f) {
#if defined(__SSE2__)
    const __m128 px = _mm_set1_ps(p.x), py = _mm_set1_ps(p.y), pz = _mm_set1_ps(p.z);
    for (uint32_t i = 0; i < n; i += 4) {
      const uint32_t at = first + i;
      const __m128 dx = _mm_sub_ps(px, _mm_loadu_ps(t.x.data() + at));
      const __m128 dy = _mm_sub_ps(py, _mm_loadu_ps(t.y.data() + at));
      const __m128 dz = _mm_sub_ps(pz, _mm_loadu_ps(t.z.data() + at));
      const __m128 d2 = _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)),
                                   _mm_mul_ps(dz, dz));
      const __m128 r = _mm_loadu_ps(t.r.data() + at);
      uint32_t in = static_cast<uint32_t>(_mm_movemask_ps(_mm_cmplt_ps(d2, _mm_mul_ps(r, r))));
      if (n - i < 4) in &= (1u << (n - i)) - 1;
      if (!in) continue;
      alignas(16) float d2s[4];
      _mm_store_ps(d2s, d2);
      while (in) {
        const int k = std::countr_zero(in);
        in &= in - 1;
        IrradSample& s = *t.samples[at + k];
        if (d2s[k] < s.validRadius2) f(s);
      }
    }
#else
    for (uint32_t i = first; i < first + n; ++i) {
      const float dx = p.x - t.x[i], dy = p.y - t.y[i], dz = p.z - t.z[i];
      const float d2 = dx * dx + dy * dy + dz * dz;
      if (d2 < t.r[i] * t.r[i] && d2 < t.samples[i]->validRadius2) f(*t.samples[i]);
    }
#endif
  }
  // Bit k set when child k's box contains p.
  static uint32_t childrenContaining(const Node& n, const Vector& p) {
#if defined(__SSE2__)
    const __m128 x = _mm_set1_ps(p.x), y = _mm_set1_ps(p.y), z = _mm_set1_ps(p.z);
    uint32_t hit = 0;
    for (int g = 0; g < kWidth; g += 4) {
      __m128 in = _mm_and_ps(_mm_cmple_ps(_mm_load_ps(&n.lo[0][g]), x),
                             _mm_cmple_ps(x, _mm_load_ps(&n.hi[0][g])));
      in = _mm_and_ps(in, _mm_and_ps(_mm_cmple_ps(_mm_load_ps(&n.lo[1][g]), y),
                                     _mm_cmple_ps(y, _mm_load_ps(&n.hi[1][g]))));
      in = _mm_and_ps(in, _mm_and_ps(_mm_cmple_ps(_mm_load_ps(&n.lo[2][g]), z),
                                     _mm_cmple_ps(z, _mm_load_ps(&n.hi[2][g]))));
      hit |= static_cast<uint32_t>(_mm_movemask_ps(in)) << g;
    }
    return hit;
#else
    uint32_t hit = 0;
    for (int k = 0; k < kWidth; ++k) {
      const bool in = (p.x >= n.lo[0][k]) & (p.x <= n.hi[0][k]) & (p.y >= n.lo[1][k]) &
                      (p.y <= n.hi[1][k]) & (p.z >= n.lo[2][k]) & (p.z <= n.hi[2][k]);
      hit |= static_cast<uint32_t>(in) << k;
    }
    return hit;
#endif
  }
  static bool inside(const Vector& p, const float* lo, const float* hi) {
    return p.x >= lo[0] && p.x <= hi[0] && p.y >= lo[1] && p.y <= hi[1] && p.z >= lo[2] &&
           p.z <= hi[2];
  }

  // Sorted by size, largest first.
  std::vector<Tree> trees_;
  std::vector<Entry> buffer_;
};

template <class F>
void SampleKdTree::forEachContaining(const Vector& p, F&& f) const {
  for (const Tree& tree : trees_) {
    if (!inside(p, tree.root.lo, tree.root.hi)) continue;
    if (tree.root.count) {
      scanLeaf(tree, tree.root.first, tree.root.count, p, f);
      continue;
    }
    const Node* nodes = tree.nodes.data();
    uint32_t stack[64 * kWidth];
    int top = 0;
    stack[top++] = tree.root.first;
    while (top > 0) {
      const Node& n = nodes[stack[--top]];
      uint32_t hit = childrenContaining(n, p);
      // The leaves' fields lie in five arrays: ask for all of them before scanning any.
      for (uint32_t leaves = hit; leaves;) {
        const int k = std::countr_zero(leaves);
        leaves &= leaves - 1;
        if (!n.count[k]) continue;
        const uint32_t at = n.first[k];
        __builtin_prefetch(tree.x.data() + at);
        __builtin_prefetch(tree.y.data() + at);
        __builtin_prefetch(tree.z.data() + at);
        __builtin_prefetch(tree.r.data() + at);
        __builtin_prefetch(tree.samples.data() + at);
      }
      while (hit) {
        const int k = std::countr_zero(hit);
        hit &= hit - 1;
        if (n.count[k]) {
          scanLeaf(tree, n.first[k], n.count[k], p, f);
        } else {
          const char* child = reinterpret_cast<const char*>(nodes + n.first[k]);
          for (size_t b = 0; b < sizeof(Node); b += 64) __builtin_prefetch(child + b);
          stack[top++] = n.first[k];
        }
      }
    }
  }
  scan(buffer_.data(), static_cast<uint32_t>(buffer_.size()), p, f);
}

}  // namespace LUtils
