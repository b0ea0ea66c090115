#include "irradiance/sample_kdtree.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace LUtils {

void SampleKdTree::clear() {
  trees_.clear();
  buffer_.clear();
}

size_t SampleKdTree::size() const {
  size_t n = buffer_.size();
  for (const Tree& t : trees_) n += t.entries.size();
  return n;
}

bool SampleKdTree::makeEntry(IrradSample& s, Entry& out) {
  const Vector& p = s.position;
  if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) return false;
  if (!(s.validRadius2 > 0.0f)) return false;  // also NaN: such a sphere contains nothing
  out = {p.x, p.y, p.z, s.validRadius2, &s};
  return true;
}

void SampleKdTree::build(BlockSequence<IrradSample>& samples) {
  clear();
  std::vector<Entry> entries;
  entries.reserve(samples.size());
  for (size_t b = 0; b < samples.blockCount(); ++b) {
    IrradSample* block = samples.block(b);
    const size_t n = samples.blockLength(b);
    Entry e;
    for (size_t i = 0; i < n; ++i) {
      if (makeEntry(block[i], e)) entries.push_back(e);
    }
  }
  addTree(std::move(entries));
}

void SampleKdTree::build(IrradSample* const* samples, size_t count) {
  clear();
  std::vector<Entry> entries;
  entries.reserve(count);
  Entry e;
  for (size_t i = 0; i < count; ++i) {
    if (samples[i] && makeEntry(*samples[i], e)) entries.push_back(e);
  }
  addTree(std::move(entries));
}

void SampleKdTree::insert(IrradSample& sample) {
  Entry e;
  if (!makeEntry(sample, e)) return;
  buffer_.push_back(e);
  if (buffer_.size() < kBufferSize) return;
  // The full buffer becomes a tree, and absorbs every smaller tree that is less than
  // kMergeRatio times its size: the trees then shrink by that ratio or more from the largest on,
  // so a query visits only log(n) / log(kMergeRatio) of them, while each entry is rebuilt about
  // kMergeRatio times per level. The largest tree (usually the one the map was prepared with)
  // is absorbed only by a tree at least its size.
  std::vector<Entry> merged;
  merged.swap(buffer_);
  while (!trees_.empty()) {
    const size_t last = trees_.back().entries.size();
    const bool largest = trees_.size() == 1;
    if (largest ? last > merged.size() : last > kMergeRatio * merged.size()) break;
    std::vector<Entry>& smaller = trees_.back().entries;
    merged.insert(merged.end(), smaller.begin(), smaller.end());
    trees_.pop_back();
  }
  // Radii may have been lowered since the absorbed entries were built: take the current ones,
  // which keeps the bounds tight.
  size_t kept = 0;
  for (Entry& m : merged) {
    if (makeEntry(*m.sample, m)) merged[kept++] = m;
  }
  merged.resize(kept);
  buffer_.reserve(kBufferSize);
  addTree(std::move(merged));
}

void SampleKdTree::addTree(std::vector<Entry>&& entries) {
  if (entries.empty()) return;
  Tree tree;
  tree.entries = std::move(entries);
  buildTree(tree);
  // Keep the list ordered largest first.
  auto pos = std::find_if(trees_.begin(), trees_.end(), [&](const Tree& t) {
    return t.entries.size() < tree.entries.size();
  });
  trees_.insert(pos, std::move(tree));
}

void SampleKdTree::buildTree(Tree& tree) {
  const size_t n = tree.entries.size();
  tree.nodes.clear();
  tree.nodes.reserve(n / (kLeafSize / 2) + 1);
  tree.root = buildChild(tree, 0, static_cast<uint32_t>(n), 0);
}

// Builds the subtree over entries [begin, end), inner nodes in preorder. Splits at the median of
// the positions along the widest axis of the positions, so the depth is log2(n / kLeafSize)
// whatever the data (many samples at one point included).
SampleKdTree::Child SampleKdTree::buildChild(Tree& tree, uint32_t begin, uint32_t end, int depth) {
  constexpr float inf = std::numeric_limits<float>::infinity();
  Child child{{inf, inf, inf}, {-inf, -inf, -inf}, begin, end - begin};
  float plo[3] = {inf, inf, inf}, phi[3] = {-inf, -inf, -inf};
  for (uint32_t i = begin; i < end; ++i) {
    const Entry& e = tree.entries[i];
    // Widened a little so that rounding in the box never drops a point the sphere test accepts.
    const float r = std::sqrt(e.r2) * 1.0001f;
    const float c[3] = {e.x, e.y, e.z};
    for (int a = 0; a < 3; ++a) {
      plo[a] = std::min(plo[a], c[a]);
      phi[a] = std::max(phi[a], c[a]);
      const float pad = r + std::abs(c[a]) * 1e-6f;
      child.lo[a] = std::min(child.lo[a], c[a] - pad);
      child.hi[a] = std::max(child.hi[a], c[a] + pad);
    }
  }
  const uint32_t count = end - begin;
  if (count <= kLeafSize || depth >= 60) return child;

  int axis = 0;
  for (int a = 1; a < 3; ++a) {
    if (phi[a] - plo[a] > phi[axis] - plo[axis]) axis = a;
  }
  const uint32_t mid = begin + count / 2;
  auto key = [axis](const Entry& e) { return axis == 0 ? e.x : (axis == 1 ? e.y : e.z); };
  std::nth_element(tree.entries.begin() + begin, tree.entries.begin() + mid,
                   tree.entries.begin() + end,
                   [&](const Entry& a, const Entry& b) { return key(a) < key(b); });

  const uint32_t index = static_cast<uint32_t>(tree.nodes.size());
  tree.nodes.emplace_back();
  const Child halves[2] = {buildChild(tree, begin, mid, depth + 1),
                           buildChild(tree, mid, end, depth + 1)};
  Node& node = tree.nodes[index];
  for (int k = 0; k < 2; ++k) {
    for (int a = 0; a < 3; ++a) {
      node.lo[k][a] = halves[k].lo[a];
      node.hi[k][a] = halves[k].hi[a];
    }
    node.first[k] = halves[k].first;
    node.count[k] = halves[k].count;
  }
  child.first = index;
  child.count = 0;
  return child;
}

}  // namespace LUtils
