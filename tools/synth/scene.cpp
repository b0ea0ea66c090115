#include "synth/scene.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace synth {

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

// The two axes other than `axis`, in increasing order.
inline void otherAxes(int axis, int& a0, int& a1) {
  a0 = axis == 0 ? 1 : 0;
  a1 = axis == 2 ? 1 : 2;
}

Vector axisVector(int axis, float s) {
  Vector v;
  v[axis] = s;
  return v;
}

}  // namespace

bool FaceRect::contains(const Vector& p) const {
  int a0, a1;
  otherAxes(face >> 1, a0, a1);
  return p[a0] >= lo[0] && p[a0] <= hi[0] && p[a1] >= lo[1] && p[a1] <= hi[1];
}

Vector FaceRect::pointAt(float s, float t, float coord) const {
  int a0, a1;
  otherAxes(face >> 1, a0, a1);
  Vector p;
  p[face >> 1] = coord;
  p[a0] = lo[0] + s * (hi[0] - lo[0]);
  p[a1] = lo[1] + t * (hi[1] - lo[1]);
  return p;
}

// Room 8 m x 6 m x 3 m; the window is in the +x wall, the light in the ceiling. The boxes stand
// on the floor or on each other, so there are contact lines and corners everywhere.
Scene::Scene()
    : bounds_{{-4.0f, -3.0f, 0.0f}, {4.0f, 3.0f, 3.0f}, 1},
      boxes_{
          {{-2.6f, 0.6f, 0.0f}, {-1.2f, 2.2f, 0.8f}, 2},   // low chest
          {{-2.2f, 1.1f, 0.8f}, {-1.5f, 1.8f, 1.35f}, 3},  // crate on the chest
          {{0.4f, 2.3f, 0.0f}, {1.7f, 3.0f, 2.1f}, 4},     // cabinet against the back wall
          {{0.1f, -0.7f, 0.0f}, {0.75f, -0.05f, 0.6f}, 5},  // cube in the middle
          {{2.3f, 1.1f, 0.0f}, {3.5f, 2.5f, 0.45f}, 6},    // bench under the window side
      },
      ball_{{1.9f, -1.3f, 0.5f}, 0.5f, 7},
      light_{5, {-1.0f, -0.6f}, {0.6f, 0.6f}},
      window_{1, {-2.2f, 0.8f}, {-0.2f, 2.3f}} {}

const Scene& Scene::room() {
  static const Scene scene;
  return scene;
}

Hit Scene::trace(const Vector& o, const Vector& d, float tMin) const {
  Hit hit;
  const float org[3] = {o.x, o.y, o.z};
  const float inv[3] = {1.0f / d.x, 1.0f / d.y, 1.0f / d.z};
  const float lo[3] = {bounds_.lo.x, bounds_.lo.y, bounds_.lo.z};
  const float hi[3] = {bounds_.hi.x, bounds_.hi.y, bounds_.hi.z};
  for (int i = 0; i < 3; ++i) {
    if (!(org[i] >= lo[i] && org[i] <= hi[i])) return hit;
  }

  // The room is seen from inside: the ray leaves it through the nearest face in its direction.
  float tBest = kInf;
  int face = -1;
  for (int i = 0; i < 3; ++i) {
    const bool up = inv[i] > 0.0f;
    const float t = ((up ? hi[i] : lo[i]) - org[i]) * inv[i];
    if (t < tBest) {  // false for a zero direction component (NaN or infinity)
      tBest = t;
      face = 2 * i + (up ? 1 : 0);
    }
  }
  if (face < 0) return hit;

  // Boxes, seen from outside: the slab test, keeping the nearest entry.
  int boxHit = -1;
  for (size_t k = 0; k < boxes_.size(); ++k) {
    const Box& b = boxes_[k];
    const float ax = (b.lo.x - org[0]) * inv[0], bx = (b.hi.x - org[0]) * inv[0];
    const float ay = (b.lo.y - org[1]) * inv[1], by = (b.hi.y - org[1]) * inv[1];
    const float az = (b.lo.z - org[2]) * inv[2], bz = (b.hi.z - org[2]) * inv[2];
    const float tNear = std::max({std::min(ax, bx), std::min(ay, by), std::min(az, bz)});
    const float tFar = std::min({std::max(ax, bx), std::max(ay, by), std::max(az, bz)});
    if (tNear > tMin && tNear <= tFar && tNear < tBest) {
      tBest = tNear;
      boxHit = static_cast<int>(k);
    }
  }

  int32_t object = bounds_.object;
  Vector normal = axisVector(face >> 1, face & 1 ? -1.0f : 1.0f);
  if (boxHit >= 0) {
    const Box& b = boxes_[boxHit];
    object = b.object;
    face = -1;
    // The entry face is the slab whose near distance is the entry distance.
    int axis = 0;
    float best = -kInf;
    for (int i = 0; i < 3; ++i) {
      const float t = ((inv[i] > 0.0f ? b.lo[i] : b.hi[i]) - org[i]) * inv[i];
      if (t > best) {
        best = t;
        axis = i;
      }
    }
    normal = axisVector(axis, inv[axis] > 0.0f ? -1.0f : 1.0f);
  }

  {
    const Vector oc = o - ball_.centre;
    const float bq = dot(oc, d);
    const float a = dot(d, d);
    const float c = dot(oc, oc) - ball_.radius * ball_.radius;
    const float disc = bq * bq - a * c;
    if (c > 0.0f && disc > 0.0f) {
      const float t = (-bq - std::sqrt(disc)) / a;
      if (t > tMin && t < tBest) {
        tBest = t;
        object = ball_.object;
        face = -1;
        normal = (o + d * t - ball_.centre) * (1.0f / ball_.radius);
      }
    }
  }

  hit.kind = HitKind::kSurface;
  hit.t = tBest;
  hit.point = o + d * tBest;
  hit.normal = normal;
  hit.object = object;
  hit.face = face;
  if (face >= 0) {
    hit.point[face >> 1] = faceCoord(face);  // exactly on the wall
    if (face == window_.face && window_.contains(hit.point)) {
      hit.kind = HitKind::kSky;
    } else if (face == light_.face && light_.contains(hit.point)) {
      hit.kind = HitKind::kLight;
    }
  }
  return hit;
}

float Scene::clearance(const Vector& p, int32_t object, int face) const {
  float best = kInf;
  for (int f = 0; f < 6; ++f) {
    if (object == bounds_.object && f == face) continue;
    best = std::min(best, std::fabs(p[f >> 1] - faceCoord(f)));
  }
  for (const Box& b : boxes_) {
    if (b.object == object) continue;
    float d2 = 0.0f;
    for (int i = 0; i < 3; ++i) {
      const float e = std::max({b.lo[i] - p[i], 0.0f, p[i] - b.hi[i]});
      d2 += e * e;
    }
    best = std::min(best, std::sqrt(d2));
  }
  if (ball_.object != object) {
    best = std::min(best, std::max(length(p - ball_.centre) - ball_.radius, 0.0f));
  }
  return best;
}

bool Scene::isFreeSpace(const Vector& p) const {
  for (int i = 0; i < 3; ++i) {
    if (!(p[i] > bounds_.lo[i] && p[i] < bounds_.hi[i])) return false;
  }
  for (const Box& b : boxes_) {
    if (p.x >= b.lo.x && p.x <= b.hi.x && p.y >= b.lo.y && p.y <= b.hi.y && p.z >= b.lo.z &&
        p.z <= b.hi.z) {
      return false;
    }
  }
  return length(p - ball_.centre) > ball_.radius;
}

bool Scene::onSurface(const Vector& p, int32_t object, float tol) const {
  auto onBox = [&](const Box& b) {
    bool nearFace = false;
    for (int i = 0; i < 3; ++i) {
      if (p[i] < b.lo[i] - tol || p[i] > b.hi[i] + tol) return false;
      if (std::fabs(p[i] - b.lo[i]) <= tol || std::fabs(p[i] - b.hi[i]) <= tol) nearFace = true;
    }
    return nearFace;
  };
  if (object == bounds_.object) {
    for (const FaceRect* r : {&light_, &window_}) {
      if (std::fabs(p[r->face >> 1] - faceCoord(r->face)) <= tol && r->contains(p)) return false;
    }
    return onBox(bounds_);
  }
  for (const Box& b : boxes_) {
    if (b.object == object) return onBox(b);
  }
  return object == ball_.object && std::fabs(length(p - ball_.centre) - ball_.radius) <= tol;
}

}  // namespace synth
