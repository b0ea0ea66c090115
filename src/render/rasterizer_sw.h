// The software back end of Rasterizer3D: z-buffered, flat-shaded polygons, lines and square
// points into a frame buffer with two colour buffers, with the OpenGL back end's projection.
//
// Several threads may draw one frame at once in bands of rows (drawsInBands): each records the
// primitives of its slice of the discs, set up for the pixel stage, and the bands are then
// drawn from the recordings in slice order (band_recording.h). The picture is exactly the one a
// single thread draws.
#pragma once

#include <cstdint>
#include <vector>

#include "render/rasterizer.h"
#include "render/sw_raster.h"
#include "render/view_projection.h"
#include "threads/prefault.h"

namespace LUtils {

class RasterizerSW final : public Rasterizer3D {
 public:
  RasterizerSW();
  ~RasterizerSW() override;
  RasterizerSW(const RasterizerSW&) = delete;
  RasterizerSW& operator=(const RasterizerSW&) = delete;

  void setFillMode(int filled) override { fillMode_ = filled; }
  bool setBackfaceCulling(bool on) override;
  void setDepthTest(bool on) override { depthTest_ = on; }
  // Only the picking frame of colour-index picking (depth 0): drawing is limited to the
  // rectangle [x0, x1] x [y0, y1]. Picks through the depth buffer need OpenGL: false.
  bool beginSelection(int x0, int y0, int x1, int y1, float depth) override;
  // Ends the picking frame; the picked indices are read from colourBuffer(). Returns 0.
  int endSelection(SelectionCb& callback) override;
  // Reallocates the buffers. The far distance is kept: the canvas resizes on every window size
  // change and the viewer's far distance must survive that.
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
  void drawPoint(const Vector& position, int halfSize, const Color& color) override;
  void readPickIndices(int x0, int y0, int x1, int y1, std::vector<uint32_t>& indices) override;
  // Finishes the frame and exchanges the two colour buffers.
  void swapBuffers() override;

  // Discs that lie between pixel centres, or outside the drawing rectangle, are not made: their
  // window box is bounded from the sphere around them before any vertex is.
  bool mayShowDisc(const Vector& centre, float radius) override;
  bool drawsInBands() const override { return true; }
  int frameRows() const override { return height_; }
  int frameColumns() const override { return width_; }
  void recordOnThisThread(BandRecording* recording) override;
  void drawRecordedBand(const BandRecording& recording, unsigned band) override;

  int width() const { return width_; }
  int height() const { return height_; }
  // The finished picture (the buffer last exchanged by swapBuffers): width x height pixels, top
  // row first, each 0xAABBGGRR (red in the lowest byte).
  const uint32_t* picture() const { return front_.data(); }
  // The buffer being drawn; colour-index picking reads index = pixel & 0xFFFFFF from it.
  const uint32_t* colourBuffer() { return back_.data(); }

 private:
  struct ClipVertex {
    float x, y, z, w;
  };

  ClipVertex transform(const Vector& p) const;
  // The pixels a filled disc may cover, within the drawing rectangle: false when none; when
  // the sphere's box cannot be bounded (it reaches the near or far plane), the whole rectangle.
  bool discPixels(const Vector& centre, float radius, int& x0, int& y0, int& x1, int& y1) const;
  void submitPolygon(const Vector* points, unsigned count, uint32_t colour);
  void submitLine(const Vector& a, const Vector& b, uint32_t colour);
  // Window-space vertices (y downward, 1/256 pixel) and depth.
  swr::FixedVertex toWindow(const ClipVertex& c) const;
  void emitLine(const swr::FixedVertex& a, const swr::FixedVertex& b, uint32_t colour);
  void emit(swr::Prim& prim, const swr::FixedVertex* vertices);
  Color litColour(const Color& colour, const Vector& position, const Vector& normal) const;
  // The drawing rectangle back to the whole frame (after a picking frame).
  void drawWholeFrame();

  int width_ = 0;
  int height_ = 0;
  // Three buffers of the frame's size, mapped in huge pages when they are large.
  using Buffer = std::vector<uint32_t, FrameBufferAllocator<uint32_t>>;
  Buffer front_;
  Buffer back_;
  Buffer depth_;
  uint32_t clearColour_ = 0xFF000000u;
  int fillMode_ = 1;
  bool depthTest_ = true;
  bool cullRequested_ = false;
  bool cullActive_ = false;
  // Inclusive drawing rectangle.
  int clipMinX_ = 0, clipMinY_ = 0, clipMaxX_ = -1, clipMaxY_ = -1;
  float mvp_[16] = {};
  // mvp_ followed by the viewport (window x and y times w, y downward), in double, and the
  // lengths of its rows' linear parts: how far a sphere of radius 1 reaches in each.
  double window_[16] = {};
  double rowLength_[4] = {};
  CameraFrame frame_;
};

}  // namespace LUtils
