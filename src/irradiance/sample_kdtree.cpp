#include "irradiance/sample_kdtree.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <functional>
#include <limits>
#include <span>
#include <system_error>
#include <thread>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "io/placement.h"
#include "irradiance/sphere_hits.h"
#include "threads/prefault.h"

namespace LUtils {

void SampleKdTree::clear() {
  tree_ = Tree{};
  grid_.clear();
  ++generation_;
}

namespace {

// Runs high() on a thread of its own beside low(), which runs here, when `split` asks for it and
// a thread can be had; otherwise both here, low() first.
template <class Low, class High>
void sideBySide(bool split, Low&& low, High&& high) {
  std::thread worker;
  if (split) {
    try {
      worker = std::thread(std::ref(high));
    } catch (const std::system_error&) {
    }
  }
  low();
  if (worker.joinable()) {
    worker.join();
  } else {
    high();  // no thread to spare
  }
}

// A walker's hits: appended in the order found, each sample asked for from memory at once.
struct HitList {
  std::vector<SampleKdTree::TreeHit>& out;
  void add(IrradSample* s, float d2) {
    prefetchLookedUp(s);
    out.push_back({s, d2});
  }
};

// The sink of the walks: a hit's lane, whose sample pointer is asked for now and read after the
// walks, by when it has come. Reading it at once would make the sample's own request wait for
// it; asking for every pointer line of every leaf reached, when few of their lanes hit, keeps
// the memory busy with lines that are not used.
template <class LaneHits>
struct LaneHitList {
  LaneHits& out;
  IrradSample* const* lanes;
  void add(IrradSample* const& slot, float d2) {
    __builtin_prefetch(&slot);
    out.push_back({static_cast<uint32_t>(&slot - lanes), d2});
  }
};

}  // namespace

void SampleKdTree::walk(std::span<const Vector> points, TreeWalks& out) const {
  const size_t n = points.size();
  out.hits_.clear();
  out.begin_.assign(n, 0);
  out.count_.assign(n, 0);
  out.generation_ = generation_;
  out.laneHits_.clear();
  const Tree& t = tree_;
  if (!t.size()) return;
  if (t.root.count) {
    for (size_t k = 0; k < n; ++k) {
      out.begin_[k] = static_cast<uint32_t>(out.hits_.size());
      HitList sink{out.hits_};
      if (inside(points[k], t.root.lo, t.root.hi)) {
        gatherGroups(t.groups.data() + t.root.first / 4, t.samples.data() + t.root.first,
                     t.root.count, points[k], sink);
      }
      out.count_[k] = static_cast<uint32_t>(out.hits_.size() - out.begin_[k]);
    }
    return;
  }

  // Each walker has a stack of items: an inner node (count 0) or a leaf (its first lane and
  // count), as first << 32 | count. A node's leaves are pushed above its inner children and in
  // reverse, so that they are scanned first and in child order, then the inner children are
  // taken in the order forEachContaining() takes them: the hits come in the same order.
  constexpr int kWalkers = TreeWalks::kWalkers;
  constexpr int kStack = 64 * kWidth;
  out.stacks_.resize(size_t{kWalkers} * kStack);
  struct Walker {
    size_t point;
    uint64_t* stack;
    int top;
    std::vector<TreeWalks::LaneHit>* hits;
  };
  Walker walkers[kWalkers];
  const Node* nodes = t.nodes.data();
  size_t next = 0;
  // Gives the walker the next point inside the root; false when there is none.
  auto start = [&](Walker& w) {
    for (; next < n; ++next) {
      if (!inside(points[next], t.root.lo, t.root.hi)) continue;
      w.point = next++;
      w.top = 0;
      w.stack[w.top++] = uint64_t{t.root.first} << 32;
      prefetchNode(nodes, t.root.first);
      w.hits->clear();
      return true;
    }
    return false;
  };
  int live = 0;
  for (int i = 0; i < kWalkers; ++i) {
    Walker& w = walkers[live];
    w.stack = out.stacks_.data() + size_t{static_cast<size_t>(live)} * kStack;
    w.hits = &out.walkerHits_[live];
    if (!start(w)) break;
    ++live;
  }
  while (live > 0) {
    for (int i = 0; i < live;) {
      Walker& w = walkers[i];
      const Vector& p = points[w.point];
      const uint64_t item = w.stack[--w.top];
      const auto first = static_cast<uint32_t>(item >> 32);
      const auto count = static_cast<uint32_t>(item);
      if (count) {
        LaneHitList sink{*w.hits, t.samples.data()};
        scanLeaf(t, first, count, p, sink);
      } else {
        const Node& node = nodes[first];
        const uint32_t hit = childrenContaining(node, p);
        for (uint32_t inner = hit & ~uint32_t{node.leaves}; inner; inner &= inner - 1) {
          const int k = std::countr_zero(inner);
          w.stack[w.top++] = uint64_t{node.first[k]} << 32;
          prefetchNode(nodes, node.first[k]);
        }
        for (uint32_t leaves = hit & node.leaves; leaves;) {
          const int k = 31 - std::countl_zero(leaves);
          leaves &= ~(1u << k);
          w.stack[w.top++] = uint64_t{node.first[k]} << 32 | node.count[k];
          prefetchLeafSpheres(t, node.first[k], node.count[k]);
        }
      }
      if (w.top > 0) {
        ++i;
        continue;
      }
      // Done: its hits go out, and it takes the next point, or the last live walker's place.
      out.begin_[w.point] = static_cast<uint32_t>(out.laneHits_.size());
      out.count_[w.point] = static_cast<uint32_t>(w.hits->size());
      out.laneHits_.insert(out.laneHits_.end(), w.hits->begin(), w.hits->end());
      if (!start(w)) std::swap(w, walkers[--live]);
    }
  }
  // The pointers of the hits (their lines were asked for when found).
  out.hits_.resize(out.laneHits_.size());
  for (size_t h = 0; h < out.laneHits_.size(); ++h) {
    IrradSample* s = t.samples[out.laneHits_[h].lane];
    out.hits_[h] = {s, out.laneHits_[h].d2};
  }
}

size_t SampleKdTree::size() const { return tree_.size() + grid_.size(); }

// The samples the index cannot place (io/placement.h) are left out here, the one entry point
// of both the tree and the grid.
bool SampleKdTree::makeEntry(IrradSample& s, Entry& out) {
  if (!placeable(s.position, s.validRadius2)) return false;
  out = boundingSphere(s, s.validRadius2);
  return true;
}

// The entries of those of the samples that the index can place, in order. Two threads may fill
// the halves side by side: on fresh memory most of the time goes to mapping the pages, which each
// maps for its own half; the second half then moves down over the first's unplaceable samples.
template <class Visit>
void SampleKdTree::makeEntries(Entries& entries, size_t count, Visit visit, bool twoThreads) {
  entries.resize(count);
  const auto fill = [&](size_t first, size_t end) {
    prefaultForWriting(entries.data() + first, (end - first) * sizeof(Entry));
    size_t filled = first;
    visit(first, end, [&](IrradSample* s) {
      if (s && makeEntry(*s, entries[filled])) ++filled;
    });
    return filled - first;
  };
  const bool split = twoThreads && count >= kParallelMinimum;
  const size_t half = split ? count / 2 : count;
  size_t low = 0, high = 0;
  sideBySide(
      split, [&] { low = fill(0, half); }, [&] { high = fill(half, count); });
  if (low < half) std::memmove(entries.data() + low, entries.data() + half, high * sizeof(Entry));
  entries.resize(low + high);
}

template <class Visit>
void SampleKdTree::build(size_t count, Visit visit) {
  Entries entries;
  makeEntries(entries, count, visit, parallelLevels() > 0);
  clear();
  if (!entries.empty()) buildTree(tree_, entries, parallelLevels());
}

void SampleKdTree::build(BlockSequence<IrradSample>& samples) {
  build(samples.size(), [&samples](size_t first, size_t end, auto&& f) {
    const size_t per = samples.elementsPerBlock();
    for (size_t b = first / per; b * per < end; ++b) {
      IrradSample* block = samples.block(b);
      const size_t to = std::min(end, (b + 1) * per) - b * per;
      for (size_t i = std::max(first, b * per) - b * per; i < to; ++i) f(&block[i]);
    }
  });
}

void SampleKdTree::insert(IrradSample& sample) {
  Entry e;
  if (!makeEntry(sample, e)) return;
  grid_.insert(e);
  if (wantsFold()) fold();
}

bool SampleKdTree::beginInsert(IrradSample& sample, Entry& entry, InsertionGrid::Box* box) {
  return makeEntry(sample, entry) && grid_.begin(entry, box);
}

void SampleKdTree::fold() {
  // The tree's lanes (null where a leaf is padded), then the grid's samples in the order taken.
  const std::span<IrradSample* const> lanes(tree_.samples);
  const std::span<IrradSample* const> taken(grid_.samples());
  build(lanes.size() + taken.size(), [lanes, taken](size_t first, size_t end, auto&& f) {
    for (size_t i = first; i < std::min(end, lanes.size()); ++i) f(lanes[i]);
    for (size_t i = std::max(first, lanes.size()); i < end; ++i) f(taken[i - lanes.size()]);
  });
}

int SampleKdTree::parallelLevels() const {
  if (buildThreads_ == 0) return parallelDepth();
  if (buildThreads_ == 1) return 0;
  // One level more than the threads ask for, as for the cores.
  const int levels = std::bit_width(static_cast<unsigned>(buildThreads_) - 1) + 1;
  return std::min(levels, parallelDepth());
}

void SampleKdTree::buildTree(Tree& tree, Entries& entries, int parallelLevels) {
  const size_t n = entries.size();
  BinaryNodes binary;
  // Generous, and filled as the tree grows: not mapped ahead (that would map pages never used).
  binary.reserve(n / (kLeafSize / 2) + 1);
  const Child root =
      buildChild(entries, binary, 0, static_cast<uint32_t>(n), 0, parallelLevels, nullptr);
  tree.nodes.clear();
  reserveMapped(tree.nodes, binary.size() / 3 + 1);
  tree.root = collapse(binary, root, tree.nodes);
  tree.count = n;

  // The leaves partition the entries into runs; each run starts a group. laneOf maps the first
  // entry of a leaf to its first lane.
  std::vector<uint32_t> starts;
  auto leafStart = [&](const Child& c) {
    if (c.count) starts.push_back(c.first);
  };
  leafStart(tree.root);
  for (const Node& node : tree.nodes) {
    for (int k = 0; k < kWidth; ++k) {
      if (node.count[k]) starts.push_back(node.first[k]);
    }
  }
  std::sort(starts.begin(), starts.end());
  std::vector<uint32_t> laneOf;
  reserveMapped(laneOf, n);
  laneOf.resize(n);
  size_t lanes = 0;
  for (size_t i = 0; i < starts.size(); ++i) {
    const size_t end = i + 1 < starts.size() ? starts[i + 1] : n;
    laneOf[starts[i]] = static_cast<uint32_t>(lanes);
    lanes += (end - starts[i] + 3) & ~size_t{3};
  }
  // Every lane is written below, the padding ones too, so the arrays are not zeroed first. The
  // leaves are laid out in two halves side by side: on fresh memory most of the time goes to
  // mapping the pages, which the two threads do for their own halves.
  tree.groups.resize(lanes / 4);
  tree.samples.resize(lanes);
  const auto layOut = [&](size_t firstLeaf, size_t endLeaf) {
    if (firstLeaf >= endLeaf) return;
    const size_t laneBegin = laneOf[starts[firstLeaf]];
    const size_t laneEnd = endLeaf < starts.size() ? laneOf[starts[endLeaf]] : lanes;
    prefaultForWriting(tree.groups.data() + laneBegin / 4,
                       (laneEnd - laneBegin) / 4 * sizeof(SphereGroup));
    prefaultForWriting(tree.samples.data() + laneBegin,
                       (laneEnd - laneBegin) * sizeof(IrradSample*));
    for (size_t i = firstLeaf; i < endLeaf; ++i) {
      const size_t end = i + 1 < starts.size() ? starts[i + 1] : n;
      size_t lane = laneOf[starts[i]];
      const size_t leafEnd = lane + ((end - starts[i] + 3) & ~size_t{3});
      for (size_t e = starts[i]; lane < leafEnd; ++e, ++lane) {
        SphereGroup& g = tree.groups[lane / 4];
        // Lanes past the leaf's entries hold a sphere of radius 0, which contains no point.
        const bool entry = e < end;
        g.x[lane % 4] = entry ? entries[e].x : 0.0f;
        g.y[lane % 4] = entry ? entries[e].y : 0.0f;
        g.z[lane % 4] = entry ? entries[e].z : 0.0f;
        g.r[lane % 4] = entry ? entries[e].r : 0.0f;
        tree.samples[lane] = entry ? entries[e].sample : nullptr;
      }
    }
  };
  // The first leaf at or past the middle entry starts the second half.
  const size_t half = static_cast<size_t>(
      std::lower_bound(starts.begin(), starts.end(), static_cast<uint32_t>(n / 2)) -
      starts.begin());
  sideBySide(
      n >= kParallelMinimum && parallelLevels > 0, [&] { layOut(0, half); },
      [&] { layOut(half, starts.size()); });
  if (tree.root.count) tree.root.first = laneOf[tree.root.first];
  for (Node& node : tree.nodes) {
    for (int k = 0; k < kWidth; ++k) {
      if (node.count[k]) node.first[k] = laneOf[node.first[k]];
    }
  }
}

// Turns the binary subtree under `c` into wide nodes: the child with the largest box is opened
// until kWidth children are gathered or only leaves remain. Nodes are stored in preorder.
SampleKdTree::Child SampleKdTree::collapse(const BinaryNodes& binary, const Child& c,
                                           std::vector<Node, LargeArrayAllocator<Node>>& nodes) {
  if (c.count) return c;
  Child gathered[kWidth];
  int n = 2;
  gathered[0] = binary[c.first].child[0];
  gathered[1] = binary[c.first].child[1];
  while (n < kWidth) {
    int open = -1;
    float openSize = -1.0f;
    for (int k = 0; k < n; ++k) {
      if (gathered[k].count) continue;
      const float size = (gathered[k].hi[0] - gathered[k].lo[0]) +
                         (gathered[k].hi[1] - gathered[k].lo[1]) +
                         (gathered[k].hi[2] - gathered[k].lo[2]);
      if (size > openSize) {
        openSize = size;
        open = k;
      }
    }
    if (open < 0) break;
    const BinaryNode& b = binary[gathered[open].first];
    gathered[open] = b.child[0];
    gathered[n++] = b.child[1];
  }
  const uint32_t index = static_cast<uint32_t>(nodes.size());
  nodes.emplace_back();
  nodes[index].leaves = 0;
  constexpr float inf = std::numeric_limits<float>::infinity();
  for (int k = 0; k < kWidth; ++k) {
    const Child child = k < n ? collapse(binary, gathered[k], nodes)
                              : Child{{inf, inf, inf}, {-inf, -inf, -inf}, 0, 0};
    Node& node = nodes[index];
    for (int a = 0; a < 3; ++a) {
      node.lo[a][k] = child.lo[a];
      node.hi[a][k] = child.hi[a];
    }
    node.first[k] = child.first;
    node.count[k] = static_cast<uint16_t>(child.count);
    if (child.count) node.leaves |= static_cast<uint8_t>(1u << k);
  }
  Child out = c;
  out.first = index;
  return out;
}

namespace {

constexpr int kBins = 16;
// About as many entries as are binned to place a split in a large range.
constexpr uint32_t kBinnedEntries = 1024;

// Bins and boxes of the split search are kept in double: the span of two finite floats may
// exceed the float range (-3e38 and 3e38) and the reciprocal of a denormal span does, and either
// would make a bin index out of NaN or infinity.
struct Bin {
  double lo[3], hi[3];
  uint32_t count;
};

constexpr double kInfD = std::numeric_limits<double>::infinity();

// A query point falls into a box about in proportion to its volume (the boxes are padded by the
// validity radii, so even boxes around a flat wall have depth).
double boxCost(const double* lo, const double* hi) {
  return (hi[0] - lo[0]) * (hi[1] - lo[1]) * (hi[2] - lo[2]);
}

// The bin of a centre; the split search and the partition that follows it must agree.
int binOf(float c, double lo, double scale) {
  const double at = (double{c} - lo) * scale;
  if (!(at > 0.0)) return 0;
  return at >= kBins - 1 ? kBins - 1 : static_cast<int>(at);
}

// Floats in the order of their values as unsigned integers, and back (finite floats; -0 comes
// just before +0).
uint32_t orderedKey(float f) {
  const auto u = std::bit_cast<uint32_t>(f);
  return u >> 31 ? ~u : u | 0x80000000u;
}
float fromOrderedKey(uint32_t k) {
  return std::bit_cast<float>(k >> 31 ? k & 0x7FFFFFFFu : ~k);
}

// The least float whose bin is above `bin`, given `below`, whose bin is not, and `above`, whose
// bin is (both finite): a centre c has a bin of at most `bin` exactly when c < the result. A
// bisection over the floats between: 32 steps at most.
float binLimit(int bin, double lo, double scale, float below, float above) {
  uint32_t low = orderedKey(below), high = orderedKey(above);  // bin(low) <= bin < bin(high)
  while (high - low > 1) {
    const uint32_t mid = low + (high - low) / 2;
    if (binOf(fromOrderedKey(mid), lo, scale) <= bin) {
      low = mid;
    } else {
      high = mid;
    }
  }
  return fromOrderedKey(high);
}

int widestAxis(const float* plo, const float* phi) {
  int widest = 0;
  for (int a = 1; a < 3; ++a) {
    if (double{phi[a]} - plo[a] > double{phi[widest]} - plo[widest]) widest = a;
  }
  return widest;
}

// The float bounds that enclose [lo, hi] computed in double: a bound beyond the float range
// becomes infinite, which still holds every finite query point.
constexpr float kInfF = std::numeric_limits<float>::infinity();
constexpr double kMaxF = std::numeric_limits<float>::max();

float floatBelow(double v) {
  if (v < -kMaxF) return -kInfF;
  const float f = static_cast<float>(v);
  return static_cast<double>(f) > v ? std::nextafter(f, -kInfF) : f;
}
float floatAbove(double v) {
  if (v > kMaxF) return kInfF;
  const float f = static_cast<float>(v);
  return static_cast<double>(f) < v ? std::nextafter(f, kInfF) : f;
}

}  // namespace

SampleKdTree::Bounds::Bounds()
    : plo{kInfF, kInfF, kInfF}, phi{-kInfF, -kInfF, -kInfF}, blo{kInfD, kInfD, kInfD},
      bhi{-kInfD, -kInfD, -kInfD} {}

// Gathers the Bounds of entries one by one, in registers while a loop runs. Per axis: the range
// of the centres in float and, in double, of centre - pad and centre + pad, where
// pad = radius + |centre| * 1e-6. A bound is replaced only by a value beyond it, as std::min and
// std::max do, so the bounds come out the same to the bit in whatever order entries come.
class SampleKdTree::BoundsGatherer {
 public:
#if defined(__SSE2__)
  static_assert(offsetof(Entry, y) == offsetof(Entry, x) + 4 &&
                offsetof(Entry, z) == offsetof(Entry, x) + 8 &&
                offsetof(Entry, r) == offsetof(Entry, x) + 12);
  BoundsGatherer()
      : plo_(_mm_set1_ps(kInfF)), phi_(_mm_set1_ps(-kInfF)), bloXY_(_mm_set1_pd(kInfD)),
        bhiXY_(_mm_set1_pd(-kInfD)), bloZ_(bloXY_), bhiZ_(bhiXY_) {}
  void add(const Entry& e) {
    const __m128 c = _mm_loadu_ps(&e.x);  // x, y, z and the radius, unused in the fourth lane
    plo_ = _mm_min_ps(c, plo_);
    phi_ = _mm_max_ps(c, phi_);
    const __m128d r = _mm_set1_pd(double{e.r});
    const __m128d k = _mm_set1_pd(1e-6);
    const __m128d magnitude = _mm_castsi128_pd(_mm_set1_epi64x(0x7FFFFFFFFFFFFFFF));
    const __m128d xy = _mm_cvtps_pd(c);
    const __m128d zr = _mm_cvtps_pd(_mm_movehl_ps(c, c));  // z, and the radius, unused
    const __m128d padXY = _mm_add_pd(r, _mm_mul_pd(_mm_and_pd(xy, magnitude), k));
    const __m128d padZ = _mm_add_pd(r, _mm_mul_pd(_mm_and_pd(zr, magnitude), k));
    bloXY_ = _mm_min_pd(_mm_sub_pd(xy, padXY), bloXY_);
    bhiXY_ = _mm_max_pd(_mm_add_pd(xy, padXY), bhiXY_);
    bloZ_ = _mm_min_pd(_mm_sub_pd(zr, padZ), bloZ_);
    bhiZ_ = _mm_max_pd(_mm_add_pd(zr, padZ), bhiZ_);
  }
  void store(SampleKdTree::Bounds& out) const {
    alignas(16) float lo[4], hi[4];
    _mm_store_ps(lo, plo_);
    _mm_store_ps(hi, phi_);
    std::copy(lo, lo + 3, out.plo);
    std::copy(hi, hi + 3, out.phi);
    _mm_storeu_pd(out.blo, bloXY_);
    _mm_storeu_pd(out.bhi, bhiXY_);
    _mm_store_sd(out.blo + 2, bloZ_);
    _mm_store_sd(out.bhi + 2, bhiZ_);
  }

 private:
  __m128 plo_, phi_;
  __m128d bloXY_, bhiXY_, bloZ_, bhiZ_;
#else
  void add(const Entry& e) {
    const double r = e.r;
    const float c[3] = {e.x, e.y, e.z};
    for (int a = 0; a < 3; ++a) {
      b_.plo[a] = std::min(b_.plo[a], c[a]);
      b_.phi[a] = std::max(b_.phi[a], c[a]);
      const double pad = r + std::abs(double{c[a]}) * 1e-6;
      b_.blo[a] = std::min(b_.blo[a], c[a] - pad);
      b_.bhi[a] = std::max(b_.bhi[a], c[a] + pad);
    }
  }
  void store(SampleKdTree::Bounds& out) const { out = b_; }

 private:
  SampleKdTree::Bounds b_;
#endif
};

// Splits entries [begin, end) where the boxes of the two halves, weighted by their entry counts,
// are smallest (binned by centre), and fills the bounds of the two halves. `box` holds the
// entries' bounds. Returns the first entry of the second half; begin or end when no bin boundary
// separates the entries (and then the halves' bounds are not filled).
uint32_t SampleKdTree::sahSplit(Entries& entries, uint32_t begin, uint32_t end,
                                const Bounds& box, Bounds& low, Bounds& high) {
  double bestCost = kInfD;
  int bestBin = -1;
  // Only the axis along which the centres spread widest is binned: a third of the work, for
  // trees that answer queries about as fast as those binned along all three.
  const int a = widestAxis(box.plo, box.phi);
  const double extent = double{box.phi[a]} - box.plo[a];
  if (!(extent > 0.0)) return begin;
  const double lo = box.plo[a];
  const double scale = kBins / extent * 0.9999;
  // Two sets of bins, for the even and the odd entries, merged after: neighbouring entries
  // often fall into one bin, and each would otherwise wait for the other's update of it.
  Bin bins[kBins], odd[kBins];
  for (Bin& b : bins) b = {{kInfD, kInfD, kInfD}, {-kInfD, -kInfD, -kInfD}, 0};
  std::copy(bins, bins + kBins, odd);
  auto binEntry = [&](const Entry& e, Bin* set) {
    Bin& b = set[binOf(a == 0 ? e.x : (a == 1 ? e.y : e.z), lo, scale)];
#if defined(__SSE2__)
    const __m128 c = _mm_loadu_ps(&e.x);
    const __m128d r = _mm_set1_pd(double{e.r});
    const __m128d xy = _mm_cvtps_pd(c);
    const __m128d z = _mm_cvtps_pd(_mm_movehl_ps(c, c));
    _mm_storeu_pd(b.lo, _mm_min_pd(_mm_sub_pd(xy, r), _mm_loadu_pd(b.lo)));
    _mm_storeu_pd(b.hi, _mm_max_pd(_mm_add_pd(xy, r), _mm_loadu_pd(b.hi)));
    _mm_store_sd(b.lo + 2, _mm_min_sd(_mm_sub_sd(z, r), _mm_load_sd(b.lo + 2)));
    _mm_store_sd(b.hi + 2, _mm_max_sd(_mm_add_sd(z, r), _mm_load_sd(b.hi + 2)));
#else
    const float c[3] = {e.x, e.y, e.z};
    const double r = e.r;
    for (int j = 0; j < 3; ++j) {
      b.lo[j] = std::min(b.lo[j], c[j] - r);
      b.hi[j] = std::max(b.hi[j], c[j] + r);
    }
#endif
    ++b.count;
  };
  // A large range is binned from every stride-th entry: a thousand or so place the split where
  // all of them would, nearly always, and the partition below still reads every entry.
  const uint32_t stride = std::max<uint32_t>(1, (end - begin) / kBinnedEntries);
  uint32_t i = begin;
  for (; i + stride < end; i += 2 * stride) {
    binEntry(entries[i], bins);
    binEntry(entries[i + stride], odd);
  }
  if (i < end) binEntry(entries[i], bins);
  uint32_t binned = 0;
  for (int k = 0; k < kBins; ++k) {
    for (int j = 0; j < 3; ++j) {
      bins[k].lo[j] = std::min(bins[k].lo[j], odd[k].lo[j]);
      bins[k].hi[j] = std::max(bins[k].hi[j], odd[k].hi[j]);
    }
    bins[k].count += odd[k].count;
    binned += bins[k].count;
  }
  double rightCost[kBins];
  Bin acc = {{kInfD, kInfD, kInfD}, {-kInfD, -kInfD, -kInfD}, 0};
  for (int k = kBins - 1; k > 0; --k) {
    for (int j = 0; j < 3; ++j) {
      acc.lo[j] = std::min(acc.lo[j], bins[k].lo[j]);
      acc.hi[j] = std::max(acc.hi[j], bins[k].hi[j]);
    }
    acc.count += bins[k].count;
    rightCost[k] = acc.count ? boxCost(acc.lo, acc.hi) * acc.count : 0.0;
  }
  acc = {{kInfD, kInfD, kInfD}, {-kInfD, -kInfD, -kInfD}, 0};
  for (int k = 0; k < kBins - 1; ++k) {
    for (int j = 0; j < 3; ++j) {
      acc.lo[j] = std::min(acc.lo[j], bins[k].lo[j]);
      acc.hi[j] = std::max(acc.hi[j], bins[k].hi[j]);
    }
    acc.count += bins[k].count;
    if (acc.count == 0 || acc.count == binned) continue;
    const double cost = boxCost(acc.lo, acc.hi) * acc.count + rightCost[k + 1];
    if (cost < bestCost) {
      bestCost = cost;
      bestBin = k;
    }
  }
  if (bestBin < 0) return begin;
  // An entry belongs left when its bin is at most bestBin, that is when its centre lies below
  // the least float of a higher bin (binOf rises with the centre).
  const float limit = binLimit(bestBin, lo, scale, box.plo[a], box.phi[a]);
  // The partition swaps from both ends (Hoare's scheme): the first entry from the left that
  // belongs right with the first from the right that belongs left. Each entry is tested once,
  // and goes into the bounds of its half then, so that the halves need no pass of their own.
  Entry* first = entries.data() + begin;
  Entry* last = entries.data() + end;
  BoundsGatherer lowBounds, highBounds;
  const auto partition = [&](auto centre) {
    const auto left = [&](const Entry& e) { return centre(e) < limit; };
    for (;;) {
      for (; first != last && left(*first); ++first) lowBounds.add(*first);
      if (first == last) break;
      highBounds.add(*first);
      --last;
      for (; first != last && !left(*last); --last) highBounds.add(*last);
      if (first == last) break;
      lowBounds.add(*last);
      std::swap(*first, *last);
      ++first;
    }
  };
  if (a == 0) {
    partition([](const Entry& e) { return e.x; });
  } else if (a == 1) {
    partition([](const Entry& e) { return e.y; });
  } else {
    partition([](const Entry& e) { return e.z; });
  }
  lowBounds.store(low);
  highBounds.store(high);
  return static_cast<uint32_t>(first - entries.data());
}

int SampleKdTree::parallelDepth() {
  static const int depth = [] {
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    int d = 0;
    while ((1u << d) < cores && d < 8) ++d;
    // One level more than the cores ask for: the halves of a split are seldom equal.
    return cores > 1 ? d + 1 : 0;
  }();
  return depth;
}

// Appends a subtree built into a list of its own; returns `c` renumbered for the whole list.
SampleKdTree::Child SampleKdTree::appendNodes(BinaryNodes& nodes,
                                              const BinaryNodes& part, Child c) {
  const uint32_t base = static_cast<uint32_t>(nodes.size());
  nodes.reserve(nodes.size() + part.size());
  for (BinaryNode n : part) {
    for (Child& k : n.child) {
      if (!k.count) k.first += base;
    }
    nodes.push_back(n);
  }
  if (!c.count) c.first += base;
  return c;
}

// Builds the binary subtree over entries [begin, end), inner nodes in preorder. Splits where the
// two halves' boxes are smallest; where no such split separates the entries (many samples at one
// point) or the tree grows deep, at the median of the positions along their widest axis, which
// bounds the depth whatever the data. `known` holds the entries' bounds when the split above
// gathered them; null: they are gathered here.
SampleKdTree::Child SampleKdTree::buildChild(Entries& entries,
                                             BinaryNodes& nodes, uint32_t begin,
                                             uint32_t end, int depth, int parallelLevels,
                                             const Bounds* known) {
  constexpr float inf = std::numeric_limits<float>::infinity();
  Child child{{inf, inf, inf}, {-inf, -inf, -inf}, begin, end - begin};
  Bounds own;
  if (!known) {
    BoundsGatherer gather;
    for (uint32_t i = begin; i < end; ++i) gather.add(entries[i]);
    gather.store(own);
    known = &own;
  }
  // The padded box is rounded outwards to float once, here.
  for (int a = 0; a < 3; ++a) {
    child.lo[a] = floatBelow(known->blo[a]);
    child.hi[a] = floatAbove(known->bhi[a]);
  }
  const uint32_t count = end - begin;
  if (count <= kLeafSize || depth >= 60) return child;

  // The split gathers the halves' bounds as it partitions; the median split below does not.
  Bounds lowBounds, highBounds;
  const Bounds* lowKnown = &lowBounds;
  const Bounds* highKnown = &highBounds;
  uint32_t mid = sahSplit(entries, begin, end, *known, lowBounds, highBounds);
  if (mid == begin || mid == end || depth >= 40) {
    lowKnown = highKnown = nullptr;
    const int axis = widestAxis(known->plo, known->phi);
    mid = begin + count / 2;
    auto key = [axis](const Entry& e) { return axis == 0 ? e.x : (axis == 1 ? e.y : e.z); };
    std::nth_element(entries.begin() + begin, entries.begin() + mid, entries.begin() + end,
                     [&](const Entry& a, const Entry& b) { return key(a) < key(b); });
  }

  const uint32_t index = static_cast<uint32_t>(nodes.size());
  nodes.emplace_back();
  Child low, high;
  if (count >= kParallelMinimum && depth < parallelLevels) {
    // The halves are built side by side: the low one in place, where it follows this node in
    // preorder, and the high one into a list of its own, appended after it; so the result is
    // the same node for node as a build on one thread, and only the high half's nodes are
    // held twice for a moment.
    BinaryNodes highNodes;
    auto buildHigh = [&] {
      highNodes.reserve((end - mid) / (kLeafSize / 2) + 1);
      high = buildChild(entries, highNodes, mid, end, depth + 1, parallelLevels, highKnown);
    };
    sideBySide(
        true,
        [&] { low = buildChild(entries, nodes, begin, mid, depth + 1, parallelLevels, lowKnown); },
        buildHigh);
    high = appendNodes(nodes, highNodes, high);
  } else {
    low = buildChild(entries, nodes, begin, mid, depth + 1, parallelLevels, lowKnown);
    high = buildChild(entries, nodes, mid, end, depth + 1, parallelLevels, highKnown);
  }
  nodes[index].child[0] = low;
  nodes[index].child[1] = high;
  child.first = index;
  child.count = 0;
  return child;
}

}  // namespace LUtils
