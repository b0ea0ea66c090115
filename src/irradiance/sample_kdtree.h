// The sample kd-tree: answers "which samples' validity spheres contain p" for samples that stay
// where the block storage keeps them. One full rebuild indexes every stored sample in a static
// tree; samples added afterwards go one at a time into a hash grid (irradiance/insertion_grid.h),
// so an insertion never rebuilds anything. When the grid holds half as many samples as the tree
// (and at least foldMinimum), both are folded into one new tree. The grid takes several times the
// memory per sample that the tree does (about 180 bytes against 24); folding at half the tree's
// size keeps it near the memory of the samples themselves (84 bytes each), while a long merge
// builds each sample into a tree about three times.
//
// A batch of samples may also be inserted in two steps (beginInsert(), then listEntries() on
// several threads, shard by shard), which gives the same index as inserting them one at a time.
//
// The tree keeps, per entry, a pointer to the sample and a bounding sphere (the position and the
// validity radius read when the entry was last built). A query tests the bounding sphere
// first and then the sample's current validRadius2, so radii may be lowered while indexed (the
// incremental merge does that to neighbours) but must not grow, and positions must not change,
// until the next rebuild.
//
// Samples the index cannot place (io/placement.h: a position or radius that is NaN or infinite,
// a radius that is zero or negative) are left out of both the tree and the grid, in makeEntry(),
// the one door to either: they stay in the map and are saved, but no query returns them. Every
// finite position is placed, even where spans of positions overflow float or fall below its
// resolution: the build does its extent and bin arithmetic in double.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "io/placement.h"
#include "io/vector.h"
#include "irradiance/insertion_grid.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_map.h"
#include "irradiance/sphere_hits.h"
#include "threads/block_sequence.h"
#include "threads/prefault.h"

namespace LUtils {

class SampleKdTree {
 public:
  // Entries per leaf of the static tree.
  static constexpr uint32_t kLeafSize = 16;
  // The grid is folded into the tree only once it holds at least this many samples.
  static constexpr size_t kFoldMinimum = size_t{1} << 20;
  // Subtrees of at least this many entries are built on two threads while the machine has cores
  // to spare (parallelDepth() levels from the root) and the build may use them (setBuildThreads).
  static constexpr uint32_t kParallelMinimum = 1u << 16;

  explicit SampleKdTree(size_t foldMinimum = kFoldMinimum) : foldMinimum_(foldMinimum) {}

  // Drops every entry.
  void clear();

  // The threads that builds and folds may use: 1 keeps them on the calling thread, so that a
  // merge asked to run on one thread does; 0, the default, as many as the machine's cores.
  void setBuildThreads(int count) { buildThreads_ = std::max(count, 0); }

  // Rebuilds the index over every sample of the storage.
  void build(BlockSequence<IrradSample>& samples);

  // Adds one sample to the index without a full rebuild.
  void insert(IrradSample& sample);

  // Bounding sphere when indexed: the position and the validity radius then, widened a little
  // so that rounding never drops a point that the sample's own test accepts.
  using Entry = InsertionGrid::Sphere;
  // insert() in two steps, so that a batch can be listed in the grid on several threads:
  // beginInsert() takes the sample with its radius as it is now, counts it (in size(),
  // insertedCount() and wantsFold()) and, when the index can place it, fills `entry` for
  // listEntries() and returns true. The sample is found only once listed; a fold lists
  // nothing, so every begun entry must be listed first. The caller folds when wantsFold() says
  // so, right after the beginInsert() that made it so, as insert() does.
  bool beginInsert(IrradSample& sample, Entry& entry, InsertionGrid::Box* box = nullptr);
  // The entry of a sample whose radius is `radius2`: a sphere a little larger than its validity
  // sphere, so that it holds every point the sample's own test accepts.
  static Entry boundingSphere(IrradSample& s, float radius2) {
    const Vector& p = s.position;
    return {p.x, p.y, p.z, boundingRadius(radius2) * 1.0001f, &s};
  }
  // The entry of a sample as it is now, or false when the index cannot place it.
  static bool makeEntry(IrradSample& s, Entry& out);
  // Lists begun entries, in the order begun: those of a batch in the grid's shards whose bits
  // are set (see InsertionGrid::list; different shards may be listed on different threads at
  // once), or those of `unlisted` in every shard.
  void listEntries(const InsertionGrid::CellBatch& batch, uint32_t shards) {
    grid_.list(batch, shards);
  }
  void listEntries(InsertionGrid::Unlisted& unlisted) { grid_.list(unlisted); }
  bool wantsFold() const {
    return (grid_.size() >= foldMinimum_ && 2 * grid_.size() >= tree_.size()) ||
           grid_.nearlyFull();
  }
  // Rebuilds the tree over its own samples and the grid's, with their current radii (lowered
  // ones make tighter bounds), and empties the grid.
  void fold();

  // Entries indexed (samples left out as unreachable are not counted).
  size_t size() const;
  // Samples inserted since the last rebuild or fold; for tests and statistics.
  size_t insertedCount() const { return grid_.size(); }

  // Calls f(IrradSample&) for every indexed sample with |p - position|^2 < validRadius2: those of
  // the tree in tree order, then the inserted ones.
  template <class F>
  void forEachContaining(const Vector& p, F&& f) const {
    forEachContaining(p, static_cast<const InsertionGrid::CellBatch*>(nullptr),
                      std::forward<F>(f));
  }
  // The same, where `later` (may be null) holds the entries begun here after every listed one
  // and not yet listed: they are found as if they had been listed.
  template <class F>
  void forEachContaining(const Vector& p, const InsertionGrid::CellBatch* later, F&& f) const;
  void query(const Vector& p, StoreCB& store) const {
    forEachContaining(p, [&store](IrradSample& s) { store.store(s); });
  }

  // A bounding sphere of the static tree that contains a query point.
  struct TreeHit {
    IrradSample* sample;
    float d2;  // squared distance from the point to the sample's position
  };
  // The static tree's part of the queries of a run of points, found by walk(). The tree's part
  // of a query does not depend on the samples inserted since the last rebuild, nor on lowered
  // radii (those are tested when the hits are used), so a run of queries can be walked ahead.
  class TreeWalks {
   public:
    // The hits of the k-th point, in the order forEachContaining() finds them.
    std::span<const TreeHit> hitsOf(size_t k) const {
      return {hits_.data() + begin_[k], count_[k]};
    }
    // Asks for the samples of the k-th point's hits, which its query reads. The queries of a
    // run ask for them kSamplesAhead points before their turn: asked for all at once, when the
    // walks end, most would wait for room among the requests in flight or be gone from the
    // nearest cache by their turn. Asked for so, they cost little: copies of the samples laid
    // out in the tree's lane order, so that a query's hits lie together, made the one-core merge
    // no faster.
    static constexpr size_t kSamplesAhead = 4;
    void askSamples(size_t k) const {
      for (const TreeHit& h : hitsOf(k)) prefetchLookedUp(h.sample);
    }
    // askSamples() for the first points, whose turns come before any is asked for ahead.
    void askFirstSamples() const {
      for (size_t k = 0; k < kSamplesAhead && k < begin_.size(); ++k) askSamples(k);
    }
    // Valid while the tree's generation() is this one.
    uint64_t generation() const { return generation_; }

   private:
    friend class SampleKdTree;
    // Walks in turns: enough that a map read in random order, where nearly every node and leaf
    // below the top levels comes from memory, keeps the memory busy.
    static constexpr int kWalkers = 16;
    std::vector<TreeHit> hits_;
    std::vector<uint32_t> begin_, count_;
    uint64_t generation_ = ~uint64_t{0};
    // A hit while walking: the lane of its sample pointer, read once the walks are done.
    struct LaneHit {
      uint32_t lane;
      float d2;
    };
    std::vector<uint64_t> stacks_;             // the walkers' stacks
    std::vector<LaneHit> walkerHits_[kWalkers];  // each walker's hits so far
    std::vector<LaneHit> laneHits_;            // every point's, in the order of hits_
  };
  // Walks the static tree for every point, several walks at a time in turns, so that each
  // walk's wait for its next node overlaps with the others' work. Two ways to touch fewer lines
  // were measured on a 1M-sample frame and not kept: walking 65,536 points sorted along a
  // space-filling curve, so that neighbouring walks share their nodes and leaves (220 ns a walk
  // against 230 in source order, and the sort cost 60 more), and nodes of four children, half
  // the lines a node for a third more levels (as fast as eight). Nor a kd-tree over space
  // whose cells list the leaves their boxes overlap, so that a query follows one path with no
  // stack: the same hits, but 450 ns a walk cold and 140 hot against 220 and 107 (145k cells of
  // 8 leaves on average), since the path is a chain of dependent loads and the cell's leaf boxes
  // are lines of their own, where a node holds its children's boxes.
  // Nor walking level by level, every point of the run at a node of one level before the next
  // level, with branch-free appends: 200 against 210 ns, as the fewer mispredicted branches
  // were paid for in instructions (160 against 115 ns hot). Nor starting each walk below the
  // root, at the node that a grid of 64^3 cells over the root's box gives for the point's cell
  // (the deepest whose subtree holds every leaf that overlaps the cell): the top children's
  // boxes overlap so much that it saved 1.5 of 7 node visits, less than the table's lookup cost
  // (235 against 213 ns). A walk takes about 1,260 instructions; cold it runs at about 2.3 a
  // cycle, hot at about 4.5.
  void walk(std::span<const Vector> points, TreeWalks& out) const;
  // Changes whenever the static tree does (a rebuild, a fold, clear()).
  uint64_t generation() const { return generation_; }
  // The inserted samples' cells at p, found ahead of the query at p (InsertionGrid::Probe):
  // first their keys, with their slots asked for, then the slots, with their entries asked for.
  using Probe = InsertionGrid::Probe;
  void askInserted(const Vector& p, Probe& probe) const { grid_.ask(p, probe); }
  void askInsertedEntries(Probe& probe) const { grid_.askEntries(probe); }
  // The inserted samples' cells for the queries of a run of samples, in turn: before each
  // query, the slots of the sample 2 kAhead further on are asked for, and the entries of the one
  // kAhead further on, so that each comes while the queries between go on.
  class CellsAhead {
   public:
    CellsAhead(const SampleKdTree& tree, std::span<const IrradSample> run)
        : tree_(tree), run_(run) {
      for (size_t k = 0; k < run.size() && k < 2 * kAhead; ++k) {
        tree.askInserted(run[k].position, probes_[k % kProbes]);
        if (k < kAhead) tree.askInsertedEntries(probes_[k % kProbes]);
      }
    }
    // The probe of the k-th sample, whose query comes next (k counts up from 0).
    const Probe* next(size_t k) {
      if (k + 2 * kAhead < run_.size()) {
        tree_.askInserted(run_[k + 2 * kAhead].position, probes_[(k + 2 * kAhead) % kProbes]);
      }
      if (k + kAhead < run_.size()) tree_.askInsertedEntries(probes_[(k + kAhead) % kProbes]);
      return &probes_[k % kProbes];
    }

   private:
    static constexpr size_t kAhead = 2;
    static constexpr size_t kProbes = 8;  // a power of two past 2 kAhead: turns are a mask
    static_assert(kProbes > 2 * kAhead && std::has_single_bit(kProbes));
    const SampleKdTree& tree_;
    std::span<const IrradSample> run_;
    Probe probes_[kProbes];
  };
  // forEachContaining() where walk() found the tree's hits for p, with the tree as it is now;
  // `later` (may be null) holds the samples begun here after every listed one and not yet
  // listed, and `probe` (may be null) is the one askInserted() filled for p.
  template <class F>
  void forEachContaining(const Vector& p, std::span<const TreeHit> treeHits,
                         const InsertionGrid::Unlisted* later, const Probe* probe,
                         F&& f) const;

 private:
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
    uint32_t first[kWidth];
    // A leaf's entries: at most kLeafSize but where the build stops splitting at its depth
    // limit, and there the median splits from depth 40 on have halved any run of 2^32 entries to
    // at most 4096.
    uint16_t count[kWidth];
    uint8_t leaves;  // bit k set when child k is a leaf
  };
  static_assert(sizeof(Node) == 256);
  struct Tree {
    Child root{};
    std::vector<Node, LargeArrayAllocator<Node>> nodes;
    // The entries in leaf order, four to a cache line field by field, each leaf from the start
    // of a group, so that a leaf is scanned four entries at a time from lines that lie together.
    // A leaf's `first` is its first lane (a multiple of four); lanes left over at a leaf's end
    // hold a sphere of radius 0, which contains no point, and no sample.
    std::vector<SphereGroup, LargeArrayAllocator<SphereGroup>> groups;
    std::vector<IrradSample*, LargeArrayAllocator<IrradSample*>> samples;  // per lane
    size_t count = 0;                   // entries
    size_t size() const { return count; }
  };

  // What the build knows of a run of entries: the box of their centres, and the box of their
  // spheres padded a little, in double (a centre near the float limit plus its radius overflows
  // float).
  struct Bounds {
    float plo[3], phi[3];
    double blo[3], bhi[3];
    Bounds();
  };
  class BoundsGatherer;
  // Levels from the root whose halves are built side by side.
  int parallelLevels() const;
  // The build's entries and binary nodes: filled whole as they are made, so not zeroed first,
  // and in huge pages where those are the cheaper to map.
  using Entries = std::vector<Entry, FreshArrayAllocator<Entry>>;
  using BinaryNodes = std::vector<BinaryNode, FreshArrayAllocator<BinaryNode>>;
  // Rebuilds the index over `count` samples; visit(first, end, f) calls f with each of samples
  // [first, end) in order, as a pointer (null: none).
  template <class Visit>
  void build(size_t count, Visit visit);
  template <class Visit>
  static void makeEntries(Entries& entries, size_t count, Visit visit, bool twoThreads);
  static void buildTree(Tree& tree, Entries& entries, int parallelLevels);
  static uint32_t sahSplit(Entries& entries, uint32_t begin, uint32_t end,
                           const Bounds& box, Bounds& low, Bounds& high);
  static Child buildChild(Entries& entries, BinaryNodes& nodes,
                          uint32_t begin, uint32_t end, int depth, int parallelLevels,
                          const Bounds* known);
  static int parallelDepth();
  static Child appendNodes(BinaryNodes& nodes, const BinaryNodes& part,
                           Child c);
  static Child collapse(const BinaryNodes& binary, const Child& c,
                        std::vector<Node, LargeArrayAllocator<Node>>& nodes);
  template <class Hits>
  static void scanLeaf(const Tree& t, uint32_t first, uint32_t n, const Vector& p, Hits& hits) {
    gatherGroups(t.groups.data() + first / 4, t.samples.data() + first, n, p, hits);
  }
  // Asks for a leaf's spheres and its sample pointers, which span two or three lines (its hits
  // may be in any).
  static void prefetchLeaf(const Tree& t, uint32_t at, uint32_t count) {
    prefetchLeafSpheres(t, at, count);
    const uint32_t lanes = std::min<uint32_t>(count, kLeafSize);
    const char* ptrs = reinterpret_cast<const char*>(t.samples.data() + at);
    const size_t bytes = lanes * sizeof(IrradSample*);
    for (size_t b = 0; b < bytes; b += 64) __builtin_prefetch(ptrs + b);
    __builtin_prefetch(ptrs + bytes - 1);
  }
  // Asks for every line of an inner node.
  static void prefetchNode(const Node* nodes, uint32_t index) {
    const char* node = reinterpret_cast<const char*>(nodes + index);
    for (size_t b = 0; b < sizeof(Node); b += 64) __builtin_prefetch(node + b);
  }
  // Asks for a leaf's spheres alone.
  static void prefetchLeafSpheres(const Tree& t, uint32_t at, uint32_t count) {
    const SphereGroup* g = t.groups.data() + at / 4;
    const uint32_t lanes = std::min<uint32_t>(count, kLeafSize);
    for (uint32_t lane = 0; lane < lanes; lane += 4) __builtin_prefetch(g + lane / 4);
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

  Tree tree_;
  InsertionGrid grid_;
  size_t foldMinimum_;
  int buildThreads_ = 0;
  uint64_t generation_ = 0;
};

template <class F>
void SampleKdTree::forEachContaining(const Vector& p, const InsertionGrid::CellBatch* later,
                                     F&& f) const {
  PendingHits<std::remove_reference_t<F>> hits(f);
  const Tree& tree = tree_;
  if (tree.size() && inside(p, tree.root.lo, tree.root.hi)) {
    if (tree.root.count) {
      scanLeaf(tree, tree.root.first, tree.root.count, p, hits);
    } else {
      const Node* nodes = tree.nodes.data();
      uint32_t stack[64 * kWidth];
      int top = 0;
      stack[top++] = tree.root.first;
      while (top > 0) {
        const Node& n = nodes[stack[--top]];
        const uint32_t hit = childrenContaining(n, p);
        // Ask for the leaves' lines before scanning any.
        for (uint32_t leaves = hit & n.leaves; leaves; leaves &= leaves - 1) {
          const int k = std::countr_zero(leaves);
          prefetchLeaf(tree, n.first[k], n.count[k]);
        }
        for (uint32_t leaves = hit & n.leaves; leaves; leaves &= leaves - 1) {
          const int k = std::countr_zero(leaves);
          scanLeaf(tree, n.first[k], n.count[k], p, hits);
        }
        for (uint32_t inner = hit & ~uint32_t{n.leaves}; inner; inner &= inner - 1) {
          const int k = std::countr_zero(inner);
          prefetchNode(nodes, n.first[k]);
          stack[top++] = n.first[k];
        }
      }
    }
  }
  grid_.gather(later, p, nullptr, hits);
  hits.flush();
}

template <class F>
void SampleKdTree::forEachContaining(const Vector& p, std::span<const TreeHit> treeHits,
                                     const InsertionGrid::Unlisted* later, const Probe* probe,
                                     F&& f) const {
  PendingHits<std::remove_reference_t<F>> hits(f);
  for (const TreeHit& h : treeHits) hits.add(h.sample, h.d2);
  if (later && !later->empty()) {
    grid_.gather(*later, p, probe, hits);
  } else {
    grid_.gather(static_cast<const InsertionGrid::CellBatch*>(nullptr), p, probe, hits);
  }
  hits.flush();
}

}  // namespace LUtils
