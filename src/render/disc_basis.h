// The plane of a sample's disc: two axes perpendicular to its normal, shared by everything that
// draws discs so that the same sample always gives the same polygon.
#pragma once

#include "io/vector.h"

namespace LUtils {

// u lies in the plane of the normal's two largest components (it has no y or no z part), and
// v = n x u. The normal is used as stored, not renormalised.
inline void discBasis(const Vector& n, Vector& u, Vector& v) {
  if (n.x * n.x + n.z * n.z <= n.x * n.x + n.y * n.y) {
    u = Vector{n.y, -n.x, 0.0f} * rsqrtNewton(n.x * n.x + n.y * n.y);
  } else {
    u = Vector{-n.z, 0.0f, n.x} * rsqrtNewton(n.x * n.x + n.z * n.z);
  }
  v = cross(n, u);
}

}  // namespace LUtils
