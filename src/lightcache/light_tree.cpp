// Building and querying the light cache's bounding-volume hierarchy over the sample spheres.
#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <vector>

#include "io/placement.h"
#include "lightcache/light_map.h"

namespace {

// Middle splits stop at this depth; below it every split is a median split, which halves the
// samples, so no tree is deeper than kMiddleDepthLimit + 32 levels.
constexpr uint32_t kMiddleDepthLimit = 48;
constexpr uint32_t kMaxDepth = kMiddleDepthLimit + 33;
constexpr float kInf = std::numeric_limits<float>::infinity();

// A sample as the build sees it: its centre and (widened) radius next to each other, so that
// the partitioning never touches the 120-byte samples.
struct BuildItem {
  float c[3];
  float r;
  LightMapSample* sample;
};

class TreeBuilder {
 public:
  TreeBuilder(LUtils::BlockSequence<LightMapNode>& nodes, int32_t parameter)
      : nodes_(nodes), middleAbove_(parameter > 0 ? size_t(parameter) : 0) {}

  // Returns null when a node cannot be allocated.
  LightMapNode* build(BuildItem* items, size_t n, const float lo[3], const float hi[3],
                      uint32_t depth) {
    LightMapNode* node = nodes_.append();
    if (!node) return nullptr;
    depth_ = std::max(depth_, depth + 1);
    if (n <= LightMapNode::kLeafSize) {
      makeLeaf(*node, items, n);
      return node;
    }

    // Spans and the middle in double: the span of two finite floats may overflow float.
    int axis = 0;
    for (int a = 1; a < 3; ++a) {
      if (double{hi[a]} - lo[a] > double{hi[axis]} - lo[axis]) axis = a;
    }
    size_t mid = 0;
    if (n > middleAbove_ && depth < kMiddleDepthLimit && hi[axis] > lo[axis]) {
      const double split = 0.5 * (double{lo[axis]} + double{hi[axis]});
      mid = size_t(std::partition(items, items + n,
                                  [&](const BuildItem& it) { return it.c[axis] < split; }) -
                   items);
    }
    if (mid == 0 || mid == n) {
      mid = n / 2;
      std::nth_element(items, items + mid, items + n, [&](const BuildItem& a, const BuildItem& b) {
        return a.c[axis] < b.c[axis];
      });
    }

    float loL[3], hiL[3], loR[3], hiR[3];
    centreBox(items, mid, loL, hiL);
    centreBox(items + mid, n - mid, loR, hiR);
    LightMapNode* left = build(items, mid, loL, hiL, depth + 1);
    if (!left) return nullptr;
    LightMapNode* right = build(items + mid, n - mid, loR, hiR, depth + 1);
    if (!right) return nullptr;
    node->count = 0;
    node->child[0] = left;
    node->child[1] = right;
    for (int a = 0; a < 3; ++a) {
      node->lo[a] = std::min(left->lo[a], right->lo[a]);
      node->hi[a] = std::max(left->hi[a], right->hi[a]);
    }
    return node;
  }

  static void centreBox(const BuildItem* items, size_t n, float lo[3], float hi[3]) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = kInf;
      hi[a] = -kInf;
    }
    for (size_t i = 0; i < n; ++i) {
      for (int a = 0; a < 3; ++a) {
        lo[a] = std::min(lo[a], items[i].c[a]);
        hi[a] = std::max(hi[a], items[i].c[a]);
      }
    }
  }

  uint32_t depth() const { return depth_; }

 private:
  static void makeLeaf(LightMapNode& node, const BuildItem* items, size_t n) {
    node.count = uint32_t(n);
    for (int a = 0; a < 3; ++a) {
      node.lo[a] = kInf;
      node.hi[a] = -kInf;
    }
    for (size_t i = 0; i < n; ++i) {
      node.samples[i] = items[i].sample;
      for (int a = 0; a < 3; ++a) {
        // One step outwards covers the rounding of the sum.
        node.lo[a] = std::min(node.lo[a], std::nextafter(items[i].c[a] - items[i].r, -kInf));
        node.hi[a] = std::max(node.hi[a], std::nextafter(items[i].c[a] + items[i].r, kInf));
      }
    }
  }

  LUtils::BlockSequence<LightMapNode>& nodes_;
  size_t middleAbove_;
  uint32_t depth_ = 0;
};


}  // namespace

void LightMap::buildTree() {
  std::vector<BuildItem> items;
  try {
    items.reserve(samples_.size());
  } catch (const std::bad_alloc&) {
    LUtils::reportBlockAllocationFailure();
    return;  // no tree: queries scan the samples
  }
  float lo[3] = {kInf, kInf, kInf};
  float hi[3] = {-kInf, -kInf, -kInf};
  samples_.forEach(0, [&](LightMapSample& s) {
    // The samples no index can place (io/placement.h) stay out of the tree.
    if (!LUtils::placeable(s.position, s.radiusSquared)) return true;
    // Widened so that the box covers every point the float sphere test accepts.
    const float r = LUtils::boundingRadius(s.radiusSquared);
    items.push_back({{s.position.x, s.position.y, s.position.z}, r, &s});
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], s.position[a]);
      hi[a] = std::max(hi[a], s.position[a]);
    }
    return true;
  });
  if (items.empty()) return;

  std::lock_guard<LUtils::SpinningMutex> guard(nodes_.lock());
  TreeBuilder builder(nodes_, treeParameter_);
  LightMapNode* root = builder.build(items.data(), items.size(), lo, hi, 0);
  if (!root) {
    nodes_.clear();  // a partial tree would miss samples; scanning finds them all
    return;
  }
  root_ = root;
  treeState_ = builder.depth();
}

size_t LightMap::query(const LUtils::Vector& p, LightMapFilter* filter, LightMapStoreCb& store) {
  size_t stored = 0;
  bool goOn = true;
  // The scan without a tree applies the tree's rule, so that both answer the same.
  auto offer = [&](LightMapSample& s) {
    if (s.sphereContains(p) && LUtils::placeable(s.position, s.radiusSquared) &&
        (!filter || filter->accept(s))) {
      ++stored;
      goOn = store.store(s) != 0;
    }
    return goOn;
  };

  if (!root_) {
    size_t left = indexed_;
    samples_.forEach(0, [&](LightMapSample& s) { return left-- > 0 && offer(s); });
    return stored;
  }

  const LightMapNode* stack[kMaxDepth];
  size_t top = 0;
  const LightMapNode* node = root_;
  for (;;) {
    if (node->boxContains(p.x, p.y, p.z)) {
      if (!node->isLeaf()) {
        stack[top++] = node->child[1];
        node = node->child[0];
        continue;
      }
      for (uint32_t i = 0; i < node->count; ++i) {
        if (!offer(*node->samples[i])) return stored;
      }
    }
    if (top == 0) return stored;
    node = stack[--top];
  }
}
