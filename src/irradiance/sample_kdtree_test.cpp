#include "irradiance/sample_kdtree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace LUtils {
namespace {

IrradSample sphere(float x, float y, float z, float r) {
  IrradSample s{};
  s.position = {x, y, z};
  s.validRadius2 = r * r;
  return s;
}

// The samples the tree finds at p, sorted by address, or in the order it visits them.
std::vector<const IrradSample*> viaTree(const SampleKdTree& tree, const Vector& p,
                                        bool sorted = true) {
  std::vector<const IrradSample*> found;
  tree.forEachContaining(p, [&](IrradSample& s) { found.push_back(&s); });
  if (sorted) std::sort(found.begin(), found.end());
  return found;
}

std::vector<const IrradSample*> bruteForceRange(BlockSequence<IrradSample>& samples, size_t from,
                                                size_t to, const Vector& p) {
  std::vector<const IrradSample*> found;
  for (size_t i = from; i < to; ++i) {
    if (lengthSquared(p - samples[i].position) < samples[i].validRadius2) {
      found.push_back(&samples[i]);
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}
std::vector<const IrradSample*> bruteForce(BlockSequence<IrradSample>& samples, size_t count,
                                           const Vector& p) {
  return bruteForceRange(samples, 0, count, p);
}

// Random spheres clustered on a few planes (like surfaces of a room) with radii spanning two
// orders of magnitude, probed at random points, half of them right at sample positions.
class KdTreeAgainstBruteForce : public ::testing::Test {
 protected:
  void fill(size_t n) {
    std::uniform_real_distribution<float> u(-10.0f, 10.0f);
    std::uniform_real_distribution<float> logr(-2.5f, 0.0f);
    for (size_t i = 0; i < n; ++i) {
      const int plane = static_cast<int>(rng() % 4);
      Vector p{u(rng), u(rng), u(rng)};
      if (plane < 3) p[plane] = plane * 3.0f - 3.0f;
      samples.append(sphere(p.x, p.y, p.z, std::pow(10.0f, logr(rng))));
    }
  }
  Vector probe() {
    if (rng() % 2 && samples.size()) {
      const Vector& at = samples[rng() % samples.size()].position;
      std::normal_distribution<float> jitter(0.0f, 0.05f);
      return at + Vector{jitter(rng), jitter(rng), jitter(rng)};
    }
    std::uniform_real_distribution<float> u(-11.0f, 11.0f);
    return {u(rng), u(rng), u(rng)};
  }
  // Also checks that the probes walked all at once (walk()) find the samples in the order that
  // probing one at a time does, with the inserted samples' cells asked for ahead (half of them
  // with their entries too), and with cells asked for at the last check, before the index
  // changed.
  size_t checkProbes(const SampleKdTree& tree, size_t indexed, int probes) {
    size_t hits = 0;
    std::vector<Vector> points;
    std::vector<SampleKdTree::Probe> asked(probes);
    for (int k = 0; k < probes; ++k) {
      const Vector p = probe();
      points.push_back(p);
      const auto expected = bruteForce(samples, indexed, p);
      EXPECT_EQ(viaTree(tree, p), expected) << "probe " << k;
      hits += expected.size();
      tree.askInserted(p, asked[k]);
      if (k % 2) tree.askInsertedEntries(asked[k]);
    }
    std::vector<Vector> all = points;
    all.insert(all.end(), stalePoints_.begin(), stalePoints_.end());
    asked.insert(asked.end(), staleProbes_.begin(), staleProbes_.end());
    SampleKdTree::TreeWalks walks;
    tree.walk(all, walks);
    EXPECT_EQ(walks.generation(), tree.generation());
    for (size_t k = 0; k < all.size(); ++k) {
      std::vector<const IrradSample*> walked;
      tree.forEachContaining(all[k], walks.hitsOf(k), nullptr, k % 3 ? &asked[k] : nullptr,
                             [&](IrradSample& s) { walked.push_back(&s); });
      EXPECT_EQ(walked, viaTree(tree, all[k], false)) << "walked probe " << k;
    }
    stalePoints_ = points;
    staleProbes_.assign(asked.begin(), asked.begin() + probes);
    return hits;
  }
  std::vector<Vector> stalePoints_;
  std::vector<SampleKdTree::Probe> staleProbes_;

  std::mt19937 rng{12345};
  BlockSequence<IrradSample> samples{1000};
};

TEST_F(KdTreeAgainstBruteForce, BuiltTreeThenInsertsThenRebuild) {
  fill(5000);
  SampleKdTree tree(1000);  // folds the inserted samples into the tree from 1000 on
  tree.build(samples);
  EXPECT_EQ(tree.size(), 5000u);
  EXPECT_GT(checkProbes(tree, 5000, 400), 100u);  // the probes do find samples

  // Insert one at a time: the grid grows to half the tree's size, is folded in, starts again.
  fill(7000);
  for (size_t i = 5000; i < 12000; ++i) {
    tree.insert(samples[i]);
    if (i % 617 == 0) checkProbes(tree, i + 1, 20);
    if (i == 7499) {
      EXPECT_EQ(tree.insertedCount(), 0u);  // folded at 2500 inserted
    }
  }
  EXPECT_EQ(tree.size(), 12000u);
  EXPECT_EQ(tree.insertedCount(), 750u);  // and at 3750 more, half of 7500
  checkProbes(tree, 12000, 400);

  tree.build(samples);
  EXPECT_EQ(tree.size(), 12000u);
  EXPECT_EQ(tree.insertedCount(), 0u);
  checkProbes(tree, 12000, 200);
}

// Large enough that the rebuild makes its entries and builds subtrees on several threads; it
// gives the tree that one thread builds, visited in the same order, also where samples that no
// index can place leave gaps in the first half of the entries.
TEST_F(KdTreeAgainstBruteForce, LargeRebuild) {
  fill(3 * SampleKdTree::kParallelMinimum);
  for (size_t i = 5; i < samples.size() / 2; i += 997) {
    samples[i].validRadius2 = std::numeric_limits<float>::quiet_NaN();
  }
  SampleKdTree tree, again;
  tree.setBuildThreads(4);
  again.setBuildThreads(1);
  tree.build(samples);
  again.build(samples);
  EXPECT_EQ(tree.size(), samples.size() - (samples.size() / 2 - 5 + 996) / 997);
  EXPECT_GT(checkProbes(tree, samples.size(), 150), 100u);
  for (int k = 0; k < 50; ++k) {
    const Vector p = probe();
    EXPECT_EQ(viaTree(tree, p, false), viaTree(again, p, false));
  }
}

TEST_F(KdTreeAgainstBruteForce, InsertsIntoAnEmptyTree) {
  SampleKdTree tree;
  EXPECT_TRUE(viaTree(tree, {0, 0, 0}).empty());
  tree.build(samples);  // empty storage
  EXPECT_EQ(tree.size(), 0u);
  EXPECT_TRUE(viaTree(tree, {0, 0, 0}).empty());
  // Enough that every shard of the grid fills several chunks; then emptied, and filled again
  // from the chunks it kept.
  fill(30000);
  for (int round = 0; round < 2; ++round) {
    for (size_t i = 0; i < samples.size(); ++i) tree.insert(samples[i]);
    EXPECT_EQ(tree.insertedCount(), samples.size());
    checkProbes(tree, samples.size(), 300);
    tree.clear();
  }
}

TEST_F(KdTreeAgainstBruteForce, LoweredRadiiAreHonoured) {
  fill(3000);
  SampleKdTree tree(1000);
  tree.build(samples);
  for (size_t i = 0; i < samples.size(); i += 3) samples[i].validRadius2 *= 0.25f;
  checkProbes(tree, 3000, 300);
  // Inserted samples are lowered too, in the grid and after the fold that takes them and the
  // lowered tree samples into a new tree with the current radii.
  fill(4000);
  for (size_t i = 3000; i < 5000; ++i) tree.insert(samples[i]);
  for (size_t i = 1; i < 5000; i += 5) samples[i].validRadius2 = 0.0f;
  checkProbes(tree, 5000, 300);
  for (size_t i = 5000; i < 7000; ++i) tree.insert(samples[i]);
  EXPECT_LT(tree.insertedCount(), 2000u);  // folded again
  for (size_t i = 2; i < samples.size(); i += 7) samples[i].validRadius2 *= 0.5f;
  checkProbes(tree, 7000, 300);
}

// The parallel merge's batches: samples begun in an index are found, before they are listed,
// by queries given their CellBatch, in the order that inserting them one at a time gives; the
// batch's own test says whether any of them reaches a point, and its cell filter says "no" only
// where none does. Listed from the batch in two halves of the shards, as two threads would,
// they give that order too. Some cells take several hundred samples (a pile at one point), so
// that cells move to larger ranges on the way.
TEST_F(KdTreeAgainstBruteForce, BatchesAreFoundBeforeAndAfterListingInInsertionOrder) {
  fill(3000);
  for (int i = 0; i < 600; ++i) samples.append(sphere(1.0f, 2.0f, 3.0f, 0.5f + 1e-3f * (i % 7)));
  SampleKdTree direct, deferred;
  direct.build(samples);
  deferred.build(samples);
  fill(6000);
  for (int i = 0; i < 600; ++i) samples.append(sphere(1.0f, 2.0f, 3.0f, 0.5f + 1e-3f * (i % 5)));
  const size_t first = 3600;
  InsertionGrid::CellBatch batch;
  InsertionGrid::CellFilter filter;
  int rejected = 0;
  auto sameOrder = [&](const InsertionGrid::CellBatch* later, size_t from, size_t to) {
    for (int k = 0; k < 300; ++k) {
      const Vector p = k % 10 ? probe() : Vector{1.0f, 2.0f, 3.2f};
      std::vector<const IrradSample*> a, b;
      direct.forEachContaining(p, [&](IrradSample& s) { a.push_back(&s); });
      deferred.forEachContaining(p, later, [&](IrradSample& s) { b.push_back(&s); });
      ASSERT_EQ(a, b) << "probe " << k;
      if (!later) continue;
      const bool reached = !bruteForceRange(samples, from, to, p).empty();
      ASSERT_EQ(later->reaches(p), reached) << "probe " << k;
      if (!filter.mayContain(p)) {
        ASSERT_FALSE(reached) << "probe " << k;
        ++rejected;
      }
    }
  };
  for (size_t from = first; from < samples.size(); from += 1500) {
    const size_t to = std::min(samples.size(), from + 1500);
    batch.clear();
    filter.clear();
    for (size_t i = from; i < to; ++i) {
      direct.insert(samples[i]);
      SampleKdTree::Entry e;
      InsertionGrid::Box box;
      ASSERT_TRUE(deferred.beginInsert(samples[i], e, &box));
      batch.add(e, box, &filter);
    }
    EXPECT_EQ(deferred.insertedCount(), direct.insertedCount());
    sameOrder(&batch, from, to);
    deferred.listEntries(batch, 0x0F);
    deferred.listEntries(batch, ~0x0Fu);
    sameOrder(nullptr, from, to);
  }
  EXPECT_GT(rejected, 100);  // the probes away from the batch's spheres need no search
  EXPECT_EQ(deferred.insertedCount(), samples.size() - first);
  checkProbes(deferred, samples.size(), 200);
  filter.clear();
  EXPECT_TRUE(filter.empty());
  EXPECT_FALSE(filter.mayContain(samples[0].position));
}

// The one-thread merge's runs: samples begun and not yet listed, tested one by one
// (InsertionGrid::Unlisted), are visited where listing puts them, each on its level after the
// grid's own cell, also where the walks and probes of the points came before they were begun.
// Radii span several levels, and a pile at one point has samples on each.
TEST_F(KdTreeAgainstBruteForce, UnlistedSamplesAreVisitedWhereListingPutsThem) {
  fill(3000);
  SampleKdTree direct, deferred;
  direct.build(samples);
  deferred.build(samples);
  fill(5000);
  for (int i = 0; i < 400; ++i) {
    samples.append(sphere(1.0f, 2.0f, 3.0f, 0.05f * static_cast<float>(1 << (i % 6))));
  }
  std::vector<Vector> points(200);
  std::vector<SampleKdTree::Probe> probes(points.size());
  InsertionGrid::Unlisted unlisted;
  SampleKdTree::TreeWalks walks;
  for (size_t i = 3000; i < samples.size(); ++i) {
    if (i % 100 == 0) {  // points walked and probed now, looked up 100 samples on
      for (size_t k = 0; k < points.size(); ++k) {
        points[k] = k % 4 ? probe() : Vector{1.0f, 2.0f, 3.0f + 0.01f * float(k)};
        deferred.askInserted(points[k], probes[k]);
        if (k % 2) deferred.askInsertedEntries(probes[k]);
      }
      deferred.walk(points, walks);
    }
    direct.insert(samples[i]);
    SampleKdTree::Entry e;
    InsertionGrid::Box box;
    ASSERT_TRUE(deferred.beginInsert(samples[i], e, &box));
    unlisted.add(e, box);
    if (i % 100 != 99) continue;
    for (size_t k = 0; k < points.size(); ++k) {
      std::vector<const IrradSample*> found;
      deferred.forEachContaining(points[k], walks.hitsOf(k), &unlisted, &probes[k],
                                 [&](IrradSample& s) { found.push_back(&s); });
      ASSERT_EQ(found, viaTree(direct, points[k], false)) << "sample " << i << ", point " << k;
    }
    if (i % 200 == 199) {
      deferred.listEntries(unlisted);
      unlisted.clear();
    }
  }
}

// Containment is strict, also for a pile of 10000 samples at one point.
TEST(SampleKdTree, ContainmentIsStrictAndPilesAreFoundWhole) {
  BlockSequence<IrradSample> samples;
  samples.append(sphere(0, 0, 0, 2.0f));  // radius^2 is exactly 4
  for (int i = 0; i < 10000; ++i) samples.append(sphere(10, 2, 3, 0.5f));
  SampleKdTree tree;
  tree.build(samples);
  EXPECT_EQ(viaTree(tree, {1.999f, 0, 0}).size(), 1u);
  EXPECT_TRUE(viaTree(tree, {2.0f, 0, 0}).empty());
  EXPECT_TRUE(viaTree(tree, {0, 0, -2.0f}).empty());
  EXPECT_EQ(viaTree(tree, {10, 2, 3.4f}).size(), 10000u);
  EXPECT_TRUE(viaTree(tree, {10, 2, 3.5f}).empty());

  // sqrt(2)^2 rounds to the float below 2: the sample's own test takes that point, so the index's
  // bound must not drop it, neither in the tree nor in the grid.
  samples.clear();
  samples.append(sphere(0, 0, 0, 1.0f));
  samples[0].validRadius2 = 2.0f;
  const float x = std::sqrt(2.0f);
  ASSERT_LT(x * x, 2.0f);
  tree.build(samples);
  EXPECT_EQ(viaTree(tree, {x, 0, 0}).size(), 1u);
  tree.clear();
  tree.insert(samples[0]);
  EXPECT_EQ(viaTree(tree, {0, x, 0}).size(), 1u);
}

// The samples no index can place (a NaN or infinite coordinate or radius, a radius that is zero
// or negative) are found by no query, whether built into the tree or inserted into the grid;
// finite positions at the extremes are all found: spans beyond the float range (-3e38 and 3e38)
// and below its resolution (a denormal apart), each with more samples than a leaf holds, so that
// the split search runs over them. Probes at every centre and just inside and outside each sphere.
TEST(SampleKdTree, SamplesNoIndexCanPlace) {
  constexpr float nan = std::numeric_limits<float>::quiet_NaN();
  constexpr float inf = std::numeric_limits<float>::infinity();
  auto damaged = [&](BlockSequence<IrradSample>& samples) {
    samples.append(sphere(0, 0, 0, 0.0f));
    samples.append(sphere(nan, 0, 0, 1.0f));
    samples.append(sphere(0, -inf, 0, 1.0f));
    for (float r2 : {nan, inf, -1.0f}) {
      IrradSample s = sphere(0.5f, 0, 0, 1.0f);
      s.validRadius2 = r2;
      samples.append(s);
    }
    samples.append(sphere(-3e30f, 1e30f, 0, 1e29f));  // the square of the radius overflows
  };
  std::vector<std::vector<IrradSample>> sets(3);
  for (int i = 0; i < 20; ++i) {
    sets[0].push_back(sphere(i % 2 ? 3e38f : -3e38f, static_cast<float>(i), 0, 0.75f));
  }
  sets[0].push_back(sphere(3.4e38f, 0, 0, 1e18f));  // its bounds pass the float limit
  for (int i = 0; i < 16; ++i) sets[1].push_back(sphere(0, 0, 0, 1e-20f));
  sets[1].push_back(sphere(1e-40f, 0, 0, 1e-20f));
  sets[1].push_back(sphere(0, 0, 2e-45f, 1e-3f));

  for (int i = 0; i < 40; ++i) sets[2].push_back(sphere(static_cast<float>(i), 0, 0, 0.6f));

  for (size_t set = 0; set < sets.size(); ++set) {
    BlockSequence<IrradSample> samples;
    damaged(samples);
    const size_t firstGood = samples.size();
    for (const IrradSample& s : sets[set]) samples.append(s);
    damaged(samples);
    std::vector<Vector> probes = {{0, 0, 0}, {0.5f, 0, 0}, {nan, 0, 0}, {inf, 0, 0}};
    std::vector<float> scales = {0.0f, 0.999f};
    for (float f = 1.0f; f < 1.3f; f += 0.01f) scales.push_back(f);
    for (size_t i = firstGood; i < firstGood + sets[set].size(); ++i) {
      const IrradSample& s = samples[i];
      for (float f : scales) {
        for (int a = 0; a < 3; ++a) {
          for (float sign : {-1.0f, 1.0f}) {
            Vector p = s.position;
            p[a] += sign * f * std::sqrt(s.validRadius2);
            probes.push_back(p);
          }
        }
      }
    }
    auto placedOnly = [&](const Vector& p) {
      std::vector<const IrradSample*> found;
      for (size_t i = firstGood; i < firstGood + sets[set].size(); ++i) {
        if (lengthSquared(p - samples[i].position) < samples[i].validRadius2) {
          found.push_back(&samples[i]);
        }
      }
      std::sort(found.begin(), found.end());
      return found;
    };

    SampleKdTree built, inserted;
    built.build(samples);
    for (size_t i = 0; i < samples.size(); ++i) inserted.insert(samples[i]);
    EXPECT_EQ(built.size(), sets[set].size());
    EXPECT_EQ(inserted.insertedCount(), sets[set].size());
    size_t hits = 0;
    for (const Vector& p : probes) {
      const auto expected = placedOnly(p);
      hits += expected.size();
      ASSERT_EQ(viaTree(built, p), expected) << "set " << set << " at " << p.x << " " << p.y;
      ASSERT_EQ(viaTree(inserted, p), expected) << "set " << set << " at " << p.x << " " << p.y;
    }
    EXPECT_GT(hits, sets[set].size());
  }
}

// Inserted samples where the grid's arithmetic is tight: spheres whose boxes end exactly on cell
// borders, tiny radii far from the origin, cells 2^18 apart that share a list, radii from 1e-18
// to 1e18. Probes just inside and just outside each sphere along every axis.
TEST(SampleKdTree, InsertedSamplesAtTheGridsLimits) {
  BlockSequence<IrradSample> samples;
  samples.append(sphere(0, 0, 0, 1.0f));
  samples.append(sphere(2, 2, 2, 2.0f));
  samples.append(sphere(-4, 4, -4, 0.5f));
  samples.append(sphere(1e6f, -1e6f, 3.0f, 1e-3f));
  samples.append(sphere(4.0f * 262144.0f, 0, 0, 0.5f));  // shares a cell with (0, 0, 0)
  samples.append(sphere(-3e30f, 1e30f, 0, 1e18f));
  samples.append(sphere(1e-20f, 0, 0, 1e-18f));

  SampleKdTree tree;
  for (size_t i = 0; i < samples.size(); ++i) tree.insert(samples[i]);
  EXPECT_EQ(tree.insertedCount(), samples.size());
  for (size_t i = 0; i < samples.size(); ++i) {
    const IrradSample& s = samples[i];
    const float r = std::sqrt(s.validRadius2);
    for (float f : {0.0f, 0.999f, 0.99999f, 1.0f, 1.00001f}) {
      for (int a = 0; a < 3; ++a) {
        for (float sign : {-1.0f, 1.0f}) {
          Vector p = s.position;
          p[a] += sign * f * r;
          EXPECT_EQ(viaTree(tree, p), bruteForce(samples, samples.size(), p))
              << "sample " << i << " f " << f << " axis " << a;
        }
      }
    }
  }
}

}  // namespace
}  // namespace LUtils
