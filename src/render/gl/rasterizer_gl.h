// The OpenGL back end of Rasterizer3D: immediate-mode drawing, fixed-function lighting and the
// GL_SELECT pick protocol. It draws either into the caller's current context (window mode) or
// into an off-screen EGL context of its own, so that it renders and picks without a display.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "render/rasterizer.h"

namespace LUtils {

// An off-screen OpenGL context (EGL, Mesa's surfaceless platform, a pbuffer surface with
// colour, 24-bit depth and 8-bit stencil).
class OffscreenGLContext;

class RasterizerGL final : public Rasterizer3D {
 public:
  // Entries of the selection buffer (4 MiB).
  static constexpr uint32_t kSelectBufferSize = 1048576;

  RasterizerGL();
  ~RasterizerGL() override;
  RasterizerGL(const RasterizerGL&) = delete;
  RasterizerGL& operator=(const RasterizerGL&) = delete;

  void setFillMode(int filled) override;
  bool setBackfaceCulling(bool on) override;
  void setDepthTest(bool on) override;
  bool beginSelection(int x0, int y0, int x1, int y1, float depth) override;
  int endSelection(SelectionCb& callback) override;
  // Off-screen mode: (re)creates the off-screen context of that size, makes it current on the
  // calling thread and sets the far distance to 1000. In window mode the canvas's context is not
  // touched: the call only sets the viewport size and the far distance.
  void resize(int width, int height) override;
  void setClearColor(const Color& color) override;
  void beginFrame() override;
  void setCamera(Camera* camera) override { Rasterizer3D::setCamera(camera); }
  void drawLine(const Vector& a, const Vector& b, const Color& color) override;
  void drawLitLine(const Vector& a, const Vector& b, const Vector& na, const Vector& nb,
                   const Color& color) override;
  void drawLitTriangle(const Vector& a, const Vector& b, const Vector& c, const Vector& na,
                       const Vector& nb, const Vector& nc, const Color& color) override;
  void drawTriangle(const Vector& a, const Vector& b, const Vector& c,
                    const Color& color) override;
  void drawPolygon(const Vector* points, unsigned count, const Color& color) override;
  void drawPolygonRGBA(const Vector* points, unsigned count, uint32_t rgba) override;
  void drawQuadOrPolygon(const Vector* points, unsigned count, const Color& color) override;

  // Draw into the context current on the calling thread (the canvas's).
  void useWindowContext() {
    windowMode_ = 1;
    lighting_ = kLightingUnknown;
  }
  // The rasterizer remembers whether lighting is on between beginFrame and the primitives, so
  // that a million unlit discs do not switch it off a million times. Code that changes
  // GL_LIGHTING itself in between calls this afterwards.
  void forgetLightingState() { lighting_ = kLightingUnknown; }
  bool windowMode() const { return windowMode_ != 0; }
  // Stores the size; in window mode also sets the GL viewport.
  void setViewportSize(int width, int height);

  // Off-screen mode only. True once resize has made a context.
  bool hasOffscreenContext() const;
  // Makes the off-screen context current on the calling thread again.
  bool makeCurrent();
  // Why the last resize could not make a context (empty when it could).
  const std::string& offscreenError() const { return offscreenError_; }
  // True when the off-screen context's renderer is a software one (llvmpipe, softpipe).
  bool softwareRenderer() const;
  // The picture of the current context's back buffer: width x height pixels, top row first, each
  // 0xAABBGGRR (red in the lowest byte), like RasterizerSW's buffers.
  bool readPixels(std::vector<uint32_t>& pixels, int& width, int& height) const;

  // Compiled geometry is a display list of the current context; deleting 0 is ignored.
  bool canCacheGeometry() const override { return true; }
  uint32_t beginGeometry() override;
  void endGeometry() override;
  void drawGeometry(uint32_t list) override;
  void deleteGeometry(uint32_t list) override;
  // Picks report the name loaded before each primitive (a sample's index).
  bool loadsPickNames() const override { return true; }
  void loadPickName(uint32_t name) override;
  bool pickOverflowed() const override {
    return selectOverflowed_ || (selectionEnded_ != 0 && hitCount_ < 0);
  }
  void beginOverlayOutlines() override;
  void endOverlayOutlines() override;
  void setLineWidth(float width) override;
  void readPickIndices(int x0, int y0, int x1, int y1, std::vector<uint32_t>& indices) override;

  // The raw selection buffer (null before the first pick through the buffer).
  const uint32_t* selectBuffer() const { return selectBuffer_.get(); }

  // A filled polygon that covers no pixel centre makes no fragment, so frames and colour picks
  // do not send it to OpenGL: on a dense map most discs are smaller than a pixel. The test is
  // made on the polygon's bounding box in window coordinates, with a margin far above the
  // rounding of the two transforms, and only for polygons that no near or far plane clips; so
  // the picture is the one every polygon draws. A small polygon is looked at triangle by
  // triangle, as OpenGL takes its fan apart: only the triangles that may cover a pixel centre
  // are sent, as separate triangles with their vertices in the fan's order, which OpenGL
  // rasterizes as it would the fan's. Never while recording compiled geometry (it is replayed
  // in other views) or in a select pass (a hit needs no pixel). On by default; the count of
  // polygons skipped whole, and of the triangles left out of small fans, are for tests.
  void setSkipsPolygonsBetweenPixels(bool on) { skipBetweenPixels_ = on; }
  // The same test on the bounding sphere of a disc, before its polygon is made: a disc far
  // smaller than a pixel costs one projection.
  bool mayShowDisc(const Vector& centre, float radius) override;
  uint64_t skippedPolygons() const { return skippedPolygons_; }
  uint64_t skippedTriangles() const { return skippedTriangles_; }

 private:
  enum Lighting : uint8_t { kLightingUnknown, kLightingOn, kLightingOff };
  // Switches GL_LIGHTING unless it is known to be as wanted already.
  void lighting(bool on);
  void applyProjection(int width, int height) const;
  void applyLookAt() const;
  // Makes windowTransform_ and its row lengths from OpenGL's matrices and viewport if need be.
  void knowWindowTransform();
  // Whether polygons may be skipped at all now (see setSkipsPolygonsBetweenPixels).
  bool skipping() const {
    return skipBetweenPixels_ && fillMode_ != 0 && !compiling_ && !selecting_;
  }
  // The triangles of the filled polygon's fan that may make a fragment, bit t for the triangle
  // of vertices 0, t + 1 and t + 2 (see setSkipsPolygonsBetweenPixels); 0 when none does. With
  // `wholeOnly` (a quad, which OpenGL does not take apart as a fan) all or none.
  uint32_t trianglesToDraw(const Vector* points, unsigned count, bool wholeOnly);
  // Draws the fan's triangles of the mask: the whole fan when it holds them all.
  static void emitFan(const Vector* points, unsigned count, uint32_t triangles);
  // Pixel centres lie at k + 0.5; a sixteenth of a pixel covers every rounding of the two
  // transforms and of the rasterizer's fixed-point vertices.
  static constexpr double kCoverMargin = 1.0 / 16.0;
  static_assert(kCoverMargin > 0.0);
  // Polygons wider and taller than this are drawn whole without looking at their triangles.
  static constexpr double kLargePolygonPixels = 4.0;
  // The pixel centres in [lo, hi] on one axis, allowing for the margin.
  static int centresIn(double lo, double hi);
  // Whether the triangle (window coordinates) may cover a pixel centre.
  static bool mayCoverACentre(double x0, double y0, double x1, double y1, double x2, double y2);

  int windowMode_ = 0;
  std::unique_ptr<OffscreenGLContext> bitmap_;
  std::string offscreenError_;
  int fillMode_ = 255;
  Lighting lighting_ = kLightingUnknown;
  bool cullBackFaces_ = false;
  // Selection state.
  bool singlePoint_ = false;
  bool allDepths_ = false;
  uint32_t depthTolerance_ = 0;
  std::unique_ptr<uint32_t[]> selectBuffer_;
  int32_t hitCount_ = 0;
  int selectionEnded_ = 0;
  // A pick through names runs in stretches of kNamesPerStretch names, each a select pass of its
  // own into the rest of the buffer (see loadPickName).
  static constexpr uint32_t kNamesPerStretch = 4096;
  void nextSelectStretch();
  void startSelectPass();
  bool selecting_ = false;
  bool compiling_ = false;  // between beginGeometry and endGeometry
  bool selectOverflowed_ = false;
  uint32_t stretchNames_ = 0;
  uint32_t selectUsed_ = 0;     // entries the ended stretches wrote
  uint32_t selectRecords_ = 0;  // records the ended stretches wrote
  uint32_t selectSpare_[1] = {0};
  // The current frame's or pick's projection x model-view with the viewport folded into its x
  // and y rows (column-major), read from OpenGL at the first polygon after they were set.
  bool skipBetweenPixels_ = true;
  bool windowTransformKnown_ = false;
  double windowTransform_[16] = {};
  // The lengths of the x, y, z and w rows' first three terms: how far a point's window x and y
  // and clip z and w move when the point moves by one unit.
  double rowLength_[4] = {};
  uint64_t skippedPolygons_ = 0;
  uint64_t skippedTriangles_ = 0;
};

}  // namespace LUtils
