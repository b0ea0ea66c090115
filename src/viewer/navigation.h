// The viewer's navigation: orbit, pan, zoom and dolly around an orbit centre, the standard views
// and the mouse-drag state machine, as plain C++ that the window feeds with events and pixels.
#pragma once

#include <optional>

#include "io/vector.h"
#include "render/camera.h"

namespace LUtils {

// What steers navigation; one instance per viewer, so tests and a future preferences dialog can
// change it without touching globals.
struct NavigationSettings {
  float orbitDegreesPerPixel = 0.25f;
  float panPerPixel = 0.002f;      // scene units per pixel, per unit of eye-to-centre distance
  float zoomBase = 0.99f;          // the distance scales by zoomBase^pixels of vertical drag
  float dollyDivisorFast = 10.0f;  // a dolly step is the far distance divided by this with Shift
  float dollyDivisor = 100.0f;     // and by this without
  int cursorWrapMargin = 5;        // pixels from the screen edge where a drag wraps the cursor
};

// The menu label (with its accelerator) and help text of the up-axis item: it always offers the
// axis that is not up now.
struct UpAxisMenuText {
  const char* label;
  const char* help;
};
inline constexpr UpAxisMenuText kOfferZUp{"Make the Z axis point up.\tu",
                                          "Suitable for lumaps created in Autodesk 3ds Max."};
inline constexpr UpAxisMenuText kOfferYUp{"Make the Y axis point up.\tu",
                                          "Suitable for lumaps created in Autodesk Maya."};

enum class StandardView { kTop, kBottom, kFront, kBack, kLeft, kRight };

enum class DragMode { kNone = 0, kOrbit = 1, kPan = 2, kZoom = 3, kRectangle = 4, kPaint = 5 };

enum class MouseButton { kLeft, kMiddle, kRight };

// The selection tool a left drag uses when it selects instead of orbiting.
enum class SelectionShape { kRectangle, kPaint };

// One mouse event as the window sees it: window pixels (y downward), buttons and modifiers.
struct MouseInput {
  int x = 0, y = 0;
  bool left = false, middle = false, right = false;
  bool ctrl = false, shift = false, alt = false;
};

// What the window must do after a mouse event. Selection itself belongs to the window's
// selection code; navigation only decides when a gesture starts, moves and ends.
enum class MouseResult {
  kNone,
  kRepaint,                      // the camera changed
  kStartRectangle,               // keep the selection, begin a rubber band at dragStart()
  kStartRectangleAfterClearing,  // clear the selection first, then as kStartRectangle
  kStartPaint,                   // select the paint square around the cursor now
  kDragRectangle,                // redraw the rubber band from dragStart() to the cursor
  kPaint,                        // the cursor moved: select the paint square around it
  kFinishRectangle,              // select what the rubber band encloses
};

struct Pixel {
  int x = 0, y = 0;
  bool operator==(const Pixel&) const = default;
};

class Navigation {
 public:
  // Starts Z up with an empty scene, looking at the origin from distance 1.
  Navigation();

  NavigationSettings& settings() { return settings_; }
  const NavigationSettings& settings() const { return settings_; }

  // The camera that every step rebuilds; the rasterizer draws through it (not owned there).
  PinholeCamera& camera() { return camera_; }
  const PinholeCamera& camera() const { return camera_; }

  const Vector& eye() const { return eye_; }
  const Vector& orbitCentre() const { return centre_; }
  const Vector& storedUp() const { return storedUp_; }
  const Vector& worldUp() const { return worldUp_; }
  bool yUp() const { return yUp_; }

  // The start-up axis settings, copied in by the window; the frame is rebuilt with them.
  void setUpAxes(bool yUp, const Vector& worldUp, const Vector& storedUp);

  // The scene's bounding box; min > max in any component means no samples. Also sets the far
  // distance to 4 x the box's diagonal.
  void setSceneBounds(const Vector& min, const Vector& max);
  Vector sceneMiddle() const;

  // Dolly steps scale from the far distance; the window hands it to the rasterizer.
  float farDistance() const { return farDistance_; }
  void setFarDistance(float distance) { farDistance_ = distance; }

  // Canvas size in pixels (sizes below 1 count as 1, as a minimised window reports 0).
  void setCanvasSize(int width, int height);
  int canvasWidth() const { return width_; }
  int canvasHeight() const { return height_; }

  // Single steps. dx and dy are pixel differences, y downward. Orbit and pan move the scene with
  // the cursor, as if it were grabbed; zoom takes the upward drag dy = previous y - current y
  // and moves closer for positive values. A step that would leave no usable frame (the eye on
  // the centre, an overflow) is dropped.
  void orbit(int dx, int dy);
  void pan(int dx, int dy);
  void zoom(int upwardPixels);
  void dolly(bool forwards, bool fast);

  // Looks along the view's direction at the middle of the box from the current distance, with
  // the world up axis as stored up.
  void showView(StandardView view);
  // Moves the orbit centre to the middle of the box, keeping direction and distance.
  void center();
  // The default view: along the Front direction of the current up axis, at the middle of the box,
  // from the distance at which the box's bounding sphere fits the narrowest half-angle of the
  // camera's image and of the drawn perspective, across and up (the two differ). The field of
  // view itself is kept. An empty box, or one of a single point, is seen from distance 1 around
  // its middle (the origin when empty). Sets the far distance to 4 x the diagonal (4 for those
  // boxes), which on a canvas much taller than wide can fall short of the box's back.
  void reset();
  // The map's stored view, or reset() when the map has none or its view has no usable frame.
  // The orbit centre goes to the focal distance along the view, and the stored up becomes the
  // view's up so the next step keeps its roll.
  void fromFile(const std::optional<StoredView>& view);

  // Flips the up axis, sets world and stored up to it, resets the view and returns the text the
  // menu item must show now.
  const UpAxisMenuText& toggleUpAxis();
  // The text the menu item shows for the current axis.
  const UpAxisMenuText& upAxisMenuText() const { return yUp_ ? kOfferZUp : kOfferYUp; }

  // Mouse state machine. A press while any drag is active is ignored; a left press selects
  // instead of orbiting when the selection tool is active or Ctrl is down, unless Alt is down.
  void setSelectionTool(bool active, SelectionShape shape);
  MouseResult buttonDown(MouseButton button, const MouseInput& input);
  MouseResult buttonUp(MouseButton button, const MouseInput& input);
  MouseResult motion(const MouseInput& input);

  DragMode dragMode() const { return mode_; }
  // True during orbit, pan and zoom drags; the window draws a reduced frame then.
  bool moving() const;
  Pixel dragStart() const { return dragStart_; }
  Pixel previousPosition() const { return previous_; }

  // Called with the cursor's screen position after each drag step. While moving(), a cursor
  // beyond the margin of a screen of width x height pixels goes to the margin from the opposite
  // edge: returns where to warp it, and shifts the previous position by the same jump so the
  // next step sees only the motion since the warp.
  std::optional<Pixel> wrapCursor(Pixel screen, int screenWidth, int screenHeight);

 private:
  // Derives the camera frame from eye, centre and stored up; false (and nothing changed) when
  // eye and centre leave no direction.
  bool rebuildFrame();
  // Sets eye, centre and stored up and rebuilds; restores all three when the frame cannot be
  // built.
  bool moveTo(const Vector& eye, const Vector& centre, const Vector& storedUp);

  NavigationSettings settings_;
  PinholeCamera camera_;
  Vector eye_{0.0f, 0.0f, 1.0f};
  Vector centre_;
  Vector storedUp_{0.0f, 0.0f, 1.0f};
  Vector worldUp_{0.0f, 0.0f, 1.0f};
  bool yUp_ = false;
  Vector boundsMin_{1.0f, 1.0f, 1.0f};
  Vector boundsMax_{-1.0f, -1.0f, -1.0f};
  float farDistance_ = 4.0f;
  int width_ = 800, height_ = 600;

  bool selectionActive_ = false;
  SelectionShape selectionShape_ = SelectionShape::kRectangle;
  DragMode mode_ = DragMode::kNone;
  Pixel dragStart_;
  Pixel previous_;
};

}  // namespace LUtils
