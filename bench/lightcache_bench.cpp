// The light cache's sphere tree on five million samples: build time and point queries per second,
// each set against a brute-force reference measured in the same run (a linear pass over all
// samples for the build, a scan of a 50,000-sample subset for the queries).
#include <benchmark/benchmark.h>

#include <chrono>
#include <random>
#include <vector>

#include "lightcache/light_map.h"

namespace {

constexpr size_t kSamples = 5000000;
constexpr size_t kSubset = 50000;

// Samples spread through the unit cube, each sphere reaching about twenty neighbours.
LightMap& bigCache() {
  static LightMap* map = [] {
    auto* m = new LightMap;
    std::mt19937 rng(42);
    std::uniform_real_distribution<float> u(0.0f, 1.0f), ur(0.005f, 0.015f);
    for (size_t i = 0; i < kSamples; ++i) {
      LightMapSample* s = m->insertSample();
      s->position = {u(rng), u(rng), u(rng)};
      s->normal = s->normalB = {0.0f, 0.0f, 1.0f};
      const float r = ur(rng);
      s->radiusSquared = r * r;
    }
    m->rebuildTree();
    return m;
  }();
  return *map;
}

std::vector<LUtils::Vector> randomPoints(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<LUtils::Vector> points(n);
  for (auto& p : points) p = {u(rng), u(rng), u(rng)};
  return points;
}

class CountHits : public LightMapStoreCb {
 public:
  int store(LightMapSample&) override {
    ++hits;
    return 1;
  }
  size_t hits = 0;
};

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void BM_TreeBuild(benchmark::State& state) {
  LightMap& map = bigCache();
  double build = 0.0, scan = 0.0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    map.rebuildTree();
    build += seconds(t0);

    // Reference: one pass over every sample with the sphere test.
    state.PauseTiming();
    t0 = std::chrono::steady_clock::now();
    size_t inside = 0;
    const LUtils::Vector p(0.5f, 0.5f, 0.5f);
    map.samples().forEach(0, [&](LightMapSample& s) { return inside += s.sphereContains(p), true; });
    benchmark::DoNotOptimize(inside);
    scan += seconds(t0);
    state.ResumeTiming();
  }
  state.counters["samples_per_s"] = double(kSamples) * double(state.iterations()) / build;
  state.counters["build_in_linear_passes"] = build / scan;
  state.counters["depth"] = map.treeDepth();
  state.counters["nodes"] = double(map.nodes().size());
}
BENCHMARK(BM_TreeBuild)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_QueryVersusBruteForce(benchmark::State& state) {
  LightMap& map = bigCache();
  const auto points = randomPoints(20000, 7);
  double treeTime = 0.0, bruteTime = 0.0;
  size_t treeQueries = 0, bruteQueries = 0, hits = 0;
  for (auto _ : state) {
    auto t0 = std::chrono::steady_clock::now();
    CountHits count;
    for (const auto& p : points) map.query(p, nullptr, count);
    treeTime += seconds(t0);
    treeQueries += points.size();
    hits += count.hits;

    // Reference: every sample of a 50,000-sample subset tested for a few hundred points.
    t0 = std::chrono::steady_clock::now();
    size_t inside = 0;
    for (size_t q = 0; q < 200; ++q) {
      const auto& p = points[q];
      for (size_t i = 0; i < kSubset; ++i) inside += map.samples()[i].sphereContains(p);
    }
    benchmark::DoNotOptimize(inside);
    bruteTime += seconds(t0);
    bruteQueries += 200;
  }
  const double treeRate = double(treeQueries) / treeTime;
  const double bruteRate = double(bruteQueries) / bruteTime;
  state.counters["tree_5M_queries_per_s"] = treeRate;
  state.counters["brute_50k_queries_per_s"] = bruteRate;
  state.counters["tree_over_brute"] = treeRate / bruteRate;
  state.counters["hits_per_query"] = double(hits) / double(treeQueries);
}
BENCHMARK(BM_QueryVersusBruteForce)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
