// The sample synthesiser: realistic irradiance samples of the procedural room (synth/scene.h) as
// an irradiance cache would place them for one camera. Rays go from the camera through the
// image; a hit becomes a sample with a probability that rises where other geometry is close
// (small harmonic-mean distance: corners, contacts) and is bounded by the pixel footprint, as
// the min and max rates bound an irradiance cache's spacing. The count chooses the effective
// resolution: the caller asks for N samples and gets exactly N, with radii that tile the
// visible surfaces. Output is a pure function of the parameters and the seed, whatever the
// number of threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "io/vector.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_map_header.h"

namespace synth {

using LUtils::Vector;

// A pinhole view: eye, the point looked at (its distance is the orbit distance stored in the
// header), the world up axis and the horizontal field of view.
struct View {
  Vector eye;
  Vector target;
  Vector up{0.0f, 0.0f, 1.0f};
  float fovX = 1.2217305f;  // 70 degrees
};

// Camera presets: two frames of a walk through the room, the second a step further on and
// turned left, so that their maps overlap partly.
constexpr int kPresetCount = 2;
View presetView(int index);

struct Params {
  uint32_t count = 10000;
  uint64_t seed = 1;
  View view = presetView(0);
  // The image's proportions; the effective resolution follows from the count.
  int imageWidth = 640;
  int imageHeight = 480;
  bool cameraInHeader = true;     // the view in the header (written by version 0xD0000 files)
  bool renderIdsInHeader = false;  // the header's contains-render-IDs flag
  // Sample spacing between 2^-maxRate and 2^-minRate pixels, as the header's rates say.
  int minRate = -3;
  int maxRate = 0;
  unsigned threads = 0;  // 0: one per processor
};

// Checks the parameters against the scene; returns an empty string or a message for the user.
std::string checkParams(const Params& params);

// Receives the samples in batches, in order; returns false to stop the generation.
class SampleSink {
 public:
  virtual ~SampleSink() = default;
  virtual bool append(const LUtils::IrradSample* samples, size_t count) = 0;
};

// Generates params.count samples into the sink. Returns the number delivered (params.count
// unless the sink stopped), or -1 when checkParams rejects the parameters.
int64_t generate(const Params& params, SampleSink& sink);
// The same into a vector (appended).
int64_t generate(const Params& params, std::vector<LUtils::IrradSample>& out);

// The map header that goes with the samples: default settings, the rates, the render-ID flag
// and, when asked, the camera (rows right, up and the negated view direction, since the stored
// frame looks along its negative third axis; position; horizontal FOV; orbit distance).
IrradianceMapHeader makeHeader(const Params& params);

// The shared-exponent colour encoding: signed 8-bit mantissas and exponent e with channel =
// m * 2^(e - 135); e is chosen so that the largest channel's mantissa lies in 64..127, negative
// channels are clamped to 0. Returns false when a channel is not finite.
bool encodeColour(const LUtils::Color& c, LUtils::IrradSample& s);

// The effective resolution a generation with these parameters uses, for the command line's
// report (zeros when the parameters are rejected).
struct Plan {
  double pixelAngle = 0;  // effective pixel size at unit distance
  int effectiveWidth = 0, effectiveHeight = 0;
};
Plan planFor(const Params& params);

}  // namespace synth
