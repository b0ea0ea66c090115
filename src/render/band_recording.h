// What one thread drew of a slice of a frame, filed by bands of rows of the frame, to be drawn
// into the frame later, band by band, by whichever thread takes the band.
//
// Threaded software drawing works in two steps. Several threads draw slices of the samples at
// once, each into a recording of its own: every primitive is set up (transformed, clipped,
// snapped) there and then, so the work per disc is shared out by slices. The threads then draw
// the bands, each band from the recordings in slice order. Every pixel so sees its primitives
// in the order one thread would draw them, and gets exactly the one-thread result.
//
// A small depth-tested polygon (as most discs of a dense map are) is recorded as the pixels it
// covers, each with its quantized depth and colour: drawing the band is then only the depth
// test. Anything else (large polygons, lines, points, drawing without the depth test) is
// recorded as the primitive itself and rasterized when its band is drawn, limited to the
// band's rows, in every band it reaches. A covered pixel takes 12 bytes and a recorded hexagon
// 124, so a recording of a slice stays well under what its discs' samples take in the map.
#pragma once

#include <cstdint>
#include <vector>

#include "render/sw_raster.h"

namespace LUtils {

class BandRecording {
 public:
  static constexpr unsigned kMaxBands = 64;
  // Polygons whose pixel rectangle holds at most this many pixels are recorded as the pixels
  // they cover; a hexagon's record is as large as ten covered pixels.
  static constexpr int kMaxCoverPixels = 8;

  // Starts over for a frame `width` pixels wide cut into bands of 2^bandShift rows, `bands` of
  // them (at most kMaxBands). The memory of earlier recordings is kept.
  void reset(int width, int bandShift, unsigned bands);
  // Forgets what was recorded, keeping the bands and the memory.
  void clear();

  unsigned bands() const { return bands_; }
  // Records a primitive (its vertices from vertices + prim.firstVertex) in every band its rows
  // reach.
  void record(const swr::Prim& prim, const swr::FixedVertex* vertices);
  // Draws what was recorded in `band`, limited to its rows, into the target.
  void draw(const swr::Target& target, unsigned band) const;

 private:
  // Each band is a stream of words: a covered pixel is [pixel index, depth, colour] with the
  // index below 2^31; a primitive is [kPrimitiveTag | vertex count, the Prim, its vertices].
  static constexpr uint32_t kPrimitiveTag = 0x80000000u;
  void recordPrimitive(const swr::Prim& prim, const swr::FixedVertex* vertices);

  int width_ = 0;
  int bandShift_ = 0;
  unsigned bands_ = 0;
  // Whether pixel indices fit below the tag bit (frames under 2^31 pixels).
  bool pixelsFit_ = true;
  std::vector<uint32_t> streams_[kMaxBands];
};

}  // namespace LUtils
