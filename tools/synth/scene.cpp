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
  for (int i = 0; i < 3; ++i) {
    if (!(o[i] >= bounds_.lo[i] && o[i] <= bounds_.hi[i])) return hit;
  }

  // The room is seen from inside: the ray leaves it through the nearest face in its direction.
  float tBest = kInf;
  int face = -1;
  for (int i = 0; i < 3; ++i) {
    if (d[i] == 0.0f) continue;
    const bool up = d[i] > 0.0f;
    const float t = ((up ? bounds_.hi[i] : bounds_.lo[i]) - o[i]) / d[i];
    if (t < tBest) {
      tBest = t;
      face = 2 * i + (up ? 1 : 0);
    }
  }
  if (face < 0) return hit;
  hit.kind = HitKind::kSurface;
  hit.object = bounds_.object;
  hit.face = face;
  hit.normal = axisVector(face >> 1, face & 1 ? -1.0f : 1.0f);

  for (const Box& b : boxes_) {
    float t0 = tMin, t1 = tBest;
    int axis = -1;
    for (int i = 0; i < 3; ++i) {
      const float inv = 1.0f / d[i];
      float ta = (b.lo[i] - o[i]) * inv;
      float tb = (b.hi[i] - o[i]) * inv;
      if (ta > tb) std::swap(ta, tb);
      if (ta > t0) {
        t0 = ta;
        axis = i;
      }
      if (tb < t1) t1 = tb;
    }
    if (axis < 0 || t0 > t1 || !(t0 < tBest)) continue;
    tBest = t0;
    hit.object = b.object;
    hit.face = -1;
    hit.normal = axisVector(axis, d[axis] > 0.0f ? -1.0f : 1.0f);
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
        hit.object = ball_.object;
        hit.face = -1;
        hit.normal = (o + d * t - ball_.centre) * (1.0f / ball_.radius);
      }
    }
  }

  hit.t = tBest;
  hit.point = o + d * tBest;
  if (hit.face >= 0) {
    hit.point[hit.face >> 1] = faceCoord(hit.face);  // exactly on the wall
    if (hit.face == window_.face && window_.contains(hit.point)) {
      hit.kind = HitKind::kSky;
    } else if (hit.face == light_.face && light_.contains(hit.point)) {
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
