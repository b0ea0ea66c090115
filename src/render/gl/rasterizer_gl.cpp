#include "render/gl/rasterizer_gl.h"

#include <GL/gl.h>
#include <GL/glu.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "render/gl/offscreen_gl_context.h"
#include "render/view_projection.h"

namespace LUtils {

namespace {

void vertex(const Vector& v) { glVertex3f(v.x, v.y, v.z); }

// The mask of every triangle of a fan of `count` vertices (count >= 3).
uint32_t wholeFan(unsigned count) {
  return count - 2 < 32 ? (uint32_t{1} << (count - 2)) - 1 : ~0u;
}

}  // namespace

RasterizerGL::RasterizerGL() = default;

RasterizerGL::~RasterizerGL() = default;

bool RasterizerGL::hasOffscreenContext() const { return bitmap_ != nullptr && bitmap_->ok(); }

bool RasterizerGL::makeCurrent() { return hasOffscreenContext() && bitmap_->makeCurrent(); }

bool RasterizerGL::softwareRenderer() const {
  return hasOffscreenContext() && bitmap_->softwareRenderer();
}

void RasterizerGL::lighting(bool on) {
  const Lighting wanted = on ? kLightingOn : kLightingOff;
  if (lighting_ == wanted) return;
  if (on) {
    glEnable(GL_LIGHTING);
  } else {
    glDisable(GL_LIGHTING);
  }
  lighting_ = wanted;
}

void RasterizerGL::setFillMode(int filled) {
  if (filled == fillMode_) return;
  fillMode_ = filled;
  glPolygonMode(GL_FRONT_AND_BACK, filled == 0 ? GL_LINE : GL_FILL);
}

bool RasterizerGL::setBackfaceCulling(bool on) {
  const bool previous = cullBackFaces_;
  cullBackFaces_ = on;
  return previous;
}

void RasterizerGL::setDepthTest(bool on) {
  if (on) {
    glEnable(GL_DEPTH_TEST);
  } else {
    glDisable(GL_DEPTH_TEST);
  }
}

void RasterizerGL::setClearColor(const Color& color) {
  glClearColor(color.r, color.g, color.b, 1.0f);
  glClearDepth(10000.0);
}

void RasterizerGL::resize(int width, int height) {
  windowTransformKnown_ = false;
  lighting_ = kLightingUnknown;
  if (windowMode_ != 0) {
    setViewportSize(width, height);
    farDistance_ = 1000.0f;
    return;
  }
  bitmap_.reset();
  bitmap_ = std::make_unique<OffscreenGLContext>(width, height);
  offscreenError_ = bitmap_->error();
  if (bitmap_->ok()) {
    viewportWidth_ = width;
    viewportHeight_ = height;
    glViewport(0, 0, width, height);
  } else {
    bitmap_.reset();
  }
  farDistance_ = 1000.0f;
}

void RasterizerGL::setViewportSize(int width, int height) {
  windowTransformKnown_ = false;
  viewportWidth_ = width;
  viewportHeight_ = height;
  if (windowMode_ != 0) glViewport(0, 0, width, height);
}

void RasterizerGL::applyProjection(int width, int height) const {
  const float fov = cameraFrame(camera_).fieldOfView;
  const double h = height > 0 ? height : 1;
  gluPerspective(verticalFovDegrees(fov, width, height), static_cast<double>(width) / h,
                 nearDistance(), farDistance_);
}

void RasterizerGL::applyLookAt() const {
  const CameraFrame frame = cameraFrame(camera_);
  if (!frame.valid) return;
  const Vector& e = frame.eye;
  const Vector c = frame.eye + frame.forward;
  gluLookAt(e.x, e.y, e.z, c.x, c.y, c.z, frame.up.x, frame.up.y, frame.up.z);
}

void RasterizerGL::beginFrame() {
  windowTransformKnown_ = false;
  int width = viewportWidth_;
  int height = viewportHeight_;
  if (windowMode_ == 0 && hasOffscreenContext()) {
    width = bitmap_->width();
    height = bitmap_->height();
  }
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

  glMatrixMode(GL_PROJECTION);
  glLoadIdentity();
  applyProjection(width, height);
  glMatrixMode(GL_MODELVIEW);
  glLoadIdentity();
  applyLookAt();

  glDepthFunc(GL_LEQUAL);
  glEnable(GL_DEPTH_TEST);

  glEnable(GL_LIGHTING);
  lighting_ = kLightingOn;
  glLightModeli(GL_LIGHT_MODEL_LOCAL_VIEWER, 1);
  glLightModeli(GL_LIGHT_MODEL_TWO_SIDE, 1);
  const GLfloat ambient[4] = {0.2f, 0.2f, 0.2f, 1.0f};
  glLightModelfv(GL_LIGHT_MODEL_AMBIENT, ambient);

  // A warm and a cool light above and behind the eye, on either side; the model-view matrix is
  // the camera's, so the positions are given in world space.
  const CameraFrame frame = cameraFrame(camera_);
  const Vector warm = frame.eye + frame.right - frame.forward + frame.up;
  const Vector cool = frame.eye - frame.right - frame.forward + frame.up;
  const GLfloat warmPosition[4] = {warm.x, warm.y, warm.z, 1.0f};
  const GLfloat coolPosition[4] = {cool.x, cool.y, cool.z, 1.0f};
  const GLfloat warmColour[4] = {0.5f, 0.5f, 0.4f, 1.0f};
  const GLfloat coolColour[4] = {0.4f, 0.4f, 0.5f, 1.0f};
  glEnable(GL_LIGHT0);
  glLightfv(GL_LIGHT0, GL_POSITION, warmPosition);
  glLightfv(GL_LIGHT0, GL_DIFFUSE, warmColour);
  glLightfv(GL_LIGHT0, GL_SPECULAR, warmColour);
  glEnable(GL_LIGHT1);
  glLightfv(GL_LIGHT1, GL_POSITION, coolPosition);
  glLightfv(GL_LIGHT1, GL_DIFFUSE, coolColour);
  glLightfv(GL_LIGHT1, GL_SPECULAR, coolColour);

  glEnable(GL_COLOR_MATERIAL);
  glColorMaterial(GL_FRONT_AND_BACK, GL_AMBIENT_AND_DIFFUSE);
  const GLfloat specular[4] = {1.0f, 1.0f, 1.0f, 1.0f};
  glMaterialfv(GL_FRONT_AND_BACK, GL_SPECULAR, specular);
  glMaterialf(GL_FRONT_AND_BACK, GL_SHININESS, 50.0f);

  if (cullBackFaces_) {
    glEnable(GL_CULL_FACE);
    glCullFace(GL_BACK);
  } else {
    glDisable(GL_CULL_FACE);
  }
}

bool RasterizerGL::beginSelection(int x0, int y0, int x1, int y1, float depth) {
  windowTransformKnown_ = false;
  GLint viewport[4] = {0, 0, 0, 0};
  glGetIntegerv(GL_VIEWPORT, viewport);

  selectOverflowed_ = false;
  hitCount_ = 0;
  if (depth != 0.0f) {
    if (!selectBuffer_) {
      // Value-initialised: an overflowed pick walks the whole buffer.
      selectBuffer_ = std::make_unique<uint32_t[]>(kSelectBufferSize);
    }
    selecting_ = true;
    stretchNames_ = 0;
    selectUsed_ = 0;
    selectRecords_ = 0;
    startSelectPass();
  }

  const double pickWidth = std::max(1.0, static_cast<double>(x1) - x0);
  const double pickHeight = std::max(1.0, static_cast<double>(y1) - y0);
  glViewport(0, 0, static_cast<GLsizei>(pickWidth), static_cast<GLsizei>(pickHeight));

  glMatrixMode(GL_PROJECTION);
  glPushMatrix();
  glLoadIdentity();
  const double centreX = (static_cast<double>(x0) + x1) / 2.0;
  const double centreY = viewport[3] - 1 - (static_cast<double>(y0) + y1) / 2.0;
  gluPickMatrix(centreX, centreY, pickWidth, pickHeight, viewport);
  applyProjection(viewportWidth_, viewportHeight_);

  glMatrixMode(GL_MODELVIEW);
  glPushMatrix();
  glLoadIdentity();
  applyLookAt();

  allDepths_ = depth < 0.0f;
  depthTolerance_ = static_cast<uint32_t>(
      static_cast<uint64_t>(std::fabs(static_cast<double>(depth)) * 4294967296.0));
  singlePoint_ = x0 == x1 && y0 == y1;
  selectionEnded_ = 0;
  return true;
}

int RasterizerGL::endSelection(SelectionCb& callback) {
  windowTransformKnown_ = false;
  if (selectionEnded_ == 0) {
    // The model-view matrix is popped twice; the pushed projection is reset by the next frame.
    glPopMatrix();
    glPopMatrix();
    glFlush();
    glViewport(0, 0, viewportWidth_, viewportHeight_);
    hitCount_ = glRenderMode(GL_RENDER);
    if (selecting_) {
      // The last stretch's records follow the others'; into the spare entry any record overflows.
      const bool spare = selectUsed_ >= kSelectBufferSize;
      if (selectOverflowed_ || hitCount_ < 0 || (spare && hitCount_ > 0)) {
        hitCount_ = -1;
      } else {
        hitCount_ += static_cast<int32_t>(selectRecords_);
      }
      selecting_ = false;
    }
    selectionEnded_ = 1;
  }
  if (hitCount_ == 0) return 0;
  if (!callback.start()) return hitCount_;
  const uint32_t* buffer = selectBuffer_.get();
  if (buffer == nullptr) return hitCount_;

  // Records: name count, minimum depth, maximum depth, names. An overflowed pick (-1) walks to
  // the end of the buffer.
  const uint32_t records = static_cast<uint32_t>(hitCount_);
  auto forEachRecord = [&](auto&& visit) {
    uint32_t pos = 0;
    for (uint32_t r = 0; r < records; ++r) {
      if (pos + 3 > kSelectBufferSize) break;
      const uint32_t nameCount = buffer[pos];
      if (nameCount > kSelectBufferSize - pos - 3) break;
      visit(r, buffer[pos + 1], &buffer[pos + 3], nameCount);
      pos += 3 + nameCount;
    }
  };

  int64_t nearestRecord = -1;
  uint32_t nearestDepth = 0xFFFFFFFFu;
  if (!allDepths_ || callback.wantNearest()) {
    uint32_t examined = 0;
    uint32_t nearestName = 0xFFFFFFFFu;
    forEachRecord([&](uint32_t r, uint32_t minDepth, const uint32_t* names, uint32_t count) {
      ++examined;
      if (minDepth < nearestDepth) {  // ties keep the first record
        nearestDepth = minDepth;
        nearestRecord = r;
        nearestName = count > 0 ? names[0] : 0xFFFFFFFFu;
      }
    });
    if (nearestRecord >= 0) callback.nearest(nearestName, examined);
  }

  if (allDepths_) {
    if (hitCount_ > 0) {
      forEachRecord([&](uint32_t, uint32_t, const uint32_t* names, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i) callback.hit(names[i]);
      });
    }
  } else if (singlePoint_) {
    forEachRecord([&](uint32_t r, uint32_t, const uint32_t* names, uint32_t count) {
      if (static_cast<int64_t>(r) != nearestRecord) return;
      for (uint32_t i = 0; i < count; ++i) callback.hit(names[i]);
    });
  } else if (hitCount_ > 0 && nearestRecord >= 0) {
    forEachRecord([&](uint32_t, uint32_t minDepth, const uint32_t* names, uint32_t count) {
      const int64_t difference =
          std::llabs(static_cast<int64_t>(minDepth) - static_cast<int64_t>(nearestDepth));
      if (difference >= static_cast<int64_t>(depthTolerance_)) return;
      for (uint32_t i = 0; i < count; ++i) callback.hit(names[i]);
    });
  }
  return hitCount_;
}

// A select pass's hit count is known only when it ends, so a pick through names ends its pass
// every kNamesPerStretch names and starts the next one into the rest of the same buffer. The
// records come out exactly as one pass would write them: the record of the name in hand is
// written when its pass ends, as the next name would have written it, and the next pass starts
// with the same name stack. A stretch that overflows the rest of the buffer has written the
// buffer up to its end, as one pass would have, and settles the pick: the hit count is -1
// whatever follows, and pickOverflowed tells the drawing that it may stop. Until the pick ends,
// what is drawn still goes to a select pass (into one spare entry), never to the frame. Names
// recorded into compiled geometry are replayed by OpenGL in the pass that replays them.
void RasterizerGL::startSelectPass() {
  if (!selectOverflowed_ && selectUsed_ < kSelectBufferSize) {
    glSelectBuffer(static_cast<GLsizei>(kSelectBufferSize - selectUsed_),
                   selectBuffer_.get() + selectUsed_);
  } else {
    glSelectBuffer(1, selectSpare_);
  }
  glRenderMode(GL_SELECT);
  glInitNames();
  glPushName(0xFFFFFFFFu);
}

void RasterizerGL::nextSelectStretch() {
  const GLint hits = glRenderMode(GL_RENDER);
  if (!selectOverflowed_) {
    if (hits < 0 || (selectUsed_ >= kSelectBufferSize && hits > 0)) {
      selectOverflowed_ = true;
    } else {
      const uint32_t* records = selectBuffer_.get();
      for (GLint i = 0; i < hits && selectUsed_ < kSelectBufferSize; ++i) {
        selectUsed_ += 3 + records[selectUsed_];
      }
      selectRecords_ += static_cast<uint32_t>(hits);
    }
  }
  startSelectPass();
  stretchNames_ = 0;
}

void RasterizerGL::loadPickName(uint32_t name) {
  // Compiled geometry records the names and is replayed in one pass.
  if (selecting_ && !compiling_ && ++stretchNames_ > kNamesPerStretch) {
    nextSelectStretch();
  }
  glLoadName(name);
}

// A list must set the lighting itself: it is called in frames whose state the compile did not
// see. Compiling does not change the context's state, and calling a list may.
uint32_t RasterizerGL::beginGeometry() {
  const GLuint list = glGenLists(1);
  if (list != 0) glNewList(list, GL_COMPILE);
  compiling_ = list != 0;
  lighting_ = kLightingUnknown;
  return list;
}

void RasterizerGL::endGeometry() {
  glEndList();
  compiling_ = false;
  lighting_ = kLightingUnknown;
}

void RasterizerGL::drawGeometry(uint32_t list) {
  glCallList(list);
  lighting_ = kLightingUnknown;
}

void RasterizerGL::deleteGeometry(uint32_t list) {
  if (list != 0) glDeleteLists(list, 1);
}

void RasterizerGL::setLineWidth(float width) { glLineWidth(width); }

// Outlines keep the depth test and are pulled towards the eye, so that boxes stay visible over
// the discs they enclose but not over nearer geometry.
void RasterizerGL::beginOverlayOutlines() {
  glEnable(GL_POLYGON_OFFSET_LINE);
  glPolygonOffset(0.0f, -200.0f);
}

void RasterizerGL::endOverlayOutlines() { glDisable(GL_POLYGON_OFFSET_LINE); }

void RasterizerGL::drawLine(const Vector& a, const Vector& b, const Color& color) {
  lighting(false);
  glColor3f(color.r, color.g, color.b);
  glBegin(GL_LINES);
  vertex(a);
  vertex(b);
  glEnd();
}

void RasterizerGL::drawLitLine(const Vector& a, const Vector& b, const Vector& na,
                               const Vector& nb, const Color& color) {
  lighting(true);
  glColor3f(color.r, color.g, color.b);
  glBegin(GL_LINES);
  glNormal3f(na.x, na.y, na.z);
  vertex(a);
  glNormal3f(nb.x, nb.y, nb.z);
  vertex(b);
  glEnd();
}

void RasterizerGL::drawLitTriangle(const Vector& a, const Vector& b, const Vector& c,
                                   const Vector& na, const Vector& nb, const Vector& nc,
                                   const Color& color) {
  lighting(true);
  glColor3f(color.r, color.g, color.b);
  glBegin(GL_TRIANGLES);
  glNormal3f(na.x, na.y, na.z);
  vertex(a);
  glNormal3f(nb.x, nb.y, nb.z);
  vertex(b);
  glNormal3f(nc.x, nc.y, nc.z);
  vertex(c);
  glEnd();
}

void RasterizerGL::drawTriangle(const Vector& a, const Vector& b, const Vector& c,
                                const Color& color) {
  lighting(false);
  glColor3f(color.r, color.g, color.b);
  glBegin(GL_TRIANGLES);
  vertex(a);
  vertex(b);
  vertex(c);
  glEnd();
}

void RasterizerGL::knowWindowTransform() {
  if (windowTransformKnown_) return;
  double projection[16], modelView[16];
  GLint viewport[4];
  glGetDoublev(GL_PROJECTION_MATRIX, projection);
  glGetDoublev(GL_MODELVIEW_MATRIX, modelView);
  glGetIntegerv(GL_VIEWPORT, viewport);
  double clip[16];
  for (int c = 0; c < 4; ++c) {
    for (int r = 0; r < 4; ++r) {
      double sum = 0.0;
      for (int k = 0; k < 4; ++k) sum += projection[k * 4 + r] * modelView[c * 4 + k];
      clip[c * 4 + r] = sum;
    }
  }
  // Rows x and y of the window transform take the viewport in: window x = row 0 / w.
  const double sx = 0.5 * viewport[2], sy = 0.5 * viewport[3];
  for (int c = 0; c < 4; ++c) {
    double* column = &windowTransform_[c * 4];
    column[0] = sx * clip[c * 4 + 0] + (sx + viewport[0]) * clip[c * 4 + 3];
    column[1] = sy * clip[c * 4 + 1] + (sy + viewport[1]) * clip[c * 4 + 3];
    column[2] = clip[c * 4 + 2];
    column[3] = clip[c * 4 + 3];
  }
  windowRowLengths(windowTransform_, rowLength_);
  windowTransformKnown_ = true;
}

bool RasterizerGL::mayShowDisc(const Vector& centre, float radius) {
  if (!skipping()) return true;
  knowWindowTransform();
  // A little over the radius: the polygon's vertices are made in float.
  WindowBox box;
  // Within reach of the near or far plane, or not finite: the polygon decides.
  if (!sphereWindowBox(windowTransform_, rowLength_, centre, 1.001 * radius, box)) return true;
  if (centresIn(box.loX, box.hiX) != 0 && centresIn(box.loY, box.hiY) != 0) return true;
  ++skippedPolygons_;
  return false;
}

uint32_t RasterizerGL::trianglesToDraw(const Vector* points, unsigned count, bool wholeOnly) {
  const uint32_t all = wholeFan(count);
  if (!skipping() || count > 32) return all;
  knowWindowTransform();
  const double* m = windowTransform_;
  double x[32], y[32];
  double minX = HUGE_VAL, maxX = -HUGE_VAL, minY = HUGE_VAL, maxY = -HUGE_VAL;
  // Opposite vertices first: a polygon wider and taller than a few pixels is drawn at once.
  for (unsigned k = 0; k < count; ++k) {
    const unsigned i = k == 1 ? count / 2 : (k != 0 && k <= count / 2 ? k - 1 : k);
    const double px = points[i].x, py = points[i].y, pz = points[i].z;
    const double wx = m[0] * px + m[4] * py + m[8] * pz + m[12];
    const double wy = m[1] * px + m[5] * py + m[9] * pz + m[13];
    const double cz = m[2] * px + m[6] * py + m[10] * pz + m[14];
    const double cw = m[3] * px + m[7] * py + m[11] * pz + m[15];
    // Clipped by the near or far plane (or not finite): OpenGL decides.
    if (!(cw > 1e-6) || !(cz >= -cw * 0.999) || !(cz <= cw * 0.999)) return all;
    const double inverse = 1.0 / cw;
    x[i] = wx * inverse;
    y[i] = wy * inverse;
    minX = std::min(minX, x[i]);
    maxX = std::max(maxX, x[i]);
    minY = std::min(minY, y[i]);
    maxY = std::max(maxY, y[i]);
    if (k == 1 && maxX - minX > kLargePolygonPixels && maxY - minY > kLargePolygonPixels) {
      return all;
    }
  }
  const int columns = centresIn(minX, maxX), rows = centresIn(minY, maxY);
  if (columns == 0 || rows == 0) {
    ++skippedPolygons_;
    return 0;
  }
  if (wholeOnly || maxX - minX > kLargePolygonPixels || maxY - minY > kLargePolygonPixels) {
    return all;
  }
  // Fan triangle t is (0, t + 1, t + 2), as OpenGL takes a fan apart.
  uint32_t draw = 0;
  for (unsigned t = 0; t + 2 < count; ++t) {
    if (mayCoverACentre(x[0], y[0], x[t + 1], y[t + 1], x[t + 2], y[t + 2])) {
      draw |= uint32_t{1} << t;
    }
  }
  if (draw == 0) ++skippedPolygons_;
  skippedTriangles_ += count - 2 - static_cast<unsigned>(std::popcount(draw));
  return draw;
}

int RasterizerGL::centresIn(double lo, double hi) {
  const double first = std::ceil(lo - kCoverMargin - 0.5);
  const double last = std::floor(hi + kCoverMargin - 0.5);
  return last >= first ? static_cast<int>(last - first) + 1 : 0;
}

bool RasterizerGL::mayCoverACentre(double x0, double y0, double x1, double y1, double x2,
                                   double y2) {
  const double firstX = std::ceil(std::min({x0, x1, x2}) - kCoverMargin - 0.5);
  const double lastX = std::floor(std::max({x0, x1, x2}) + kCoverMargin - 0.5);
  const double firstY = std::ceil(std::min({y0, y1, y2}) - kCoverMargin - 0.5);
  const double lastY = std::floor(std::max({y0, y1, y2}) + kCoverMargin - 0.5);
  if (lastX < firstX || lastY < firstY) return false;
  // Twice the signed area gives the winding; a sliver of no area is left to OpenGL.
  const double area = (x1 - x0) * (y2 - y0) - (x2 - x0) * (y1 - y0);
  if (!(std::fabs(area) > 1e-9)) return true;
  const double sign = area > 0.0 ? 1.0 : -1.0;
  const double ex[3] = {x1 - x0, x2 - x1, x0 - x2}, ey[3] = {y1 - y0, y2 - y1, y0 - y2};
  const double ox[3] = {x0, x1, x2}, oy[3] = {y0, y1, y2};
  // A centre is outside edge e when its distance inside the edge, times the edge's length, is
  // below -margin x length: compared squared, without a root.
  double slack2[3];
  for (int e = 0; e < 3; ++e) {
    slack2[e] = kCoverMargin * kCoverMargin * (ex[e] * ex[e] + ey[e] * ey[e]);
  }
  for (double cy = firstY + 0.5; cy <= lastY + 0.5; ++cy) {
    for (double cx = firstX + 0.5; cx <= lastX + 0.5; ++cx) {
      bool outside = false;
      for (int e = 0; e < 3 && !outside; ++e) {
        const double inside = sign * (ex[e] * (cy - oy[e]) - ey[e] * (cx - ox[e]));
        outside = inside < 0.0 && inside * inside > slack2[e];
      }
      if (!outside) return true;
    }
  }
  return false;
}

void RasterizerGL::emitFan(const Vector* points, unsigned count, uint32_t triangles) {
  if (triangles == wholeFan(count)) {
    glBegin(GL_TRIANGLE_FAN);
    for (unsigned i = 0; i < count; ++i) vertex(points[i]);
  } else {
    glBegin(GL_TRIANGLES);
    for (unsigned t = 0; t + 2 < count; ++t) {
      if (!(triangles >> t & 1)) continue;
      vertex(points[0]);
      vertex(points[t + 1]);
      vertex(points[t + 2]);
    }
  }
  glEnd();
}

void RasterizerGL::drawPolygon(const Vector* points, unsigned count, const Color& color) {
  if (count < 3) return;
  const uint32_t triangles = trianglesToDraw(points, count, false);
  if (triangles == 0) return;
  lighting(false);
  glColor3f(color.r, color.g, color.b);
  emitFan(points, count, triangles);
}

void RasterizerGL::drawPolygonRGBA(const Vector* points, unsigned count, uint32_t rgba) {
  if (count < 3) return;
  const uint32_t triangles = trianglesToDraw(points, count, count == 4);
  if (triangles == 0) return;
  GLubyte bytes[4];
  bytes[0] = static_cast<GLubyte>(rgba & 0xFFu);
  bytes[1] = static_cast<GLubyte>((rgba >> 8) & 0xFFu);
  bytes[2] = static_cast<GLubyte>((rgba >> 16) & 0xFFu);
  bytes[3] = static_cast<GLubyte>(rgba >> 24);
  lighting(false);
  glColor4ubv(bytes);
  if (count == 4) {
    glBegin(GL_QUADS);
    for (unsigned i = 0; i < count; ++i) vertex(points[i]);
    glEnd();
  } else {
    emitFan(points, count, triangles);
  }
}

void RasterizerGL::drawQuadOrPolygon(const Vector* points, unsigned count, const Color& color) {
  if (count != 4) {
    drawPolygon(points, count, color);
    return;
  }
  if (trianglesToDraw(points, count, true) == 0) return;
  lighting(false);
  glColor3f(color.r, color.g, color.b);
  glBegin(GL_QUADS);
  for (unsigned i = 0; i < 4; ++i) vertex(points[i]);
  glEnd();
}

// The whole current viewport (the pick rectangle's) from the back buffer, as RGB bytes.
void RasterizerGL::readPickIndices(int, int, int, int, std::vector<uint32_t>& indices) {
  GLint viewport[4] = {0, 0, 0, 0};
  glGetIntegerv(GL_VIEWPORT, viewport);
  const size_t count = static_cast<size_t>(std::max(0, viewport[2])) * std::max(0, viewport[3]);
  std::vector<uint8_t> rgb(count * 3);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  if (count > 0) {
    glReadPixels(viewport[0], viewport[1], viewport[2], viewport[3], GL_RGB, GL_UNSIGNED_BYTE,
                 rgb.data());
  }
  indices.resize(count);
  for (size_t i = 0; i < count; ++i) {
    indices[i] = rgb[3 * i] + rgb[3 * i + 1] * 256u + rgb[3 * i + 2] * 65536u;
  }
}

bool RasterizerGL::readPixels(std::vector<uint32_t>& pixels, int& width, int& height) const {
  GLint viewport[4] = {0, 0, 0, 0};
  glGetIntegerv(GL_VIEWPORT, viewport);
  width = viewport[2];
  height = viewport[3];
  if (width <= 0 || height <= 0) return false;
  std::vector<uint32_t> bottomUp(static_cast<size_t>(width) * height);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(viewport[0], viewport[1], width, height, GL_RGBA, GL_UNSIGNED_BYTE,
               bottomUp.data());
  pixels.resize(bottomUp.size());
  for (int row = 0; row < height; ++row) {
    std::memcpy(&pixels[static_cast<size_t>(row) * width],
                &bottomUp[static_cast<size_t>(height - 1 - row) * width],
                static_cast<size_t>(width) * sizeof(uint32_t));
  }
  // Alpha as the software back end writes it: every pixel opaque.
  for (uint32_t& p : pixels) p |= 0xFF000000u;
  return true;
}

}  // namespace LUtils
