// Growth of a sample bit set, kept out of line: it is rare, and the inline resize of a small
// vector trips a false array-bounds warning in GCC 12.
#include "render/draw_options.h"

namespace LUtils {

void SampleBits::grow(size_t bytes) { bytes_.resize(bytes, 0); }

}  // namespace LUtils
