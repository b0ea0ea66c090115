// Small value types shared by every file format and by the drawing code: a vector of three
// 32-bit floats (positions, normals, directions) and an RGB colour of three 32-bit floats.
#pragma once

#include <cmath>

namespace LUtils {

struct Vector {
  float x = 0.0f, y = 0.0f, z = 0.0f;

  constexpr Vector() = default;
  constexpr Vector(float ax, float ay, float az) : x(ax), y(ay), z(az) {}

  constexpr float& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
  constexpr float operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }

  constexpr Vector operator+(const Vector& o) const { return {x + o.x, y + o.y, z + o.z}; }
  constexpr Vector operator-(const Vector& o) const { return {x - o.x, y - o.y, z - o.z}; }
  constexpr Vector operator-() const { return {-x, -y, -z}; }
  constexpr Vector operator*(float s) const { return {x * s, y * s, z * s}; }
  constexpr Vector operator/(float s) const { return {x / s, y / s, z / s}; }
  constexpr Vector& operator+=(const Vector& o) { x += o.x; y += o.y; z += o.z; return *this; }
  constexpr Vector& operator-=(const Vector& o) { x -= o.x; y -= o.y; z -= o.z; return *this; }
  constexpr Vector& operator*=(float s) { x *= s; y *= s; z *= s; return *this; }
  constexpr bool operator==(const Vector&) const = default;
};

constexpr Vector operator*(float s, const Vector& v) { return v * s; }
constexpr float dot(const Vector& a, const Vector& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
constexpr Vector cross(const Vector& a, const Vector& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
constexpr float lengthSquared(const Vector& v) { return dot(v, v); }
inline float length(const Vector& v) { return std::sqrt(dot(v, v)); }

// Reciprocal square root refined by one Newton step, y * (-0.5) * (x * y^2 - 3), as the renderer
// computes it; results differ from 1/sqrt(x) in the last bits, which the drawing code relies on.
inline float rsqrtNewton(float x) {
  float y = 1.0f / std::sqrt(x);
  return y * -0.5f * (x * y * y - 3.0f);
}

// Normalisation through rsqrtNewton; a zero vector gives non-finite components.
inline Vector normalizeNewton(const Vector& v) { return v * rsqrtNewton(dot(v, v)); }

struct Color {
  float r = 0.0f, g = 0.0f, b = 0.0f;

  constexpr Color() = default;
  constexpr Color(float ar, float ag, float ab) : r(ar), g(ag), b(ab) {}
  constexpr Color operator*(float s) const { return {r * s, g * s, b * s}; }
  constexpr Color operator+(const Color& o) const { return {r + o.r, g + o.g, b + o.b}; }
  constexpr Color& operator+=(const Color& o) { r += o.r; g += o.g; b += o.b; return *this; }
  constexpr bool operator==(const Color&) const = default;
};

}  // namespace LUtils
