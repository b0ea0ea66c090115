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

// Memory of `bytes` (at least kHugePageBytes) in a mapping of its own that starts on a 2 MB
// boundary; its whole 2 MB pages are offered to the kernel as huge pages (granted where
// transparent huge pages are enabled, or enabled on request), and the rest is left in small
// pages, so that no more is touched than the bytes used. Null when it cannot be mapped.
inline void* mapLarge(size_t bytes) {
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
  if (whole) madvise(reinterpret_cast<void*>(start), whole, MADV_HUGEPAGE);
#endif
  return reinterpret_cast<void*>(start);
}
// Unmaps what mapLarge(bytes) returned.
inline void unmapLarge(void* data, size_t bytes) { munmap(data, wholePages(bytes)); }

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

// An allocator like Base<T> whose arrays of at least kMinimumBytes get a mapping of their own in
// huge pages (mapLarge), of their size or, with kWholeHugePages, of their size rounded up to whole
// huge pages; smaller arrays come from the heap.
template <class T, template <class> class Base, size_t kMinimumBytes, bool kWholeHugePages>
struct MappedArrayAllocator : Base<T> {
  template <class U>
  struct rebind {
    using other = MappedArrayAllocator<U, Base, kMinimumBytes, kWholeHugePages>;
  };
  MappedArrayAllocator() = default;
  template <class U>
  MappedArrayAllocator(const MappedArrayAllocator<U, Base, kMinimumBytes, kWholeHugePages>&) noexcept {}
  T* allocate(size_t n) {
    if (n > SIZE_MAX / sizeof(T)) throw std::bad_array_new_length();
    if (!large(n)) return std::allocator<T>().allocate(n);
    void* p = mapLarge(mapped(n));
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
  bool operator==(const MappedArrayAllocator<U, Base, kMinimumBytes, kWholeHugePages>&) const noexcept {
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

// For a buffer that is written whole as soon as it is made, and again every frame (a picture, a
// depth buffer): from half a huge page up it is mapped in whole huge pages, so that its first
// clear maps a few huge pages rather than hundreds of small ones, for less than half a huge page
// to spare.
template <class T>
using FrameBufferAllocator = MappedArrayAllocator<T, std::allocator, kHugePageBytes / 2, true>;

}  // namespace LUtils
