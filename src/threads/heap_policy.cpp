#include "threads/heap_policy.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace LUtils {

void keepLargeBlocksMapped() {
#if defined(__GLIBC__)
  // Setting either value explicitly turns glibc's raising of both off; the trim threshold keeps
  // its default.
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(kLargeBlockBytes));
#endif
}

}  // namespace LUtils
