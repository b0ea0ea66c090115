// A hint to the cache: the line holding an address is asked for from memory ahead of its use.
#pragma once

namespace LUtils {

// Unlike __builtin_prefetch, which the compiler may drop where the address is computed only
// for the prefetch (a loop that does nothing else, say), this is always issued.
inline void prefetchLine(const void* p) {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("prefetcht0 %0" : : "m"(*static_cast<const char*>(p)));
#else
  __builtin_prefetch(p);
  asm volatile("" : : "r"(p) : "memory");
#endif
}

}  // namespace LUtils
