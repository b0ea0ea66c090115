#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "lightcache/light_map.h"
#include "lightcache/light_test_util.h"

namespace {

class Collect : public LightMapStoreCb {
 public:
  int store(LightMapSample& s) override {
    found.push_back(&s);
    return 1;
  }
  std::vector<LightMapSample*> found;
};

std::vector<LightMapSample*> treeHits(LightMap& map, const LUtils::Vector& p,
                                      LightMapFilter* filter) {
  Collect c;
  const size_t n = map.query(p, filter, c);
  EXPECT_EQ(n, c.found.size());
  std::sort(c.found.begin(), c.found.end());
  return c.found;
}

std::vector<LightMapSample*> bruteHits(LightMap& map, const LUtils::Vector& p,
                                       LightMapFilter* filter) {
  std::vector<LightMapSample*> hits;
  map.samples().forEach(0, [&](LightMapSample& s) {
    if (s.sphereContains(p) && (!filter || filter->accept(s))) hits.push_back(&s);
    return true;
  });
  std::sort(hits.begin(), hits.end());
  return hits;
}

// The samples in the tree's leaves, in address order; a sample held twice appears twice.
std::vector<const LightMapSample*> treeSamples(const LightMap& map) {
  std::vector<const LightMapSample*> out;
  std::vector<const LightMapNode*> stack;
  if (map.treeRoot()) stack.push_back(map.treeRoot());
  while (!stack.empty()) {
    const LightMapNode* node = stack.back();
    stack.pop_back();
    if (node->isLeaf()) {
      out.insert(out.end(), node->samples, node->samples + node->count);
    } else {
      stack.insert(stack.end(), node->child, node->child + 2);
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

enum class Layout { kUniform, kClusters, kSamePoint, kMixedRadii };

// Random spheres in the unit cube; each layout stresses a different split.
void fill(LightMap& map, size_t n, Layout layout, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::normal_distribution<float> g(0.0f, 0.002f);
  std::vector<LUtils::Vector> centres;
  for (int i = 0; i < 5; ++i) centres.push_back({u(rng), u(rng), u(rng)});
  for (size_t i = 0; i < n; ++i) {
    LightMapSample* s = map.insertSample();
    float r = 0.05f * u(rng);
    switch (layout) {
      case Layout::kUniform:
        s->position = {u(rng), u(rng), u(rng)};
        break;
      case Layout::kClusters: {
        const LUtils::Vector& c = centres[i % centres.size()];
        s->position = {c.x + g(rng), c.y + g(rng), c.z + g(rng)};
        r = 0.004f * u(rng);
        break;
      }
      case Layout::kSamePoint:
        s->position = {0.5f, 0.5f, 0.5f};
        r = 0.3f * u(rng);
        break;
      case Layout::kMixedRadii:
        s->position = {u(rng), u(rng), u(rng)};
        if (i % 97 == 0) r = 2.0f;
        break;
    }
    s->radiusSquared = r * r;
    s->normal = {u(rng) - 0.5f, u(rng) - 0.5f, u(rng) - 0.5f};
  }
}

std::vector<LUtils::Vector> queryPoints(LightMap& map, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(-0.1f, 1.1f);
  std::vector<LUtils::Vector> points;
  for (int i = 0; i < 150; ++i) points.push_back({u(rng), u(rng), u(rng)});
  // Sample centres, and points right on sphere surfaces, where rounding decides.
  for (size_t i = 0; i < map.sampleCount(); i += 1 + map.sampleCount() / 50) {
    const LightMapSample& s = map.samples()[i];
    points.push_back(s.position);
    float x = s.position.x + std::sqrt(s.radiusSquared);
    float y = s.position.y - std::sqrt(s.radiusSquared);
    for (int k = 0; k < 3; ++k, x = std::nextafter(x, 2.0f), y = std::nextafter(y, -2.0f)) {
      points.push_back({x, s.position.y, s.position.z});
      points.push_back({s.position.x, y, s.position.z});
    }
  }
  return points;
}

TEST(LightMapTree, QueriesEqualABruteForceScan) {
  const size_t sizes[] = {0, 1, 2, 5, 1000, 25000};  // the last spans two blocks
  const Layout layouts[] = {Layout::kUniform, Layout::kClusters, Layout::kSamePoint,
                            Layout::kMixedRadii};
  const int32_t parameters[] = {500, 0, std::numeric_limits<int32_t>::max()};
  uint32_t seed = 1;
  for (size_t n : sizes) {
    for (Layout layout : layouts) {
      for (int32_t parameter : parameters) {
        SCOPED_TRACE(testing::Message() << "n " << n << " layout " << int(layout) << " parameter "
                                        << parameter);
        LightMap map;
        map.setTreeParameter(parameter);
        fill(map, n, layout, ++seed);
        map.rebuildTree();
        EXPECT_EQ(map.treeRoot() != nullptr, n >= 2);
        EXPECT_LE(map.treeDepth(), 81u);
        // Every sample sits in exactly one leaf.
        const auto inTree = treeSamples(map);
        EXPECT_EQ(inTree.size(), n >= 2 ? n : 0);
        EXPECT_EQ(std::adjacent_find(inTree.begin(), inTree.end()), inTree.end());
        LightMapSampleFilter facing({0.3f, -0.2f, 0.9f});
        size_t total = 0;
        for (const LUtils::Vector& p : queryPoints(map, seed)) {
          const auto expected = bruteHits(map, p, nullptr);
          total += expected.size();
          ASSERT_EQ(treeHits(map, p, nullptr), expected);
          ASSERT_EQ(treeHits(map, p, &facing), bruteHits(map, p, &facing));
        }
        if (n >= 1000) {
          EXPECT_GT(total, 0u);  // the queries did meet spheres
        }
      }
    }
  }
}

TEST(LightMapTree, SamplesThatContainNothingAreLeftOut) {
  LightMap map;
  fill(map, 200, Layout::kUniform, 7);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  map.samples()[3].radiusSquared = -1.0f;
  map.samples()[4].radiusSquared = nan;
  map.samples()[5].position.y = nan;
  map.samples()[6].position.z = inf;
  map.samples()[7].radiusSquared = inf;  // contains every finite point
  map.samples()[8].radiusSquared = 0.0f;  // contains its own centre only
  map.rebuildTree();

  // Samples 3 to 6 contain no point and are left out; every other one sits in exactly one leaf.
  std::vector<const LightMapSample*> expected;  // one block: index order is address order
  for (size_t i = 0; i < 200; ++i) {
    if (i < 3 || i > 6) expected.push_back(&map.samples()[i]);
  }
  EXPECT_EQ(treeSamples(map), expected);

  for (const LUtils::Vector& p : queryPoints(map, 8)) ASSERT_EQ(treeHits(map, p, nullptr),
                                                                bruteHits(map, p, nullptr));
  EXPECT_EQ(treeHits(map, {50.0f, -3.0f, 9.0f}, nullptr),
            std::vector<LightMapSample*>{&map.samples()[7]});
  EXPECT_EQ(treeHits(map, {inf, 0.0f, 0.0f}, nullptr), std::vector<LightMapSample*>{});
}

TEST(LightMapTree, InsertedSamplesWaitForTheRebuild) {
  LightMap map;
  fill(map, 10, Layout::kUniform, 11);
  map.rebuildTree();
  EXPECT_FALSE(map.needsRebuild());
  LightMapSample* s = map.insertSample();
  s->position = {3.0f, 3.0f, 3.0f};
  s->radiusSquared = 1.0f;
  EXPECT_TRUE(map.needsRebuild());
  EXPECT_TRUE(treeHits(map, {3.0f, 3.0f, 3.0f}, nullptr).empty());
  map.rebuildTree();
  EXPECT_EQ(treeHits(map, {3.0f, 3.0f, 3.0f}, nullptr), std::vector<LightMapSample*>{s});
  map.clear();
  EXPECT_EQ(map.sampleCount(), 0u);
  EXPECT_EQ(map.treeRoot(), nullptr);
  EXPECT_TRUE(treeHits(map, {3.0f, 3.0f, 3.0f}, nullptr).empty());
}

}  // namespace
