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

// The samples no index can place (a NaN or infinite coordinate or radius, a radius that is zero
// or negative) are in no leaf and found by no query, with a tree or without one (a single
// sample); they stay in the map. Finite positions at the extremes are all found: a span beyond
// the float range and one a denormal wide, each larger than a leaf.
TEST(LightMapTree, SamplesNoIndexCanPlace) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  auto damaged = [&](LightMap& map) {
    for (float r2 : {-1.0f, 0.0f, nan, inf}) {
      LightMapSample* s = map.insertSample();
      s->radiusSquared = r2;
    }
    for (LUtils::Vector p : {LUtils::Vector{0, nan, 0}, LUtils::Vector{0, 0, inf}}) {
      LightMapSample* s = map.insertSample();
      s->position = p;
      s->radiusSquared = 1.0f;
    }
  };
  using Set = std::vector<std::pair<LUtils::Vector, float>>;  // centre, radius
  std::vector<Set> sets(4);
  for (int i = 0; i < 12; ++i) sets[0].push_back({{i % 2 ? 3e38f : -3e38f, float(i), 0}, 0.75f});
  sets[0].push_back({{3.4e38f, 0, 0}, 1e18f});
  for (int i = 0; i < 16; ++i) sets[1].push_back({{0, 0, 0}, 1e-20f});
  sets[1].push_back({{1e-40f, 0, 0}, 1e-20f});

  for (int i = 0; i < 50; ++i) sets[2].push_back({{i * 0.02f, 0.5f, 0.5f}, 0.05f});
  sets[3].push_back({{0.25f, 0, 0}, 0.5f});  // one sample: no tree, a scan
  // Squared radii of sixty times the smallest float: squares of distances near the radius round
  // by a good part of it, so points beyond the radius pass the test (found by fuzzing).
  sets.emplace_back();
  const float tiny = std::sqrt(60 * 0x1p-149f), off = -3.72535e-27f;
  for (int i = 0; i < 12; ++i) {
    sets[4].push_back({i % 2 ? LUtils::Vector{off, off, off} : LUtils::Vector{}, tiny});
  }

  for (size_t set = 0; set < sets.size(); ++set) {
    LightMap map;
    damaged(map);
    std::vector<LightMapSample*> good;
    for (const auto& [c, r] : sets[set]) {
      LightMapSample* s = map.insertSample();
      s->position = c;
      s->radiusSquared = r * r;
      good.push_back(s);
    }
    if (set != 3) damaged(map);
    map.rebuildTree();
    EXPECT_EQ(map.sampleCount(), good.size() + (set != 3 ? 12 : 6));
    auto inTree = treeSamples(map);
    std::sort(inTree.begin(), inTree.end());
    if (set != 3) {
      EXPECT_EQ(inTree, std::vector<const LightMapSample*>(good.begin(), good.end()));
    }

    std::vector<LUtils::Vector> probes = {{0, 0, 0}, {inf, 0, 0}, {nan, 0, 0}};
    std::vector<float> scales = {0.0f, 0.999f};
    for (float f = 1.0f; f < 1.3f; f += 0.01f) scales.push_back(f);
    for (const LightMapSample* s : good) {
      for (float f : scales) {
        for (int a = 0; a < 3; ++a) {
          for (float sign : {-1.0f, 1.0f}) {
            LUtils::Vector p = s->position;
            p[a] += sign * f * s->radius();
            probes.push_back(p);
          }
        }
      }
    }
    size_t hits = 0;
    for (const LUtils::Vector& p : probes) {
      std::vector<LightMapSample*> expected;
      for (LightMapSample* s : good) {
        if (s->sphereContains(p)) expected.push_back(s);
      }
      std::sort(expected.begin(), expected.end());
      hits += expected.size();
      ASSERT_EQ(treeHits(map, p, nullptr), expected) << "set " << set << " at " << p.x;
    }
    EXPECT_GT(hits, good.size());
  }
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
