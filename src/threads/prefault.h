// Mapping fresh memory before it is first written.
//
// The first write to each page of fresh memory traps into the kernel, which maps a zeroed page:
// a few hundred nanoseconds a page on bare hardware, several microseconds in some virtual
// machines, where the faults of a map of ten million samples cost seconds. prefaultForWriting
// asks the kernel to map the pages of a range in one call instead. Kernels before Linux 5.14
// ignore the request, and the pages fault in as they are written, as before.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace LUtils {

// The size of a small page.
inline size_t pageBytes() {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return page;
}
// Bytes rounded up to whole small pages.
inline size_t wholePages(size_t bytes) { return (bytes + pageBytes() - 1) & ~(pageBytes() - 1); }

// Ranges below this are left to fault in: the call would cost more than it saves.
inline constexpr size_t kPrefaultMinimumBytes = size_t{64} << 10;

// Maps for writing the pages that lie wholly inside [data, data + bytes); the bytes are not
// changed (fresh pages read as zero, as they would anyway).
inline void prefaultForWriting(void* data, size_t bytes) {
  if (bytes < kPrefaultMinimumBytes) return;
  const uintptr_t page = pageBytes();
  const uintptr_t start = (reinterpret_cast<uintptr_t>(data) + page - 1) & ~(page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(page - 1);
#ifdef MADV_POPULATE_WRITE
  if (end > start) madvise(reinterpret_cast<void*>(start), end - start, MADV_POPULATE_WRITE);
#else
  (void)start;
  (void)end;
#endif
}

// The spare capacity of a vector reserved for `count` elements, mapped ahead of the writes.
template <class Vector>
void reserveMapped(Vector& v, size_t count) {
  v.reserve(count);
  prefaultForWriting(v.data() + v.size(), (v.capacity() - v.size()) * sizeof(*v.data()));
}

// Huge pages. A large array read at random places (a map's samples, looked up by an index)
// costs a TLB miss on almost every access when it lies in 4 KB pages, and in a virtual machine
// each miss walks two sets of page tables. In 2 MB pages the whole array needs a few entries.
inline constexpr size_t kHugePageBytes = size_t{2} << 20;

// Whether memory that is about to be written costs less to map in huge pages than in small ones
// on this machine. The two costs differ with the machine far more than with the program:
//   - on bare hardware a fresh small page takes a few hundred nanoseconds, and a huge page about
//     as much per byte;
//   - in a virtual machine whose host takes free memory back, a fresh huge page took 4-5 ms
//     against about 1 ms for its 512 small pages, and a map loaded in huge pages two to four
//     times as slowly;
//   - in one whose host maps guest memory lazily, every fresh small page traps to the host: 13-19
//     us each, against 0.13 ms for a whole huge page, fifty times less per byte, and an
//     incremental merge that stores a million samples spent a quarter of its time there.
// So it is measured, once per process, the first time it is asked: one byte written into each
// of some fresh small pages (the least of a few rounds) against each small page of a fresh huge
// page (a second one where the first did not settle it), which must cost less than half as much
// per byte. About a millisecond, and at most a few where huge pages are slow.
// CACHEVIEW_HUGE_PAGES=1 or 0 in the environment answers instead, without measuring. Memory that
// is written soon after it is mapped (storage blocks, index pools, the arrays a rebuild fills)
// follows the answer; the index arrays that are read at random places take huge pages whatever
// it is.
bool hugePagesPay();

// Memory of `bytes` (at least kHugePageBytes) in a mapping of its own that starts on a 2 MB
// boundary. With `huge`, its whole 2 MB pages are offered to the kernel as huge pages (granted
// where transparent huge pages are enabled, or enabled on request); the rest is left in small
// pages, so that no more is touched than the bytes used. Null when it cannot be mapped.
inline void* mapLarge(size_t bytes, bool huge = true) {
  const size_t size = wholePages(bytes);
  void* raw = mmap(nullptr, size + kHugePageBytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  // Keep the aligned part only.
  const uintptr_t base = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t start = (base + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
  const uintptr_t end = base + size + kHugePageBytes;
  if (start > base) munmap(raw, start - base);
  if (end > start + size) munmap(reinterpret_cast<void*>(start + size), end - start - size);
#ifdef MADV_HUGEPAGE
  const size_t whole = size & ~(kHugePageBytes - 1);
  if (whole && huge) madvise(reinterpret_cast<void*>(start), whole, MADV_HUGEPAGE);
#else
  (void)huge;
#endif
  return reinterpret_cast<void*>(start);
}
// Unmaps what mapLarge(bytes) returned.
inline void unmapLarge(void* data, size_t bytes) { munmap(data, wholePages(bytes)); }

// Memory for pieces that are written soon after they are taken and freed all together (the
// chunks of a pool): taken in turn from regions of kRegionBytes, or of their own size when
// larger, mapped in huge pages where those are the cheaper to map (hugePagesPay()). A region's
// pages are mapped as the pieces in it are written.
class FreshArena {
 public:
  static constexpr size_t kRegionBytes = kHugePageBytes;
  FreshArena() = default;
  FreshArena(const FreshArena&) = delete;
  FreshArena& operator=(const FreshArena&) = delete;
  FreshArena(FreshArena&& other) noexcept { *this = std::move(other); }
  FreshArena& operator=(FreshArena&& other) noexcept {
    std::swap(regions_, other.regions_);
    std::swap(used_, other.used_);
    return *this;
  }
  ~FreshArena() { release(); }

  // `bytes`, aligned to a cache line; throws std::bad_alloc when no memory can be had.
  void* take(size_t bytes);
  // Unmaps every region: the pieces taken are gone.
  void release();

 private:
  struct Region {
    char* base;
    size_t bytes;
  };
  std::vector<Region> regions_;
  size_t used_ = 0;  // bytes taken from the last region
};

// An allocator whose containers leave new elements of trivial types unwritten (resize does not
// zero them), for arrays that their builder fills whole, where zeroing first would be a second
// pass over fresh memory.
template <class T>
struct UninitialisedAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UninitialisedAllocator<U>;
  };
  UninitialisedAllocator() = default;
  template <class U>
  UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    if constexpr (sizeof...(Args) == 0) {
      ::new (static_cast<void*>(p)) U;
    } else {
      ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
  }
};

// Which pages a mapped array takes: huge ones always, or huge ones where hugePagesPay().
enum class HugePages { kAlways, kWherePaying };

// An allocator like Base<T> whose arrays of at least kMinimumBytes get a mapping of their own
// (mapLarge), in huge pages as kHuge says, of their size or, with kWholeHugePages, of their size
// rounded up to whole huge pages; smaller arrays come from the heap.
template <class T, template <class> class Base, size_t kMinimumBytes, bool kWholeHugePages,
          HugePages kHuge = HugePages::kAlways>
struct MappedArrayAllocator : Base<T> {
  template <class U>
  struct rebind {
    using other = MappedArrayAllocator<U, Base, kMinimumBytes, kWholeHugePages, kHuge>;
  };
  MappedArrayAllocator() = default;
  template <class U>
  MappedArrayAllocator(
      const MappedArrayAllocator<U, Base, kMinimumBytes, kWholeHugePages, kHuge>&) noexcept {}
  T* allocate(size_t n) {
    if (n > SIZE_MAX / sizeof(T)) throw std::bad_array_new_length();
    if (!large(n)) return std::allocator<T>().allocate(n);
    void* p = mapLarge(mapped(n), kHuge == HugePages::kAlways || hugePagesPay());
    if (!p) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t n) {
    if (!large(n)) {
      std::allocator<T>().deallocate(p, n);
    } else {
      unmapLarge(p, mapped(n));
    }
  }
  template <class U>
  bool operator==(
      const MappedArrayAllocator<U, Base, kMinimumBytes, kWholeHugePages, kHuge>&) const noexcept {
    return true;
  }

 private:
  static bool large(size_t n) { return n * sizeof(T) >= kMinimumBytes; }
  static size_t mapped(size_t n) {
    const size_t bytes = n * sizeof(T);
    return kWholeHugePages ? (bytes + kHugePageBytes - 1) & ~(kHugePageBytes - 1) : bytes;
  }
};

// UninitialisedAllocator for the large arrays of an index, which are read at random places: an
// array of at least kHugePageBytes goes in huge pages, and its tail past the last whole one in
// small pages, so that no more is touched than the bytes used.
template <class T>
using LargeArrayAllocator = MappedArrayAllocator<T, UninitialisedAllocator, kHugePageBytes, false>;

// UninitialisedAllocator for large arrays that are filled as soon as they are made (the entries
// of an index rebuild): from a huge page up they get a mapping of their own, in huge pages where
// those are the cheaper to map.
template <class T>
using FreshArrayAllocator =
    MappedArrayAllocator<T, UninitialisedAllocator, kHugePageBytes, false, HugePages::kWherePaying>;

// For a buffer that is written whole as soon as it is made, and again every frame (a picture, a
// depth buffer): from half a huge page up it is mapped in whole huge pages, so that its first
// clear maps a few huge pages rather than hundreds of small ones, for less than half a huge page
// to spare.
template <class T>
using FrameBufferAllocator = MappedArrayAllocator<T, std::allocator, kHugePageBytes / 2, true>;

}  // namespace LUtils
