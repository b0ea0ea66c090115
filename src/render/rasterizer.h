// The one drawing interface of the viewer: primitives, render state, the camera, the viewport and
// a two-phase pick protocol. RasterizerGL (OpenGL) and RasterizerSW (software) implement it.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "io/vector.h"

namespace LUtils {

class BandRecording;
class Camera;

class Rasterizer3D {
 public:
  // Receives the result of a pick. The order of the virtual operations is part of the interface.
  class SelectionCb {
   public:
    // Called once when the pick produced at least one hit; false stops at once.
    virtual bool start() = 0;
    // Asked only in picks through all depths: true asks for a `nearest` call first.
    virtual bool wantNearest() = 0;
    // The first name of the nearest hit record and the number of records examined.
    virtual void nearest(uint32_t name, uint32_t recordsExamined) = 0;
    // One picked name (a sample index).
    virtual void hit(uint32_t name) = 0;

   protected:
    ~SelectionCb() = default;
  };

  // The order of the virtual operations is part of the interface.
  virtual ~Rasterizer3D() = default;                                                      // 0
  // 0 draws polygons as outlines, any other value filled.
  virtual void setFillMode(int filled) = 0;                                               // 1
  // Takes effect at the next beginFrame; returns the previous value.
  virtual bool setBackfaceCulling(bool on) = 0;                                           // 2
  virtual void setDepthTest(bool on) = 0;                                                 // 3
  // Window pixels, y downward. depth 0: a picking frame restricted to the rectangle; negative:
  // a pick through all depths; positive: a pick of the hits within that fraction of the depth
  // range behind the nearest one.
  virtual bool beginSelection(int x0, int y0, int x1, int y1, float depth) = 0;           // 4
  // Reports the hits of the pick begun by beginSelection; may be called again with another
  // callback to walk the same hits. Returns the hit count (-1 for an overflowed buffer).
  virtual int endSelection(SelectionCb& callback) = 0;                                    // 5
  virtual void resize(int width, int height) = 0;                                         // 6
  virtual void setClearColor(const Color& color) = 0;                                     // 7
  virtual void beginFrame() = 0;                                                          // 8
  // Stores the camera (not owned); both back ends use the base's body.
  virtual void setCamera(Camera* camera) = 0;                                             // 9
  virtual void drawLine(const Vector& a, const Vector& b, const Color& color) = 0;        // 10
  virtual void drawLitLine(const Vector& a, const Vector& b, const Vector& na,
                           const Vector& nb, const Color& color) = 0;                     // 11
  virtual void drawLitTriangle(const Vector& a, const Vector& b, const Vector& c,
                               const Vector& na, const Vector& nb, const Vector& nc,
                               const Color& color) = 0;                                   // 12
  virtual void drawTriangle(const Vector& a, const Vector& b, const Vector& c,
                            const Color& color) = 0;                                      // 13
  // A convex polygon as a fan over the points in order; nothing below 3 points.
  virtual void drawPolygon(const Vector* points, unsigned count, const Color& color) = 0;  // 14
  // `rgba` holds the bytes R, G, B, A from the lowest up.
  virtual void drawPolygonRGBA(const Vector* points, unsigned count, uint32_t rgba) = 0;  // 15
  // Four points draw one quad, any other count a polygon.
  virtual void drawQuadOrPolygon(const Vector* points, unsigned count,
                                 const Color& color) = 0;                                 // 16
  virtual void drawPoint(const Vector& position, int halfSize, const Color& color) {     // 17
    (void)position;
    (void)halfSize;
    (void)color;
  }
  virtual void swapBuffers() {}                                                           // 18

  // What differs between back ends, asked by the shared drawing code instead of asking which
  // back end it has. The defaults describe a back end with none of these abilities.

  // Compiled geometry (OpenGL display lists). beginGeometry starts recording the calls that
  // follow until endGeometry and returns a handle, or 0 when nothing can be recorded.
  virtual bool canCacheGeometry() const { return false; }
  virtual uint32_t beginGeometry() { return 0; }
  virtual void endGeometry() {}
  virtual void drawGeometry(uint32_t handle) { (void)handle; }
  virtual void deleteGeometry(uint32_t handle) { (void)handle; }

  // Picks through a buffer of names (OpenGL's select buffer): the name of the primitives that
  // follow, a sample's index. A back end that picks by index colours needs no names.
  virtual bool loadsPickNames() const { return false; }
  virtual void loadPickName(uint32_t name) { (void)name; }
  // True once a pick through names has filled its buffer, until the next pick starts: nothing
  // drawn after that changes what the pick reports (nothing, in a rectangle at depth), so the
  // drawing may stop there.
  virtual bool pickOverflowed() const { return false; }

  // False when a filled disc of this centre and radius can make no fragment (it lies between
  // pixel centres), so that its polygon need not even be made. The default knows nothing.
  virtual bool mayShowDisc(const Vector& centre, float radius) {
    (void)centre;
    (void)radius;
    return true;
  }

  // Drawing from several threads in bands of rows (see band_recording.h): threads draw slices
  // of the discs at once, each recording what it draws, filed by bands of rows, instead of
  // drawing it; then each band is drawn by one thread from the slices' recordings in slice
  // order, so that each pixel sees the discs in the order one thread would draw them. A back
  // end that can returns true from drawsInBands(); then
  //   recordOnThisThread(recording) files what the calling thread draws into `recording`, whose
  //   bands the caller set up for frameRows(), and recordOnThisThread(nullptr) ends that;
  //   drawRecordedBand(recording, band) draws what the recording filed in that band.
  virtual bool drawsInBands() const { return false; }
  virtual int frameRows() const { return 0; }
  virtual int frameColumns() const { return 0; }
  virtual void recordOnThisThread(BandRecording* recording) { (void)recording; }
  virtual void drawRecordedBand(const BandRecording& recording, unsigned band) {
    (void)recording;
    (void)band;
  }

  // Outlines drawn over the filled geometry they enclose (selection boxes): pulled towards the
  // eye where the depth test can do that, otherwise drawn with the depth test off.
  virtual void beginOverlayOutlines() { setDepthTest(false); }
  virtual void endOverlayOutlines() {}
  // Width of lines in pixels, where the back end draws wider lines than one pixel.
  virtual void setLineWidth(float width) { (void)width; }

  // The index colours of a picking frame (beginSelection with depth 0, then the picking pass),
  // one entry per pixel, index = red + green x 256 + blue x 65536 (0xFFFFFF: the background).
  // OpenGL drew the frame into a viewport of the pick rectangle's size and reads that viewport;
  // the software back end reads the rectangle [x0, x1] x [y0, y1] of its frame.
  virtual void readPickIndices(int x0, int y0, int x1, int y1, std::vector<uint32_t>& indices) = 0;

  Camera* camera() const { return camera_; }
  // The near plane is always 0.001 times the far distance.
  float farDistance() const { return farDistance_; }
  void setFarDistance(float distance) { farDistance_ = distance; }
  float nearDistance() const { return farDistance_ * 0.001f; }
  int viewportWidth() const { return viewportWidth_; }
  int viewportHeight() const { return viewportHeight_; }

 protected:
  Camera* camera_ = nullptr;
  float farDistance_ = 1000.0f;
  int viewportWidth_ = 0;
  int viewportHeight_ = 0;
};

// Ends a pick without doing anything.
class DummySelectionCb final : public Rasterizer3D::SelectionCb {
 public:
  bool start() override { return false; }
  bool wantNearest() override { return false; }
  void nearest(uint32_t, uint32_t) override {}
  void hit(uint32_t) override {}
};

inline void Rasterizer3D::setCamera(Camera* camera) { camera_ = camera; }

}  // namespace LUtils
