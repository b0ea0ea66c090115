// Golden pictures of the sample drawing: every option the viewer offers, both back ends, both
// kinds of map, the picking pass and selection boxes, each reduced to a hash of its pixels and
// compared with the hashes recorded in testdata/golden_pictures.txt. The software cases build
// without OpenGL into the rendering tests; the OpenGL cases build into the OpenGL back end's
// tests (CACHEVIEW_GOLDEN_OPENGL). A change to the drawing
// code that moves a single pixel fails here. After an intended change of the pictures, record
// them again with CACHEVIEW_RECORD_GOLDEN=1 and say why in the commit.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "lightcache/light_map.h"
#include "render/png_writer.h"
#include "render/rasterizer_sw.h"
#include "render/render_test_support.h"
#include "synth/synth_room.h"
#ifdef CACHEVIEW_GOLDEN_OPENGL
#include "render/gl/gl_test_support.h"
#include "render/gl/rasterizer_gl.h"
#endif

namespace LUtils {
namespace {

constexpr int kW = 200, kH = 150;

uint64_t pictureHash(const uint32_t* pixels, size_t count) {
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < count; ++i) {
    h = (h ^ (pixels[i] & 0xFFFFFFu)) * 1099511628211ull;
  }
  return h;
}

// A light cache holding the room's samples with the same drawn discs and colours.
void fillLightCache(IrradianceMap& source, LightMap& light) {
  struct Copy final : EnumIrradianceSamplesCallback {
    LightMap* light = nullptr;
    int process(IrradSample& s) override {
      LightMapSample* l = light->insertSample();
      l->position = s.position;
      l->normal = l->normalB = s.normal;
      l->radiusSquared = 0.04f * s.drawRadius2;
      const Color c = s.decodedColour();
      l->valueA[0] = std::bit_cast<uint32_t>(c.r);
      l->valueA[1] = std::bit_cast<uint32_t>(c.g);
      l->valueA[2] = std::bit_cast<uint32_t>(c.b);
      return 1;
    }
  } copy;
  copy.light = &light;
  source.enumerateSamples(0, &copy);
}

struct Variant {
  const char* name;
  int segments;
  bool adaptive;
  bool culling;
  bool selection;  // selected and deleted samples, and the axis
  bool picking;
};

const Variant kVariants[] = {
    {"low", 6, false, false, false, false},      {"medium", 10, false, false, false, false},
    {"high", 16, false, false, false, false},    {"adaptive", 10, true, false, false, false},
    {"culling", 6, false, true, false, false},   {"selection", 10, false, false, true, false},
    {"picking", 6, false, false, false, true},
};

class GoldenPictures : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    room_ = new SynthRoom(30000, kW, kH);
    light_ = new LightMap;
    fillLightCache(room_->map, *light_);
  }
  static void TearDownTestSuite() {
    delete light_;
    delete room_;
  }

  // Reads the finished picture, or the index colours of a picking pass: the software back end
  // before the pick ends, OpenGL after it (when its viewport is whole again). A reader returns
  // nothing for the moment it does not read at.
  enum class Moment { Frame, PickOpen, PickEnded };
  using ReadPixels = std::function<std::vector<uint32_t>(Moment)>;

  // Draws one variant and returns the hash of its picture.
  uint64_t draw(Rasterizer3D& r, const ReadPixels& read, const DrawnMap& map, const Variant& v,
                bool threaded, bool lists) {
    DrawOptions options;
    SampleEdits edits;
    DrawView view;
    GeometryCache cache(options, edits);
    cache.setRasterizer(&r);
    automaticBrightness(map, options);
    sceneBounds(map, view.sceneMin, view.sceneMax);
    options.setSegmentsPerDisc(v.segments);
    options.setAdaptiveQuality(v.adaptive);
    options.setBackfaceCulling(v.culling);
    options.setMultiThreadedSoftware(threaded);
    options.setUseDisplayLists(lists);
    if (v.selection) {
      edits.editSelected([](SampleBits& bits) {
        for (uint32_t i = 0; i < 30000; i += 41) bits.set(i);
      });
      edits.editDeleted([](SampleBits& bits) {
        for (uint32_t i = 0; i < 30000; i += 3) bits.set(i);
      });
      options.setShowAxis(true);
    }
    // Culling is seen from behind the back wall, whose discs face away and vanish.
    PinholeCamera outside;
    outside.setImage(kW, kH, 1.3f);
    outside.lookAt({0.5f, 3.5f, -14.0f}, {0.0f, 2.5f, 0.0f}, {0, 1, 0});
    r.setCamera(v.culling ? &outside : &room_->camera);
    r.setFarDistance(room_->farDistance);
    const DrawScene scene{map, &options, &edits, &view, &cache, &threads_};
    std::vector<uint32_t> pixels;
    // Twice: with display lists the second frame replays the compiled list.
    for (int pass = 0; pass < (lists ? 2 : 1); ++pass) {
      if (v.picking) {
        r.setClearColor({1, 1, 1});
        r.beginFrame();
        r.setDepthTest(true);
        r.setFillMode(1);
        r.beginSelection(0, 0, kW - 1, kH - 1, 0.0f);
        drawPickingPass(r, scene);
        pixels = read(Moment::PickOpen);
        DummySelectionCb done;
        r.endSelection(done);
        if (pixels.empty()) pixels = read(Moment::PickEnded);
      } else {
        drawFrame(r, scene);
        pixels = read(Moment::Frame);
      }
    }
    if (std::getenv("CACHEVIEW_RECORD_GOLDEN") != nullptr) {
      writePng(testing::picturePath(std::string("golden_") + v.name + ".png"), pixels.data(), kW, kH);
    }
    return pictureHash(pixels.data(), pixels.size());
  }

  // Every variant through one back end, into `hashes` under "<map>/<back end>/<variant>".
  void drawAll(Rasterizer3D& r, const ReadPixels& read, const std::string& backEnd,
               std::map<std::string, uint64_t>& hashes) {
    for (const auto& [mapName, map] : {std::pair<std::string, DrawnMap>{"irradiance", room_->drawn()},
                                       std::pair<std::string, DrawnMap>{"light", {nullptr, light_}}}) {
      for (const Variant& v : kVariants) {
        const bool lists = backEnd == "gl-lists";
        if (lists && v.adaptive) continue;  // no list is compiled in adaptive quality
        hashes[mapName + "/" + backEnd + "/" + v.name] =
            draw(r, read, map, v, backEnd == "sw-threads", lists);
      }
    }
  }

  void drawAllSoftware(const std::string& backEnd, std::map<std::string, uint64_t>& hashes) {
    RasterizerSW sw;
    sw.resize(kW, kH);
    drawAll(sw, [&sw](Moment m) {
      const uint32_t* p = m == Moment::PickOpen ? sw.colourBuffer() : sw.picture();
      return std::vector<uint32_t>(p, p + kW * kH);
    }, backEnd, hashes);
  }

  static std::string goldenPath() { return std::string(CACHEVIEW_RENDER_TESTDATA) + "/golden_pictures.txt"; }

  void compareWithGolden(const std::map<std::string, uint64_t>& hashes) {
    if (std::getenv("CACHEVIEW_RECORD_GOLDEN") != nullptr) {
      std::map<std::string, uint64_t> all = readGolden();
      for (const auto& [k, h] : hashes) all[k] = h;
      std::ofstream out(goldenPath());
      for (const auto& [k, h] : all) out << k << ' ' << std::hex << h << std::dec << '\n';
      std::printf("recorded %zu pictures into %s\n", hashes.size(), goldenPath().c_str());
      return;
    }
    const std::map<std::string, uint64_t> golden = readGolden();
    for (const auto& [k, h] : hashes) {
      const auto it = golden.find(k);
      ASSERT_NE(it, golden.end()) << k << " has no golden picture";
      EXPECT_EQ(h, it->second) << k << " differs from its golden picture";
    }
  }

  static std::map<std::string, uint64_t> readGolden() {
    std::map<std::string, uint64_t> golden;
    std::ifstream in(goldenPath());
    std::string key;
    uint64_t h = 0;
    while (in >> key >> std::hex >> h) golden[key] = h;
    return golden;
  }

  static SynthRoom* room_;
  static LightMap* light_;
  DefThreadManager threads_;
};

SynthRoom* GoldenPictures::room_ = nullptr;
LightMap* GoldenPictures::light_ = nullptr;

#ifndef CACHEVIEW_GOLDEN_OPENGL
TEST_F(GoldenPictures, SoftwareOnOneThreadAndOnEveryThread) {
  std::map<std::string, uint64_t> hashes;
  drawAllSoftware("sw", hashes);
  drawAllSoftware("sw-threads", hashes);
  compareWithGolden(hashes);
}
#else
TEST_F(GoldenPictures, OpenGLImmediateAndDisplayLists) {
  RasterizerGL gl;
  CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl, kW, kH);
  std::map<std::string, uint64_t> hashes;
  const ReadPixels read = [&gl](Moment m) {
    std::vector<uint32_t> pixels;
    if (m == Moment::PickOpen) return pixels;
    int w = 0, h = 0;
    EXPECT_TRUE(gl.readPixels(pixels, w, h));
    return pixels;
  };
  drawAll(gl, read, "gl", hashes);
  drawAll(gl, read, "gl-lists", hashes);
  compareWithGolden(hashes);
}
#endif

}  // namespace
}  // namespace LUtils
