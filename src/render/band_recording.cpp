#include "render/band_recording.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace LUtils {

using swr::FixedVertex;
using swr::Prim;

static_assert(sizeof(Prim) % 4 == 0 && std::is_trivially_copyable_v<Prim>);
static_assert(sizeof(FixedVertex) % 4 == 0 && std::is_trivially_copyable_v<FixedVertex>);

namespace {
constexpr size_t kPrimWords = sizeof(Prim) / 4;
constexpr size_t kVertexWords = sizeof(FixedVertex) / 4;
}  // namespace

void BandRecording::reset(int width, int bandShift, unsigned bands) {
  clear();
  width_ = std::max(0, width);
  bandShift_ = bandShift;
  bands_ = std::min(bands, kMaxBands);
  const uint64_t rows = uint64_t{bands_} << bandShift_;
  pixelsFit_ = uint64_t(width_) * rows < kPrimitiveTag;
}

void BandRecording::clear() {
  for (unsigned k = 0; k < bands_; ++k) streams_[k].clear();
}

void BandRecording::record(const Prim& prim, const FixedVertex* vertices) {
  if (prim.minY > prim.maxY || prim.minX > prim.maxX || bands_ == 0) return;
  const int64_t area = int64_t{prim.maxX - prim.minX + 1} * (prim.maxY - prim.minY + 1);
  if (prim.kind != swr::PrimKind::kPolygon || prim.depthTest == 0 || area > kMaxCoverPixels ||
      !pixelsFit_ || prim.minY < 0) {
    recordPrimitive(prim, vertices);
    return;
  }
  const uint32_t colour = prim.colour;
  swr::scanPolygon(prim, vertices + prim.firstVertex, [&](int x, int y, float z) {
    const unsigned band = static_cast<unsigned>(y) >> bandShift_;
    if (band >= bands_) return;
    const uint32_t pixel = static_cast<uint32_t>(y) * static_cast<uint32_t>(width_) +
                           static_cast<uint32_t>(x);
    std::vector<uint32_t>& s = streams_[band];
    s.push_back(pixel);
    s.push_back(swr::quantizeDepth(z));
    s.push_back(colour);
  });
}

void BandRecording::recordPrimitive(const Prim& prim, const FixedVertex* vertices) {
  const unsigned first = static_cast<unsigned>(std::max(prim.minY, 0)) >> bandShift_;
  const unsigned last = std::min(static_cast<unsigned>(prim.maxY) >> bandShift_, bands_ - 1);
  const uint32_t count = prim.count;
  Prim stored = prim;
  stored.firstVertex = 0;
  for (unsigned k = first; k <= last; ++k) {
    std::vector<uint32_t>& s = streams_[k];
    const size_t at = s.size();
    s.resize(at + 1 + kPrimWords + count * kVertexWords);
    s[at] = kPrimitiveTag | count;
    std::memcpy(&s[at + 1], &stored, sizeof(Prim));
    std::memcpy(&s[at + 1 + kPrimWords], vertices + prim.firstVertex, count * sizeof(FixedVertex));
  }
}

void BandRecording::draw(const swr::Target& target, unsigned band) const {
  if (band >= bands_) return;
  const std::vector<uint32_t>& s = streams_[band];
  const int firstRow = static_cast<int>(band << bandShift_);
  const int lastRow = static_cast<int>(((band + 1) << bandShift_) - 1);
  FixedVertex vertices[swr::kMaxPolygonVertices];
  for (size_t i = 0; i < s.size();) {
    const uint32_t head = s[i];
    if ((head & kPrimitiveTag) == 0) {
      // A covered pixel: the depth test LEQUAL, as the rasterizer does it.
      const uint32_t depth = s[i + 1];
      if (depth <= target.depth[head]) {
        target.depth[head] = depth;
        target.colour[head] = s[i + 2];
      }
      i += 3;
      continue;
    }
    const uint32_t count = head & ~kPrimitiveTag;
    Prim prim;
    std::memcpy(static_cast<void*>(&prim), &s[i + 1], sizeof(Prim));
    const uint32_t kept = std::min<uint32_t>(count, swr::kMaxPolygonVertices);
    std::memcpy(vertices, &s[i + 1 + kPrimWords], kept * sizeof(FixedVertex));
    i += 1 + kPrimWords + count * kVertexWords;
    prim.minY = std::max(prim.minY, firstRow);
    prim.maxY = std::min(prim.maxY, lastRow);
    if (prim.minY <= prim.maxY) swr::rasterize(target, prim, vertices);
  }
}

}  // namespace LUtils
