#include "viewer/navigation.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numbers>

namespace LUtils {

namespace {

// Frame arithmetic runs in double: an axis-aligned view must come out exactly axis-aligned, or
// the test against the stored up misses by a rounding and the cross product collapses.
struct D3 {
  double x = 0.0, y = 0.0, z = 0.0;
};

D3 toD(const Vector& v) {
  return {v.x, v.y, v.z};
}
Vector toF(const D3& v) {
  return {static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z)};
}
D3 sub(const D3& a, const D3& b) {
  return {a.x - b.x, a.y - b.y, a.z - b.z};
}
D3 scale(const D3& a, double s) {
  return {a.x * s, a.y * s, a.z * s};
}
D3 crossD(const D3& a, const D3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
double lengthD(const D3& a) {
  return std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z);
}

bool within(const D3& a, const D3& b, double tolerance) {
  return std::abs(a.x - b.x) <= tolerance && std::abs(a.y - b.y) <= tolerance &&
         std::abs(a.z - b.z) <= tolerance;
}

// A rotation as a unit quaternion (w, v) built from the half angle.
struct Rotation {
  double w = 1.0;
  D3 v;

  static Rotation about(const D3& axis, double angle) {
    const double len = lengthD(axis);
    if (!(len > 0.0) || !std::isfinite(len)) return {};
    const double s = std::sin(angle * 0.5) / len;
    return {std::cos(angle * 0.5), scale(axis, s)};
  }

  // this, applied after `first`.
  Rotation after(const Rotation& first) const {
    const D3 c = crossD(v, first.v);
    return {w * first.w - (v.x * first.v.x + v.y * first.v.y + v.z * first.v.z),
            {w * first.v.x + first.w * v.x + c.x, w * first.v.y + first.w * v.y + c.y,
             w * first.v.z + first.w * v.z + c.z}};
  }

  // p + 2w (v x p) + 2 v x (v x p)
  D3 apply(const D3& p) const {
    const D3 t = scale(crossD(v, p), 2.0);
    const D3 u = crossD(v, t);
    return {p.x + w * t.x + u.x, p.y + w * t.y + u.y, p.z + w * t.z + u.z};
  }
};

// base^n by repeated squaring, n >= 0.
double powBySquaring(double base, unsigned n) {
  double result = 1.0;
  while (n != 0) {
    if ((n & 1u) != 0) result *= base;
    base *= base;
    n >>= 1;
  }
  return result;
}

}  // namespace

Navigation::Navigation() {
  reset();
}

void Navigation::setUpAxes(bool yUp, const Vector& worldUp, const Vector& storedUp) {
  yUp_ = yUp;
  worldUp_ = worldUp;
  storedUp_ = storedUp;
  rebuildFrame();
}

void Navigation::setSceneBounds(const Vector& min, const Vector& max) {
  boundsMin_ = min;
  boundsMax_ = max;
  const double diagonal = lengthD(sub(toD(max), toD(min)));
  const bool empty = min.x > max.x || min.y > max.y || min.z > max.z;
  farDistance_ = !empty && diagonal > 0.0 && std::isfinite(diagonal)
                     ? static_cast<float>(4.0 * diagonal)
                     : 4.0f;
}

Vector Navigation::sceneMiddle() const {
  if (boundsMin_.x > boundsMax_.x || boundsMin_.y > boundsMax_.y || boundsMin_.z > boundsMax_.z) {
    return {};
  }
  return toF(scale(D3{static_cast<double>(boundsMin_.x) + boundsMax_.x,
                      static_cast<double>(boundsMin_.y) + boundsMax_.y,
                      static_cast<double>(boundsMin_.z) + boundsMax_.z},
                   0.5));
}

void Navigation::setCanvasSize(int width, int height) {
  width_ = std::max(width, 1);
  height_ = std::max(height, 1);
  camera_.setImage(static_cast<float>(width_), static_cast<float>(height_), camera_.fieldOfView);
}

bool Navigation::rebuildFrame() {
  D3 f = sub(toD(centre_), toD(eye_));
  const double distance = lengthD(f);
  if (!(distance > 0.0) || !std::isfinite(distance)) return false;
  f = scale(f, 1.0 / distance);

  const D3 up = toD(storedUp_);
  D3 right = crossD(f, up);
  const double rightLength = lengthD(right);
  Vector newStoredUp = storedUp_;
  // The cross test also catches a stored up that is parallel without being of unit length.
  if (within(f, up, 1e-8) || within(f, scale(up, -1.0), 1e-8) ||
      !(rightLength > 1e-12 * lengthD(up))) {
    right = {0.0, f.z, -f.y};
    newStoredUp = {1.0f, 0.0f, 0.0f};
    if (!(lengthD(right) > 1e-12)) {
      // Looking along x, where that fallback has no right axis either: z up instead.
      right = {f.y, -f.x, 0.0};
      newStoredUp = {0.0f, 0.0f, 1.0f};
    }
  }
  right = scale(right, 1.0 / lengthD(right));
  D3 cameraUp = crossD(right, f);
  cameraUp = scale(cameraUp, 1.0 / lengthD(cameraUp));

  storedUp_ = newStoredUp;
  camera_.setFrame(eye_, toF(f), toF(cameraUp), toF(right));
  return true;
}

bool Navigation::moveTo(const Vector& eye, const Vector& centre, const Vector& storedUp) {
  const Vector oldEye = eye_, oldCentre = centre_, oldUp = storedUp_;
  eye_ = eye;
  centre_ = centre;
  storedUp_ = storedUp;
  if (rebuildFrame()) return true;
  eye_ = oldEye;
  centre_ = oldCentre;
  storedUp_ = oldUp;
  return false;
}

void Navigation::orbit(int dx, int dy) {
  const D3 offset = sub(toD(centre_), toD(eye_));
  const double distance = lengthD(offset);
  const double radiansPerPixel = settings_.orbitDegreesPerPixel * std::numbers::pi / 180.0;
  // Negative angles turn the camera against the cursor, so the scene follows it.
  const Rotation pitch = Rotation::about(toD(camera_.right), -dy * radiansPerPixel);
  const Rotation yaw = Rotation::about(toD(worldUp_), -dx * radiansPerPixel);
  D3 forward = yaw.after(pitch).apply(scale(offset, 1.0 / distance));
  forward = scale(forward, 1.0 / lengthD(forward));
  moveTo(toF(sub(toD(centre_), scale(forward, distance))), centre_, storedUp_);
}

void Navigation::pan(int dx, int dy) {
  const double step = lengthD(sub(toD(eye_), toD(centre_))) * settings_.panPerPixel;
  // The camera moves against the cursor, so the scene follows it.
  const D3 delta = sub(scale(toD(camera_.up), dy * step), scale(toD(camera_.right), dx * step));
  const Vector d = toF(delta);
  moveTo(eye_ + d, centre_ + d, storedUp_);
}

void Navigation::zoom(int upwardPixels) {
  if (upwardPixels == 0) return;
  double factor = powBySquaring(settings_.zoomBase, static_cast<unsigned>(std::abs(upwardPixels)));
  if (upwardPixels < 0) factor = 1.0 / factor;
  const D3 offset = scale(sub(toD(eye_), toD(centre_)), factor);
  moveTo(toF(D3{centre_.x + offset.x, centre_.y + offset.y, centre_.z + offset.z}), centre_,
         storedUp_);
}

void Navigation::dolly(bool forwards, bool fast) {
  const float step = farDistance_ / (fast ? settings_.dollyDivisorFast : settings_.dollyDivisor);
  const Vector delta = camera_.forward * (forwards ? step : -step);
  moveTo(eye_ + delta, centre_ + delta, storedUp_);
}

void Navigation::showView(StandardView view) {
  Vector d;
  switch (view) {
    case StandardView::kTop:
      d = -worldUp_;
      break;
    case StandardView::kBottom:
      d = worldUp_;
      break;
    case StandardView::kFront:
      d = yUp_ ? Vector(0, 0, -1) : Vector(0, 1, 0);
      break;
    case StandardView::kBack:
      d = yUp_ ? Vector(0, 0, 1) : Vector(0, -1, 0);
      break;
    case StandardView::kLeft:
      d = {1, 0, 0};
      break;
    case StandardView::kRight:
      d = {-1, 0, 0};
      break;
  }
  const float distance = length(eye_ - centre_);
  const Vector middle = sceneMiddle();
  moveTo(middle - d * distance, middle, worldUp_);
}

void Navigation::center() {
  const Vector middle = sceneMiddle();
  moveTo(eye_ + (middle - centre_), middle, storedUp_);
}

void Navigation::reset() {
  setSceneBounds(boundsMin_, boundsMax_);
  const Vector middle = sceneMiddle();
  const bool empty =
      boundsMin_.x > boundsMax_.x || boundsMin_.y > boundsMax_.y || boundsMin_.z > boundsMax_.z;
  const double radius = empty ? 0.0 : 0.5 * lengthD(sub(toD(boundsMax_), toD(boundsMin_)));

  double distance = 1.0;
  if (radius > 0.0 && std::isfinite(radius)) {
    // The camera's image and the drawn perspective differ: the image takes its pixel size from
    // the tangent over the height, the drawn view scales the angle by height / width. The sphere
    // must fit both, across and up.
    const double w = width_, h = height_;
    double narrowest = std::min(std::atan(std::abs(camera_.pixelSizeX) * w * 0.5),
                                std::atan(std::abs(camera_.pixelSizeY) * h * 0.5));
    const double drawnVertical = camera_.fieldOfView * 0.5 * h / w;
    if (drawnVertical < std::numbers::pi / 2) {
      narrowest = std::min({narrowest, drawnVertical, std::atan(std::tan(drawnVertical) * w / h)});
    }
    if (!(narrowest > 1e-4) || !std::isfinite(narrowest)) narrowest = std::numbers::pi / 8;
    distance = radius / std::sin(narrowest);
  }

  const Vector front = yUp_ ? Vector(0, 0, -1) : Vector(0, 1, 0);
  moveTo(middle - front * static_cast<float>(distance), middle, worldUp_);
}

void Navigation::fromFile(const std::optional<StoredView>& view) {
  if (!view) {
    reset();
    return;
  }
  const PinholeCamera before = camera_;
  const float focal = setCameraFromStoredView(camera_, *view, static_cast<float>(width_),
                                              static_cast<float>(height_), sceneMiddle());
  const Vector eye = camera_.positionF();
  const Vector centre = eye + camera_.forward * focal;
  const float reach = length(centre - eye);
  const float upLength = length(camera_.up);
  if (!(reach > 0.0f) || !std::isfinite(reach) || !(upLength > 0.0f) || !std::isfinite(upLength)) {
    camera_ = before;
    reset();
    return;
  }
  // The stored frame is kept as it is until the next step; rebuilding it now would round the
  // double position to the eye's floats.
  eye_ = eye;
  centre_ = centre;
  storedUp_ = camera_.up;
}

const UpAxisMenuText& Navigation::toggleUpAxis() {
  yUp_ = !yUp_;
  worldUp_ = yUp_ ? Vector(0, 1, 0) : Vector(0, 0, 1);
  storedUp_ = worldUp_;
  reset();
  return upAxisMenuText();
}

void Navigation::setSelectionTool(bool active, SelectionShape shape) {
  selectionActive_ = active;
  selectionShape_ = shape;
}

bool Navigation::moving() const {
  return mode_ == DragMode::kOrbit || mode_ == DragMode::kPan || mode_ == DragMode::kZoom;
}

MouseResult Navigation::buttonDown(MouseButton button, const MouseInput& input) {
  if (mode_ != DragMode::kNone) return MouseResult::kNone;
  previous_ = {input.x, input.y};
  switch (button) {
    case MouseButton::kLeft:
      if ((!selectionActive_ && !input.ctrl) || input.alt) {
        mode_ = input.shift ? DragMode::kPan : DragMode::kOrbit;
        return MouseResult::kNone;
      }
      dragStart_ = previous_;
      if (selectionShape_ == SelectionShape::kPaint) {
        mode_ = DragMode::kPaint;
        return MouseResult::kStartPaint;
      }
      mode_ = DragMode::kRectangle;
      return input.shift ? MouseResult::kStartRectangle : MouseResult::kStartRectangleAfterClearing;
    case MouseButton::kMiddle:
      mode_ = DragMode::kPan;
      return MouseResult::kNone;
    case MouseButton::kRight:
      mode_ = DragMode::kZoom;
      return MouseResult::kNone;
  }
  return MouseResult::kNone;
}

MouseResult Navigation::buttonUp(MouseButton button, const MouseInput& input) {
  // A camera drag ends where the button came up. While a long frame keeps the window busy the
  // system passes on at most one motion, so the release may be the first news of where the drag
  // went: the camera still follows it all the way.
  const bool endsCameraDrag =
      (button == MouseButton::kLeft && (mode_ == DragMode::kOrbit || mode_ == DragMode::kPan)) ||
      (button == MouseButton::kMiddle && mode_ == DragMode::kPan) ||
      (button == MouseButton::kRight && mode_ == DragMode::kZoom);
  const MouseResult moved = endsCameraDrag ? motion(input) : MouseResult::kNone;
  switch (button) {
    case MouseButton::kLeft:
      if (mode_ == DragMode::kRectangle) {
        mode_ = DragMode::kNone;
        return MouseResult::kFinishRectangle;
      }
      if (mode_ == DragMode::kOrbit || mode_ == DragMode::kPan || mode_ == DragMode::kPaint) {
        mode_ = DragMode::kNone;
      }
      break;
    case MouseButton::kMiddle:
      if (mode_ == DragMode::kPan) mode_ = DragMode::kNone;
      break;
    case MouseButton::kRight:
      if (mode_ == DragMode::kZoom) mode_ = DragMode::kNone;
      break;
  }
  return moved;
}

MouseResult Navigation::motion(const MouseInput& input) {
  const Pixel now{input.x, input.y};
  if (mode_ == DragMode::kNone || now == previous_) return MouseResult::kNone;
  const int dx = now.x - previous_.x;
  const int dy = now.y - previous_.y;
  previous_ = now;
  switch (mode_) {
    case DragMode::kOrbit:
      orbit(dx, dy);
      return MouseResult::kRepaint;
    case DragMode::kPan:
      pan(dx, dy);
      return MouseResult::kRepaint;
    case DragMode::kZoom:
      zoom(-dy);
      return MouseResult::kRepaint;
    case DragMode::kRectangle:
      return MouseResult::kDragRectangle;
    case DragMode::kPaint:
      return MouseResult::kPaint;
    case DragMode::kNone:
      break;
  }
  return MouseResult::kNone;
}

std::optional<Pixel> Navigation::wrapCursor(Pixel screen, int screenWidth, int screenHeight) {
  if (!moving()) return std::nullopt;
  const int margin = settings_.cursorWrapMargin;
  Pixel to = screen;
  if (screen.x > screenWidth - margin) {
    to.x = margin;
  } else if (screen.x < margin) {
    to.x = screenWidth - margin;
  }
  if (screen.y > screenHeight - margin) {
    to.y = margin;
  } else if (screen.y < margin) {
    to.y = screenHeight - margin;
  }
  if (to == screen) return std::nullopt;
  previous_.x += to.x - screen.x;
  previous_.y += to.y - screen.y;
  return to;
}

}  // namespace LUtils
