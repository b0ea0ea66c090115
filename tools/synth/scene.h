// The procedural scene of the sample synthesiser: a closed room (Z up) with a few boxes and a
// ball on the floor, a rectangular area light in the ceiling and a window opening in one wall
// through which the sky shines. Everything is analytic, so rays are cheap and exact.
#pragma once

#include <cstdint>
#include <vector>

#include "io/vector.h"

namespace synth {

using LUtils::Vector;

// An axis-aligned box.
struct Box {
  Vector lo, hi;
  int32_t object;
};

struct Sphere {
  Vector centre;
  float radius;
  int32_t object;
};

// A rectangle lying in one face of the room: face index = 2 * axis + (1 for the upper side).
struct FaceRect {
  int face;
  float lo[2], hi[2];  // extents along the two other axes, in increasing axis order
  bool contains(const Vector& p) const;
  float area() const { return (hi[0] - lo[0]) * (hi[1] - lo[1]); }
  // The point at (s, t) in [0,1)^2 of the rectangle, on the room face `coord`.
  Vector pointAt(float s, float t, float coord) const;
};

enum class HitKind : uint8_t { kNone, kSurface, kLight, kSky };

struct Hit {
  HitKind kind = HitKind::kNone;
  float t = 0.0f;
  Vector point;
  Vector normal;       // unit, facing the ray's origin
  int32_t object = 0;  // render ID of the surface hit
  int face = -1;       // room face index, -1 on a box or the ball
};

class Scene {
 public:
  // The one room every map is made of. Object IDs start at 1 (the room itself); 0 is left for
  // "no object".
  static const Scene& room();

  // First thing a ray from inside the room meets beyond tMin: a surface, the area light, the
  // sky through the window, or nothing when the origin lies outside the room.
  Hit trace(const Vector& origin, const Vector& dir, float tMin = 1e-4f) const;

  // A lower bound of the distance a ray leaving surface point p travels before it meets another
  // surface: the distance from p to every box, the ball and the room's other faces, leaving out
  // the surface p lies on (it cannot be hit again: boxes and the ball are convex, room faces flat).
  float clearance(const Vector& p, int32_t object, int face) const;

  // True when p is inside the room and outside every box and the ball.
  bool isFreeSpace(const Vector& p) const;
  // True when p lies (within tolerance) on the surface of the given object, and not on the light
  // or in the window opening.
  bool onSurface(const Vector& p, int32_t object, float tolerance) const;

  const Box& bounds() const { return bounds_; }
  const std::vector<Box>& boxes() const { return boxes_; }
  const Sphere& ball() const { return ball_; }
  const FaceRect& light() const { return light_; }
  const FaceRect& window() const { return window_; }
  float faceCoord(int face) const { return face & 1 ? bounds_.hi[face >> 1] : bounds_.lo[face >> 1]; }
  int32_t roomObject() const { return bounds_.object; }

 private:
  Scene();

  Box bounds_;
  std::vector<Box> boxes_;
  Sphere ball_;
  FaceRect light_;
  FaceRect window_;
};

}  // namespace synth
