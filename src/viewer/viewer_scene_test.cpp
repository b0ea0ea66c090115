// Showing a map in the viewer scene and replacing its rasterizer.
#include "viewer/viewer_scene.h"

#include <gtest/gtest.h>

#include "irradiance/def_irradiance_map.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"

namespace LUtils {
namespace {

IrradSample sampleAt(const Vector& position) {
  IrradSample s{};
  s.position = position;
  s.normal = {0.0f, 0.0f, 1.0f};
  s.drawRadius2 = 0.01f;
  s.colour[0] = s.colour[1] = s.colour[2] = 64;
  s.exponent = 135;
  return s;
}

TEST(ViewerScene, ShowingAMapSizesEverythingForItAndAReplacedRasterizerKeepsTheFarDistance) {
  DefIrradianceMap map;
  WriteIrradianceMapStream* writer = map.openWriteStream();
  writer->write(sampleAt({0.0f, 0.0f, 0.0f}));
  writer->write(sampleAt({3.0f, 4.0f, 0.0f}));
  map.closeWriteStream(writer);

  ViewerScene scene;
  RasterizerSW first;
  scene.attachRasterizer(&first, -1.0f);
  scene.show({&map, nullptr}, &first);
  EXPECT_EQ(scene.sampleCount(), 2u);
  EXPECT_FLOAT_EQ(first.farDistance(), 20.0f);  // 4 x the box's diagonal
  EXPECT_FLOAT_EQ(scene.options.brightness(), 0.5f / 64.0f);
  EXPECT_EQ(first.camera(), &scene.navigation.camera());
  // Without a stored camera the view is the default one of the box.
  Navigation expected;
  expected.setSceneBounds({0.0f, 0.0f, 0.0f}, {3.0f, 4.0f, 0.0f});
  expected.reset();
  EXPECT_EQ(scene.navigation.eye().x, expected.eye().x);
  EXPECT_EQ(scene.navigation.eye().y, expected.eye().y);

  // A stored camera is where the view starts.
  map.header()->cameraFlags = IrradianceMapHeader::kCameraPresent;
  map.header()->cameraPosition[0] = 1.0;
  map.header()->cameraPosition[1] = -6.0;
  map.header()->cameraPosition[2] = 0.5;
  map.header()->cameraFov = 1.0f;
  map.header()->cameraTarget = 5.0f;
  scene.show({&map, nullptr}, &first);
  EXPECT_FLOAT_EQ(scene.navigation.eye().x, 1.0f);
  EXPECT_FLOAT_EQ(scene.navigation.eye().y, -6.0f);

  // The replacement draws through the same camera at the same far distance, and the drawing
  // options follow the rasterizer chosen.
  first.setFarDistance(7.0f);
  scene.settings.useOpenGL = false;
  scene.settings.softwareMultiThreaded = false;
  RasterizerSW second;
  scene.attachRasterizer(&second, first.farDistance());
  EXPECT_FLOAT_EQ(second.farDistance(), 7.0f);
  EXPECT_EQ(second.camera(), &scene.navigation.camera());
  EXPECT_FALSE(scene.options.useOpenGL());
  EXPECT_FALSE(scene.options.multiThreadedSoftware());
}

// The inspector's one-pixel pick on both back ends: the sample in the middle of the default view,
// nothing in a corner, nothing once the sample is deleted; and the line it shows.
TEST(ViewerScene, TheInspectorPicksTheVisibleSampleUnderAPixel) {
  DefIrradianceMap map;
  WriteIrradianceMapStream* writer = map.openWriteStream();
  IrradSample far = sampleAt({0.0f, 0.0f, -1.0f});
  far.drawRadius2 = 1.0f;
  IrradSample near = sampleAt({0.0f, 0.0f, 0.0f});
  near.drawRadius2 = 0.25f;
  near.renderId = 7;
  writer->write(far);
  writer->write(near);
  map.closeWriteStream(writer);

  RasterizerSW sw;
  RasterizerGL gl;
  gl.resize(64, 48);
  std::vector<Rasterizer3D*> backEnds{&sw};
  if (gl.hasOffscreenContext()) backEnds.push_back(&gl);
  for (Rasterizer3D* r : backEnds) {
    ViewerScene scene;
    r->resize(64, 48);
    scene.navigation.setCanvasSize(64, 48);
    scene.attachRasterizer(r, -1.0f);
    scene.show({&map, nullptr}, r);
    scene.navigation.showView(StandardView::kTop);  // looking down -z: the near disc in front
    EXPECT_EQ(scene.pickVisible(*r, 32, 24), std::optional<uint32_t>(1u));
    EXPECT_EQ(scene.pickVisible(*r, 0, 0), std::nullopt);
    scene.edits.editDeleted([](SampleBits& bits) { bits.set(1); });
    EXPECT_EQ(scene.pickVisible(*r, 32, 24), std::optional<uint32_t>(0u));
  }
  ViewerScene scene;
  scene.show({&map, nullptr}, nullptr);
  EXPECT_EQ(scene.describeSample(1),
            "Sample 1: position (0, 0, 0), normal (0, 0, 1), colour (64, 64, 64), radius 0.5, "
            "render ID 7, time 0");
  EXPECT_EQ(scene.describeSample(2), "");
}

}  // namespace
}  // namespace LUtils
