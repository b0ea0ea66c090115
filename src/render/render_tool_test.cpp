// cacheview-render end to end: maps written to files, the program run on them through both back
// ends, and its pictures decoded by an independent PNG reader (ImageMagick's convert).
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "lightcache/light_map.h"
#include "synth/map_output.h"
#include "test_support/scratch_dir.h"

namespace LUtils {
namespace {

struct ToolRun {
  int status = -1;
  std::string out, err;
};

using LUtils::testing::readWholeFile;

std::string quoted(const std::string& s) { return "'" + s + "'"; }

class RenderTool : public LUtils::testing::ScratchDirTest {
 protected:
  RenderTool() : ScratchDirTest("render-tool") {}

  static void SetUpTestSuite() {
    hasDecoder_ = std::system("command -v convert >/dev/null 2>&1 && "
                              "command -v identify >/dev/null 2>&1") == 0;
  }


  ToolRun run(const std::string& args) const {
    ToolRun r;
    const std::string cmd = quoted(CACHEVIEW_RENDER_TOOL) + " " + args + " > " +
                            quoted(path("out.txt")) + " 2> " + quoted(path("err.txt"));
    const int raw = std::system(cmd.c_str());
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = readWholeFile(path("out.txt"));
    r.err = readWholeFile(path("err.txt"));
    return r;
  }

  std::string writeSynthMap(const std::string& name, uint32_t count, uint32_t version) const {
    synth::Params params;
    params.count = count;
    std::string message;
    EXPECT_EQ(synth::writeMapFile(path(name).c_str(), version, params, message), 0) << message;
    return path(name);
  }

  // Decodes a picture the tool wrote to 8-bit RGB in `rgb` and checks its size.
  void expectPicture(const std::string& file, int width, int height, std::vector<uint8_t>& rgb) {
    const std::string cmd = "identify -format '%w %h' " + quoted(file) + " > " +
                            quoted(file + ".size") + " 2>/dev/null && convert " + quoted(file) +
                            " -depth 8 rgb:" + quoted(file + ".rgb") + " 2>/dev/null";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << file << " does not decode";
    int w = 0, h = 0;
    ASSERT_EQ(std::sscanf(readWholeFile(file + ".size").c_str(), "%d %d", &w, &h), 2);
    EXPECT_EQ(w, width);
    EXPECT_EQ(h, height);
    const std::string bytes = readWholeFile(file + ".rgb");
    rgb.assign(bytes.begin(), bytes.end());
    ASSERT_EQ(rgb.size(), static_cast<size_t>(width) * height * 3);
  }

  static inline bool hasDecoder_ = false;
};

// Pixels that are not the background grey (0.25 of full scale).
double coveredFraction(const std::vector<uint8_t>& rgb) {
  size_t covered = 0;
  for (size_t i = 0; i + 2 < rgb.size(); i += 3) {
    const bool grey = rgb[i] == 64 && rgb[i + 1] == 64 && rgb[i + 2] == 64;
    covered += grey ? 0 : 1;
  }
  return rgb.empty() ? 0.0 : static_cast<double>(covered) / static_cast<double>(rgb.size() / 3);
}

TEST_F(RenderTool, StoredViewThroughBothBackEndsGivesTheSamePicture) {
  if (!hasDecoder_) GTEST_SKIP() << "ImageMagick's convert is not installed";
  const std::string map = writeSynthMap("room.lumap", 20000, 0xD0000);
  const ToolRun sw = run("--backend sw --threads 2 --size 320x240 " + quoted(map) + " " +
                     quoted(path("sw.png")));
  ASSERT_EQ(sw.status, 0) << sw.err;
  EXPECT_NE(sw.out.find("stored in the map"), std::string::npos) << sw.out;
  EXPECT_TRUE(sw.err.empty()) << sw.err;
  std::vector<uint8_t> swRgb;
  expectPicture(path("sw.png"), 320, 240, swRgb);
  // The map was made from this camera: its samples cover most of the picture (20000 discs
  // leave gaps between them).
  EXPECT_GT(coveredFraction(swRgb), 0.75);

  const ToolRun gl = run("-b gl -s 320x240 -o " + quoted(path("gl.png")) + " " + quoted(map));
  if (gl.status == 1 && gl.err.find("no off-screen OpenGL context") != std::string::npos) {
    GTEST_SKIP() << gl.err;
  }
  ASSERT_EQ(gl.status, 0) << gl.err;
  std::vector<uint8_t> glRgb;
  expectPicture(path("gl.png"), 320, 240, glRgb);
  ASSERT_EQ(glRgb.size(), swRgb.size());
  size_t near = 0;
  for (size_t i = 0; i < glRgb.size(); i += 3) {
    bool same = true;
    for (int c = 0; c < 3; ++c) same &= std::abs(glRgb[i + c] - swRgb[i + c]) <= 1;
    near += same ? 1 : 0;
  }
  // The back ends differ along disc edges and where overlapping coplanar discs z-fight.
  EXPECT_GT(static_cast<double>(near) / static_cast<double>(glRgb.size() / 3), 0.7);
}

TEST_F(RenderTool, MapsWithoutAStoredViewAreFramedWhole) {
  if (!hasDecoder_) GTEST_SKIP() << "ImageMagick's convert is not installed";
  // An old irradiance map (no camera in the file), and a light cache read by its extension.
  const std::string old = writeSynthMap("old.lumap", 5000, 0x10000);
  const ToolRun a = run("-b sw -j 1 -s 200x150 --quality adaptive " + quoted(old) + " " +
                    quoted(path("old.png")));
  ASSERT_EQ(a.status, 0) << a.err;
  EXPECT_NE(a.out.find("default front view"), std::string::npos) << a.out;
  std::vector<uint8_t> rgb;
  expectPicture(path("old.png"), 200, 150, rgb);
  const double covered = coveredFraction(rgb);
  // The whole room is in view with background around it.
  EXPECT_GT(covered, 0.1);
  EXPECT_LT(covered, 0.95);

  LightMap light;
  for (int i = 0; i < 400; ++i) {
    LightMapSample* s = light.insertSample();
    ASSERT_NE(s, nullptr);
    s->position = {static_cast<float>(i % 20), 0.0f, static_cast<float>(i / 20)};
    s->normal = {0, 1, 0};
    s->radiusSquared = 1.0f;  // neighbours overlap: no gaps
    s->valueA[0] = std::bit_cast<uint32_t>(0.8f);
    s->valueA[1] = std::bit_cast<uint32_t>(0.4f);
    s->valueA[2] = std::bit_cast<uint32_t>(0.1f);
  }
  ASSERT_EQ(light.save(path("cache.lulmap").c_str(), nullptr), 0);
  const ToolRun b = run("-b sw -s 160x120 " + quoted(path("cache.lulmap")) + " " +
                    quoted(path("cache.png")));
  ASSERT_EQ(b.status, 0) << b.err;
  EXPECT_NE(b.out.find("400 light cache samples"), std::string::npos) << b.out;
  expectPicture(path("cache.png"), 160, 120, rgb);
  EXPECT_GT(coveredFraction(rgb), 0.2);
  // The automatic brightness makes the average sample 0.5 of full scale: orange, red strongest.
  const size_t middle = (60 * 160 + 80) * 3;
  EXPECT_GT(rgb[middle], rgb[middle + 1]);
  EXPECT_GT(rgb[middle + 1], rgb[middle + 2]);
}

TEST_F(RenderTool, BadInputGivesAClearErrorAndNoPicture) {
  ToolRun r = run("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Usage: cacheview-render"), std::string::npos);

  for (const char* args : {"", "only-a-map.lumap", "--backend vulkan a.lumap b.png",
                           "--size 0x10 a.lumap b.png", "--eye 1,2,3 a.lumap b.png",
                           "--eye 1,1,1 --target 1,1,1 a.lumap b.png", "--frobnicate a b"}) {
    r = run(args);
    EXPECT_EQ(r.status, 2) << args;
    EXPECT_NE(r.err.find("Try 'cacheview-render --help'"), std::string::npos) << args;
  }

  // Inputs that cannot be read, and a picture that cannot be written: status 1, no picture.
  std::ofstream(path("junk.lumap"), std::ios::binary) << "this is not a map";
  const std::string map = writeSynthMap("small.lumap", 200, 0xD0000);
  for (const auto& [args, message] :
       {std::pair{quoted(path("missing.lumap")) + " " + quoted(path("x.png")),
                  "Error opening file"},
        {quoted(path("junk.lumap")) + " " + quoted(path("x.png")), "not an irradiance map"},
        {"-b sw " + quoted(map) + " " + quoted(path("no-such-dir/x.png")), "cannot write"}}) {
    r = run(args);
    EXPECT_EQ(r.status, 1) << args;
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(path("x.png")));
}

}  // namespace
}  // namespace LUtils
