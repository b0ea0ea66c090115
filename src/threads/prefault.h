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

// Ranges below this are left to fault in: the call would cost more than it saves.
inline constexpr size_t kPrefaultMinimumBytes = size_t{64} << 10;

// Maps for writing the pages that lie wholly inside [data, data + bytes); the bytes are not
// changed (fresh pages read as zero, as they would anyway).
inline void prefaultForWriting(void* data, size_t bytes) {
  if (bytes < kPrefaultMinimumBytes) return;
  static const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
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

}  // namespace LUtils
