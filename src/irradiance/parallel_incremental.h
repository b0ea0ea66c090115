// The incremental merge on several threads, with exactly the result of one.
//
// The source is offered in batches of consecutive samples. Every sample of a batch is looked up
// on the workers (read side of the map's lock while the map is multi-threaded, each worker under
// its own thread index): each keeps its candidates and the lookup's decision. Then the calling
// thread commits the batch in source order, as the one-thread merge would have offered it. While
// it commits one batch, the workers already look up the next one against the map as it stood
// when that commit began: the static tree and the grid's cells do not change during a commit
// (the commit only begins its samples in the index; see below), and radii only shrink, read and
// lowered as relaxed atomics. A sample keeps the decision of its parallel lookup only when the
// map, seen from its point, is still what that lookup saw:
//   - no candidate it collected had its radius lowered by the commit its lookup overlapped, nor
//     by an earlier sample of its own batch (a lowered radius changes a weight or drops the
//     candidate; one that the lookup already saw lowered was dropped for good, since radii never
//     grow), and
//   - no sample stored by that commit, nor earlier in its own batch, reaches its point (it would
//     be a candidate), and
//   - the index was not folded into a new tree since its lookup began (the candidates would come
//     in another order, and the order decides ties and the last bits of the sums): a fold during
//     a commit stops the next batch's lookups, which are then made again once the commit is
//     done.
// Otherwise the sample is looked up again, there and then, against the map as it is. A kept
// decision to store the sample goes through the lookup's own storing step with the collected
// candidates, so the stored record, its place in the storage and index, and the radii lowered
// are those of the one-thread merge: the map comes out the same, byte for byte. A multi-threaded
// map (one that the viewer draws meanwhile) is looked up and committed in turns, never at once.
//
// The commit stores a kept sample and begins it in the index (counted, placed on its level), but
// leaves its listing in the index's grid cells, the costly part, to the end of the batch. The
// commit finds each sample's cells as it begins it, dealt to the grid's shards in source order;
// then the workers and the calling thread list them, a shard at a time, each thread its own shards
// first (the same shards batch after batch, whose tables stay in its cache), so that each cell
// lists its samples in the order the one-thread merge inserts them, whatever the number of threads;
// and they check the next batch's lookups against what the commit stored and lowered. Both checks
// first ask a filter of the cells that the stored samples and the lowered radii (as they were
// before the lowering) cover: most points lie in none, and only the others compare their candidates
// and search the stored samples. Until the listing the batch of cells that the commit fills indexes
// the stored samples itself, by cell: it answers the "reaches its point" check, and a lookup made
// again at commit searches its cell after the map's on every level, which finds the samples in the
// order the one-thread merge's grid would list them. When the index folds its grid into a new tree
// (where the one-thread merge would: right after the insertion that fills it), the samples begun so
// far are listed first.
//
// Where the lookups of the next batch overlap the commit, they read that batch from the source
// too (the first thread to take them; the others wait for it), so that the calling thread only
// commits.
//
// The workers are the calling thread and threadCount - 1 workers of the thread manager, taken for
// the whole merge. Every job (the lookups, the listing, the checks) is handed out in parts that any
// of them may take, and the calling thread waits only for workers that began one: a worker that
// comes late, its core busy with another program, leaves its share to the others instead of holding
// the merge up. What stays on the calling thread alone is the storing of the kept samples and the
// checks above, so the gain shrinks as the share of kept samples grows. A batch that keeps much of
// what it is offered has more of its later samples reached by earlier ones, and each of those is
// looked up twice; so the batches are sized from how many samples the last one kept: about
// kTargetKeptPerThread kept samples per thread, between kMinPerThread and kMaxPerThread samples per
// thread. (Frames of the synthesised room look up again 20 to 75 samples in batches of 5,000 to
// 13,000.) The candidates of the two batches in hand are kept as their samples alone, 8 bytes each,
// and the pending grid entries take 24 bytes per kept sample: a few MB per thread at most.
#pragma once

#include <cstdint>

namespace LUtils {

class DefIrradianceMap;
class IrradianceMap;
class ProgressCallback;
class ThreadManager;

// What one parallel merge did, for benchmarks and tests.
struct ParallelAddStats {
  uint64_t batches = 0;
  uint64_t offered = 0;
  uint64_t kept = 0;
  uint64_t redone = 0;  // samples looked up again at commit
  // Batches looked up again whole, after a fold during the commit before.
  uint64_t relookedBatches = 0;
  double lookupSeconds = 0.0;  // wall time of the parallel lookups not overlapped by a commit
  // Wall time of the commits, reading the source included where the commit reads it (the
  // lookups of a batch that overlap the commit before read it themselves).
  double commitSeconds = 0.0;
  double lookupCpuSeconds = 0.0;  // CPU time of the parallel lookups, every worker's summed
  double commitCpuSeconds = 0.0;  // CPU time of the calling thread outside the lookups
  // Wall time of listing the kept samples in the grid, and of checking the next batch's lookups
  // against the commit that they overlapped.
  double listSeconds = 0.0;
  double listCpuSeconds = 0.0;  // CPU time of the listing and checks, every worker's summed
  // Wall time of folding the index into a new tree, part of the commits': the workers wait
  // meanwhile, and the build takes as many threads as the merge.
  double foldSeconds = 0.0;
  // Wall time the calling thread waited for workers to finish their parts of the lookups, the
  // listing and the checks, once its own were done.
  double waitSeconds = 0.0;
};

namespace parallel_incremental {
inline constexpr uint32_t kMinPerThread = 64;
inline constexpr uint32_t kMaxPerThread = 16384;
inline constexpr uint32_t kTargetKeptPerThread = 1024;
}  // namespace parallel_incremental

// Offers the first `count` samples of `source` (not `map` itself) to `map`'s incremental merge
// with `threadCount` lookups at once on `threads`, advancing `progress` (may be null) after every
// sample, in order, from the calling thread, as the one-thread merge does; the caller starts and
// finishes the progress. Workers that cannot be started leave their share to the others, or to
// the calling thread.
ParallelAddStats addIncrementallyInParallel(DefIrradianceMap& map, IrradianceMap& source,
                                            int32_t count, ProgressCallback* progress,
                                            ThreadManager& threads, int32_t threadCount);

}  // namespace LUtils
