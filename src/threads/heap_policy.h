// How the process's heap gives freed memory back to the system.
//
// glibc serves a request of at least its mapping threshold (128 KB at first) with a mapping of
// its own, unmapped when freed; but each time such a block is freed it raises the threshold to
// that block's size (up to 32 MB), and the free memory it keeps at the top of each heap before
// trimming to twice the threshold. A merge frees arrays of tens of MB each time it rebuilds its
// index, so from then on every array below 32 MB comes from the heaps, which give memory back
// only from their tops, and each heap may keep up to 64 MB it does not use. Worse on several
// threads: each thread's allocations come from a heap of its own, and each keeps its share. The
// peak of an incremental merge of four 2M-sample frames on two threads was 33 MB above one
// thread's, and about 10 MB with the threshold fixed.
//
// keepLargeBlocksMapped() fixes the threshold at kLargeBlockBytes, which stops the raising: every
// block from 1 MB up is a mapping of its own, given back whole when freed, and the heaps trim
// their tops past 128 KB of free memory, as they do at start. The programs call it first thing;
// a library does not set a process's allocator for it. Elsewhere than glibc it does nothing.
#pragma once

#include <cstddef>

namespace LUtils {

inline constexpr size_t kLargeBlockBytes = size_t{1} << 20;

void keepLargeBlocksMapped();

}  // namespace LUtils
