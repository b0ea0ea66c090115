#include "threads/prefault.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace LUtils {

namespace {

double secondsNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Seconds to map one fresh small page by writing into it: the least of a few rounds of a few
// pages each, so that a round that the scheduler interrupts does not count. Infinite when no
// memory can be had.
double smallPageSeconds() {
  constexpr size_t kRounds = 4, kPagesPerRound = 8;
  const size_t page = pageBytes();
  const size_t bytes = (1 + kRounds * kPagesPerRound) * page;
  void* raw = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return std::numeric_limits<double>::infinity();
#ifdef MADV_NOHUGEPAGE
  madvise(raw, bytes, MADV_NOHUGEPAGE);
#endif
  volatile char* p = static_cast<char*>(raw);
  p[0] = 1;  // the page table that maps the rest
  double best = std::numeric_limits<double>::infinity();
  for (size_t round = 0; round < kRounds; ++round) {
    const double start = secondsNow();
    for (size_t k = 0; k < kPagesPerRound; ++k) p[(1 + round * kPagesPerRound + k) * page] = 1;
    best = std::min(best, (secondsNow() - start) / kPagesPerRound);
  }
  munmap(raw, bytes);
  return best;
}

// Seconds to map one fresh huge page by writing into each of its small pages; where huge pages
// are not granted, that maps its small pages one by one.
double hugePageSeconds() {
  void* raw = mapLarge(kHugePageBytes, true);
  if (!raw) return std::numeric_limits<double>::infinity();
  volatile char* p = static_cast<char*>(raw);
  const double start = secondsNow();
  for (size_t at = 0; at < kHugePageBytes; at += pageBytes()) p[at] = 1;
  const double seconds = secondsNow() - start;
  unmapLarge(raw, kHugePageBytes);
  return seconds;
}

bool measureHugePagesPay() {
  if (const char* forced = std::getenv("CACHEVIEW_HUGE_PAGES")) {
    if (std::strcmp(forced, "1") == 0) return true;
    if (std::strcmp(forced, "0") == 0) return false;
  }
#ifdef MADV_HUGEPAGE
  const double small = smallPageSeconds() * static_cast<double>(kHugePageBytes / pageBytes());
  double huge = hugePageSeconds();
  // The first huge page of a process may cost many times the next (2.3 ms against 0.13 where
  // the host backs memory lazily): where it did not settle the question, a second one does.
  if (2.0 * huge >= small && huge < small) huge = std::min(huge, hugePageSeconds());
  return 2.0 * huge < small;
#else
  return false;
#endif
}

}  // namespace

void* FreshArena::take(size_t bytes) {
  bytes = (bytes + 63) & ~size_t{63};
  if (regions_.empty() || used_ + bytes > regions_.back().bytes) {
    const size_t size = std::max(bytes, kRegionBytes);
    // Room first, so that the push cannot fail with the region mapped.
    if (regions_.size() == regions_.capacity()) regions_.reserve(2 * regions_.size() + 4);
    void* region = mapLarge(size, hugePagesPay());
    if (!region) throw std::bad_alloc();
    regions_.push_back({static_cast<char*>(region), size});
    used_ = 0;
  }
  void* piece = regions_.back().base + used_;
  used_ += bytes;
  return piece;
}

void FreshArena::release() {
  for (const Region& r : regions_) unmapLarge(r.base, r.bytes);
  regions_.clear();
  used_ = 0;
}

bool hugePagesPay() {
  static const bool pay = measureHugePagesPay();
  return pay;
}

}  // namespace LUtils
