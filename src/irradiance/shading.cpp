#include "irradiance/shading.h"

namespace LUtils {

Color NullIrradianceSampler::compute(Color& result, ShadeContext&, IrradianceMap&, IrradSample&) {
  result = Color{0.0f, 0.0f, 0.0f};
  return result;
}

Color InsertSampleCallback::compute(Color& result, ShadeContext&, IrradianceMap&,
                                    IrradSample& record) {
  record = *sample;
  inserted = 1;
  result = sample->decodedColour();
  return result;
}

ShadeContext makeInsertionContext(const IrradSample& sample, ThreadData& thread) {
  ShadeContext c;
  c.thread = &thread;
  c.position = sample.position;
  c.normal = sample.normal;
  const Vector d = sample.unpackedNormal();
  c.direction = d;

  // The first tangent is perpendicular to d in the plane of the larger of its xz and xy parts,
  // which keeps it well away from zero length.
  const float xz = d.x * d.x + d.z * d.z;
  const float xy = d.x * d.x + d.y * d.y;
  Vector t1 = xz > xy ? Vector{d.z, 0.0f, -d.x} * rsqrtNewton(xz)
                      : Vector{d.y, -d.x, 0.0f} * rsqrtNewton(xy);
  const Vector t2 = cross(d, t1);
  c.dPdx = t1 * sample.footprint;
  c.dPdy = t2 * sample.footprint;
  c.time = sample.time;
  c.sampleFlags = sample.flags & IrradSample::kContextMask;
  return c;
}

}  // namespace LUtils
