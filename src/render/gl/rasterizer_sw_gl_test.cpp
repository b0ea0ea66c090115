// The software rasterizer checked against the OpenGL back end: the same primitives give the same
// pixels except along edges, picks agree, and threaded drawing equals one thread.
#include "render/rasterizer_sw.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <thread>
#include <tuple>

#include "render/band_recording.h"
#include "render/camera.h"
#include "render/disc_scene.h"
#include "render/gl/gl_test_support.h"
#include "render/gl/rasterizer_gl.h"

namespace LUtils {
namespace {

using testing::equalFraction;
using testing::indicesIn;
using testing::picturePath;

std::vector<uint32_t> finishedPicture(RasterizerSW& sw) {
  sw.swapBuffers();
  return {sw.picture(), sw.picture() + static_cast<size_t>(sw.width()) * sw.height()};
}

// Both back ends with the same camera, far distance and clear colour.
struct BothBackEnds {
  RasterizerSW sw;
  RasterizerGL gl;
  PinholeCamera camera;
  int width, height;

  BothBackEnds(int w, int h) : width(w), height(h) {
    sw.resize(w, h);
    gl.resize(w, h);
    for (Rasterizer3D* r : {static_cast<Rasterizer3D*>(&sw), static_cast<Rasterizer3D*>(&gl)}) {
      r->setCamera(&camera);
      r->setFarDistance(50.0f);
      r->setClearColor({0.25f, 0.25f, 0.25f});
    }
  }
  template <typename Draw>
  void frame(Draw&& draw, bool cull = false) {
    for (Rasterizer3D* r : {static_cast<Rasterizer3D*>(&sw), static_cast<Rasterizer3D*>(&gl)}) {
      r->setBackfaceCulling(cull);
      r->beginFrame();
      r->setFillMode(1);
      draw(*r);
    }
  }
  std::vector<uint32_t> glPicture() {
    std::vector<uint32_t> pixels;
    int w = 0, h = 0;
    gl.readPixels(pixels, w, h);
    return pixels;
  }
  uint32_t swAt(int x, int y) { return sw.colourBuffer()[y * width + x] & 0xFFFFFFu; }
};

TEST(SoftwareRasterizer, RoomMatchesOpenGLExceptAlongDiscEdges) {
  BothBackEnds both(800, 600);
  if (!both.gl.hasOffscreenContext()) GTEST_SKIP() << "No off-screen OpenGL context";
  lookIntoRoom(both.camera, 800, 600);
  // Separate discs: the pictures differ only along disc edges (and by colour rounding).
  // Overlapping discs: coplanar neighbours also z-fight differently in the two back ends.
  for (const auto& [scale, name, minimum] :
       {std::tuple{0.3f, "separate", 0.97}, std::tuple{0.75f, "overlapping", 0.75}}) {
    const std::vector<Disc> room = makeRoomScene(40000, 1, scale);
    both.frame([&](Rasterizer3D& r) { drawDiscs(r, room.data(), room.size(), 10); });
    const std::vector<uint32_t> gl = both.glPicture();
    const std::vector<uint32_t> sw = finishedPicture(both.sw);
    writePng(picturePath(std::string("room_") + name + "_gl.png"), gl.data(), 800, 600);
    writePng(picturePath(std::string("room_") + name + "_sw.png"), sw.data(), 800, 600);
    const double nearlyEqual = testing::nearlyEqualFraction(gl, sw);
    std::printf("room of %zu %s discs: %.4f of the pixels equal in both back ends, %.4f within "
                "one colour level\n",
                room.size(), name, equalFraction(gl, sw), nearlyEqual);
    EXPECT_GT(nearlyEqual, minimum) << name;
  }
}

TEST(SoftwareRasterizer, CullingClippingAndOutlinesFollowOpenGL) {
  BothBackEnds both(160, 120);
  if (!both.gl.hasOffscreenContext()) GTEST_SKIP() << "No off-screen OpenGL context";
  both.camera.setImage(160, 120, 1.2f);
  both.camera.lookAt({0, 1, 4}, {0, 1, 0}, {0, 1, 0});
  // Counter-clockwise seen from the camera (front), and the same quad wound the other way.
  const Vector front[4] = {{-2, 0, 0}, {-0.5f, 0, 0}, {-0.5f, 2, 0}, {-2, 2, 0}};
  const Vector back[4] = {{0.5f, 0, 0}, {0.5f, 2, 0}, {2, 2, 0}, {2, 0, 0}};
  // A floor that passes under and behind the camera: clipped at the near plane.
  const Vector floor[4] = {{-30, 0, -30}, {30, 0, -30}, {30, 0, 30}, {-30, 0, 30}};
  auto scene = [&](Rasterizer3D& r) {
    r.drawPolygon(floor, 4, {0.2f, 0.5f, 0.2f});
    r.drawQuadOrPolygon(front, 4, {1, 0, 0});
    r.drawQuadOrPolygon(back, 4, {0, 0, 1});
  };
  for (bool cull : {false, true}) {
    both.frame(scene, cull);
    const std::vector<uint32_t> gl = both.glPicture();
    EXPECT_EQ(both.swAt(40, 50), 0x0000FFu);                      // front quad
    EXPECT_EQ(both.swAt(120, 50), cull ? 0x404040u : 0xFF0000u);  // back quad, culled or not
    EXPECT_EQ(gl[50 * 160 + 120] & 0xFFFFFFu, cull ? 0x404040u : 0xFF0000u);
    EXPECT_GT(equalFraction(gl, finishedPicture(both.sw)), 0.98) << "culling " << cull;
  }

  // Outlines: the quad's interior keeps the clear colour, its edges are drawn.
  both.frame([&](Rasterizer3D& r) {
    r.setFillMode(0);
    r.drawQuadOrPolygon(front, 4, {1, 1, 0});
  });
  const std::vector<uint32_t> gl = both.glPicture();
  const std::vector<uint32_t> sw = finishedPicture(both.sw);
  EXPECT_EQ(sw[50 * 160 + 40] & 0xFFFFFFu, 0x404040u);
  size_t swEdge = 0, glEdge = 0;
  for (size_t i = 0; i < sw.size(); ++i) {
    swEdge += (sw[i] & 0xFFFFFFu) == 0x00FFFFu;
    glEdge += (gl[i] & 0xFFFFFFu) == 0x00FFFFu;
  }
  EXPECT_GT(swEdge, 100u);
  EXPECT_NEAR(static_cast<double>(swEdge), static_cast<double>(glEdge), glEdge * 0.1);
}

TEST(SoftwareRasterizer, DepthTestPointsBufferExchangeAndPickingFrame) {
  RasterizerSW sw;
  PinholeCamera camera;
  camera.setImage(64, 64, 1.0f);
  camera.lookAt({0, 0, 5}, {0, 0, 0}, {0, 1, 0});
  sw.setCamera(&camera);
  sw.resize(64, 64);
  sw.setClearColor({0, 0, 0});
  sw.beginFrame();
  const Vector nearQuad[4] = {{-1, -1, 1}, {1, -1, 1}, {1, 1, 1}, {-1, 1, 1}};
  const Vector farQuad[4] = {{-2, -2, 0}, {2, -2, 0}, {2, 2, 0}, {-2, 2, 0}};
  sw.drawQuadOrPolygon(nearQuad, 4, {1, 0, 0});
  sw.drawQuadOrPolygon(farQuad, 4, {0, 1, 0});  // behind: hidden in the middle
  EXPECT_EQ(sw.colourBuffer()[32 * 64 + 32] & 0xFFFFFFu, 0x0000FFu);
  sw.setDepthTest(false);
  sw.drawQuadOrPolygon(farQuad, 4, {0, 1, 0});  // without the test: drawn over
  EXPECT_EQ(sw.colourBuffer()[32 * 64 + 32] & 0xFFFFFFu, 0x00FF00u);

  // The window still shows the previous picture until the buffers are exchanged.
  EXPECT_EQ(sw.picture()[32 * 64 + 32] & 0xFFFFFFu, 0u);
  sw.swapBuffers();
  EXPECT_EQ(sw.picture()[32 * 64 + 32] & 0xFFFFFFu, 0x00FF00u);

  // A point of half size 2 is a 5 x 5 square.
  sw.beginFrame();
  sw.drawPoint({0, 0, 0}, 2, {1, 1, 1});
  sw.drawPoint({0, 0, 9}, 2, {1, 1, 1});  // behind the camera: nothing
  size_t lit = 0;
  for (int i = 0; i < 64 * 64; ++i) lit += (sw.colourBuffer()[i] & 0xFFFFFFu) != 0;
  EXPECT_EQ(lit, 25u);
  EXPECT_EQ(indicesIn(sw.colourBuffer(), 64 * 64).size(), 2u);

  // Picks through the depth buffer need OpenGL. The picking frame of colour-index picking draws
  // only inside its rectangle, and its end gives the whole frame back.
  EXPECT_FALSE(sw.beginSelection(0, 0, 10, 10, -1.0f));
  sw.setClearColor({1, 1, 1});
  sw.beginFrame();
  ASSERT_TRUE(sw.beginSelection(40, 20, 30, 10, 0.0f));  // corners in any order
  sw.drawPolygonRGBA(farQuad, 4, 77);
  DummySelectionCb dummy;
  EXPECT_EQ(sw.endSelection(dummy), 0);
  const uint32_t* pixels = sw.colourBuffer();
  for (int y = 0; y < 64; ++y) {
    for (int x = 0; x < 64; ++x) {
      const bool in = x >= 30 && x <= 40 && y >= 10 && y <= 20;
      EXPECT_EQ(pixels[y * 64 + x] & 0xFFFFFFu, in ? 77u : 0xFFFFFFu) << x << "," << y;
    }
  }
  sw.drawPolygonRGBA(farQuad, 4, 78);
  EXPECT_EQ(sw.colourBuffer()[50 * 64 + 50] & 0xFFFFFFu, 78u);
}

// Draws the room's discs with `threads` threads at once, the way threaded sample drawing does:
// the discs cut into two slices per thread, each recorded by one thread, then the bands of
// 2^bandShift rows each drawn by one thread from the recordings in slice order. `thenDirect`
// then draws on the calling thread, straight into the frame.
std::vector<uint32_t> drawInBands(RasterizerSW& sw, const std::vector<Disc>& discs,
                                  unsigned threads, int bandShift, bool indexColours,
                                  const std::function<void()>& thenDirect = [] {}) {
  sw.beginFrame();
  const unsigned slices = 2 * threads;
  const unsigned bands = static_cast<unsigned>(((sw.height() - 1) >> bandShift) + 1);
  std::vector<BandRecording> recordings(slices);
  for (BandRecording& r : recordings) r.reset(sw.width(), bandShift, bands);
  auto onThreads = [threads](const std::function<void(unsigned)>& work) {
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t) workers.emplace_back(work, t);
    for (std::thread& w : workers) w.join();
  };
  onThreads([&](unsigned t) {
    for (unsigned s = t; s < slices; s += threads) {
      sw.recordOnThisThread(&recordings[s]);
      const size_t first = discs.size() * s / slices, end = discs.size() * (s + 1) / slices;
      drawDiscs(sw, discs.data() + first, end - first, 8, indexColours,
                static_cast<uint32_t>(first));
    }
    sw.recordOnThisThread(nullptr);
  });
  onThreads([&](unsigned t) {
    for (unsigned k = t; k < bands; k += threads) {
      for (const BandRecording& r : recordings) sw.drawRecordedBand(r, k);
    }
  });
  thenDirect();
  const uint32_t* pixels = sw.colourBuffer();
  return {pixels, pixels + static_cast<size_t>(sw.width()) * sw.height()};
}

// Small discs recorded as the pixels they cover, large ones, outlines (lines) and drawing
// without the depth test recorded as primitives: all give the one-thread picture.
TEST(SoftwareRasterizer, DrawingInBandsOnThreadsEqualsOneThreadPixelForPixel) {
  std::vector<Disc> room = makeRoomScene(120000, 7);
  ASSERT_GT(room.size(), 100000u);
  RasterizerSW sw;
  PinholeCamera camera;
  lookIntoRoom(camera, 400, 300);
  // A few large discs in front of the room, across bands.
  for (int i = 0; i < 5; ++i) {
    room.push_back({camera.positionF() + camera.forward * (3.0f + i) + camera.right * (i - 2.0f),
                    -camera.forward, 0.7f, {0.2f * i, 1, 0.5f}});
  }
  sw.setCamera(&camera);
  sw.resize(400, 300);
  sw.setFarDistance(50.0f);
  for (const auto& [fill, indexColours] : {std::pair{1, false}, {1, true}, {0, false}}) {
    sw.setFillMode(fill);
    sw.beginFrame();
    drawDiscs(sw, room.data(), room.size(), 8, indexColours);
    const std::vector<uint32_t> single(sw.colourBuffer(), sw.colourBuffer() + 400 * 300);
    for (const auto& [threads, bandShift] : {std::pair{1u, 9}, {3u, 3}, {4u, 6}}) {
      EXPECT_EQ(drawInBands(sw, room, threads, bandShift, indexColours), single)
          << threads << " threads, bands of " << (1 << bandShift) << " rows, fill mode " << fill
          << ", index colours " << indexColours;
    }
  }
  sw.setFillMode(1);
  // The recording is the thread's own: the calling thread, not recording, draws straight into
  // the frame, and a wall drawn over everything without the depth test leaves no disc to be seen.
  const Vector middle = camera.positionF() + camera.forward * 20.0f;
  const Vector across = camera.right * 100.0f, upward = camera.up * 100.0f;
  const Vector wall[4] = {middle - across - upward, middle + across - upward,
                          middle + across + upward, middle - across + upward};
  const std::vector<uint32_t> walled = drawInBands(sw, room, 2, 4, true, [&] {
    sw.setDepthTest(false);
    sw.drawPolygonRGBA(wall, 4, 0xABCDEFu);
  });
  EXPECT_EQ(indicesIn(walled.data(), walled.size()), std::set<uint32_t>{0xABCDEFu});
}

TEST(SoftwareRasterizer, ColourIndexPickingSeesEveryVisibleDisc) {
  BothBackEnds both(320, 240);
  both.camera.setImage(320, 240, 1.0f);
  // A 12 x 9 grid of discs facing the camera, and one disc hidden behind the middle one.
  std::vector<Disc> discs;
  for (int y = 0; y < 9; ++y) {
    for (int x = 0; x < 12; ++x) {
      discs.push_back({{(x - 5.5f) * 0.9f, (y - 4.0f) * 0.9f, 0}, {0, 0, 1}, 0.3f, {1, 1, 1}});
    }
  }
  discs.push_back({discs[4 * 12 + 6].position - Vector{0, 0, 1}, {0, 0, 1}, 0.2f, {1, 1, 1}});
  const uint32_t hidden = static_cast<uint32_t>(discs.size() - 1);
  discs.push_back(discs[4 * 12 + 6]);  // a copy of the middle disc, nearer: hides it
  discs.back().position = discs.back().position + Vector{0, 0, 0.5f};
  both.camera.lookAt({0, 0, 12}, {0, 0, 0}, {0, 1, 0});

  auto pick = [&](Rasterizer3D& r) {
    r.setClearColor({1, 1, 1});
    r.beginFrame();
    drawDiscs(r, discs.data(), discs.size(), 10, true);
  };
  pick(both.sw);
  std::set<uint32_t> expected;
  for (uint32_t i = 0; i < discs.size(); ++i) {
    if (i != hidden && i != 4 * 12 + 6) expected.insert(i);
  }
  expected.insert(0xFFFFFFu);  // the white background
  EXPECT_EQ(indicesIn(both.sw.colourBuffer(), 320 * 240), expected);

  if (both.gl.hasOffscreenContext()) {
    pick(both.gl);
    const std::vector<uint32_t> gl = both.glPicture();
    EXPECT_EQ(indicesIn(gl.data(), gl.size()), expected);
  }
}

}  // namespace
}  // namespace LUtils
