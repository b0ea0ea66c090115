#include "app/map_report.h"

#include <gtest/gtest.h>

#include "app/testing/vector_map.h"

namespace {

using cvtest::VectorMap;

VectorMap mapOf(int count, uint32_t version) {
  VectorMap map;
  map.samples.resize(static_cast<size_t>(count));
  map.version = version;
  return map;
}

// The 812-sample example and the other versions are checked end to end (tests/cli).
TEST(MapReport, CameraBlock) {
  VectorMap map = mapOf(3, 0xD0000);
  IrradianceMapHeader& h = map.settings;
  h.timeDependence = 0.8f;
  h.containsRenderIds = 1;
  h.supportsAnimBlending = 5;
  h.cameraFlags = 0x101;  // only the low byte counts
  h.cameraPosition[0] = 1.5;
  h.cameraPosition[1] = -2e10;
  h.cameraPosition[2] = 0.1;  // a double, printed as such
  h.exposure[0] = 0.5f;
  h.exposure[2] = 2.0f;
  h.cameraRotation[4] = 0.7f;  // a float widened: 0.7f prints as 0.7 with %g
  h.cameraFov = 45.0f;
  h.cameraTarget = 123456789.0f;
  EXPECT_EQ(irradianceMapReport(&map),
            "Sample size (bytes): 84\n"
            "Number of samples: 3\n"
            "Format version: 13 (0xD0000)\n"
            "Time dependent: yes\n"
            "Min rate: -3\n"
            "Max rate: 0\n"
            "Contains render IDs: yes\n"
            "Supports animation blending: yes\n"
            "Calc. pass interpolation samples: 15\n"
            "Camera information: yes\n"
            "  Camera transformation:\n"
            "    (1, 0, 0),\n"
            "    (0, 0.7, 0),\n"
            "    (0, 0, 1),\n"
            "    (1.5, -2e+10, 0.1)\n"
            "  Exposure RGB: (0.5, 1, 2)\n"
            "  Camera FOV: 45\n"
            "  Camera target: 1.23457e+08\n");

  h.cameraFlags = 0x100;  // bit 0 of the low byte is clear
  EXPECT_NE(irradianceMapReport(&map).find("Camera information: none\n"), std::string::npos);
}

TEST(MapReport, NoVersionAndNoMap) {
  VectorMap fresh = mapOf(0, 0);
  EXPECT_EQ(irradianceMapReport(&fresh), "Sample size (bytes): 84\nNumber of samples: 0\n");
  EXPECT_EQ(irradianceMapReport(nullptr), "");
}

}  // namespace
