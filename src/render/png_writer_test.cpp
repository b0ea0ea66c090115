// The PNG writer against an independent decoder (ImageMagick): a frame of the synthesised room
// at the tool's default size decodes to exactly the pixels drawn, the same file whatever the
// number of threads that compress it, at least three times smaller than the same picture in
// stored (uncompressed) deflate blocks.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "render/png_writer.h"
#include "render/rasterizer_sw.h"
#include "render/render_test_support.h"
#include "synth/synth_room.h"
#include "threads/thread_manager.h"

namespace LUtils {
namespace {

using testing::readWholeFile;

// The size of an 8-bit RGB PNG whose pixels are stored without compression: signature, IHDR,
// one IDAT of a zlib stream of stored blocks (65535 bytes at most, 5 bytes of header each) and
// IEND.
size_t storedPngSize(size_t width, size_t height) {
  const size_t raw = height * (width * 3 + 1);
  const size_t blocks = (raw + 65534) / 65535;
  return 8 + (12 + 13) + (12 + 2 + raw + 5 * blocks + 4) + 12;
}

TEST(PngWriter, AFrameDecodesToItsPixelsAndCompressesThreefold) {
  if (std::system("command -v convert >/dev/null 2>&1 && command -v identify >/dev/null 2>&1") !=
      0) {
    GTEST_SKIP() << "ImageMagick is not installed";
  }
  constexpr int kW = 800, kH = 600;
  SynthRoom room(50000, kW, kH);
  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  DefThreadManager threads;
  automaticBrightness(room.drawn(), options);
  sceneBounds(room.drawn(), view.sceneMin, view.sceneMax);
  RasterizerSW sw;
  sw.resize(kW, kH);
  sw.setCamera(&room.camera);
  sw.setFarDistance(room.farDistance);
  drawFrame(sw, {room.drawn(), &options, &edits, &view, nullptr, &threads});
  const std::vector<uint32_t> pixels(sw.picture(), sw.picture() + size_t{kW} * kH);

  // The rows are compressed in bands on the manager's threads; the file is that of one thread.
  const std::string png = testing::picturePath("png_writer_frame.png");
  const std::string alone = testing::picturePath("png_writer_frame_one_thread.png");
  std::string error;
  ASSERT_TRUE(writePng(png, pixels.data(), kW, kH, &error, &threads, 3)) << error;
  ASSERT_TRUE(writePng(alone, pixels.data(), kW, kH, &error)) << error;
  EXPECT_TRUE(readWholeFile(png) == readWholeFile(alone));
  std::remove(alone.c_str());
  const size_t size = readWholeFile(png).size();
  EXPECT_LE(size * 3, storedPngSize(kW, kH)) << size << " bytes";
  std::printf("800x600 frame: %zu bytes, %.1f times smaller than stored blocks\n", size,
              static_cast<double>(storedPngSize(kW, kH)) / static_cast<double>(size));

  const std::string rgbFile = png + ".rgb", sizeFile = png + ".size";
  const std::string cmd = "identify -format '%w %h %[channels]' '" + png + "' > '" + sizeFile +
                          "' && convert '" + png + "' -depth 8 rgb:'" + rgbFile + "'";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << png << " does not decode";
  EXPECT_EQ(readWholeFile(sizeFile), "800 600 srgb");
  const std::string rgb = readWholeFile(rgbFile);
  ASSERT_EQ(rgb.size(), pixels.size() * 3);
  size_t different = 0;
  for (size_t i = 0; i < pixels.size(); ++i) {
    for (int c = 0; c < 3; ++c) {
      different += static_cast<uint8_t>(rgb[i * 3 + c]) != ((pixels[i] >> (8 * c)) & 0xFFu);
    }
  }
  EXPECT_EQ(different, 0u);
  std::remove(rgbFile.c_str());
  std::remove(sizeFile.c_str());
}

TEST(PngWriter, AnUnwritableTargetFailsWithoutLeavingAFile) {
  const uint32_t pixel = 0xFF0000FFu;
  std::string error;
  EXPECT_FALSE(writePng(testing::picturePath("no-such-dir/x.png"), &pixel, 1, 1, &error));
  EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
  EXPECT_FALSE(writePng(testing::picturePath("empty.png"), &pixel, 0, 1, &error));
  EXPECT_FALSE(std::filesystem::exists(testing::picturePath("empty.png")));
}

}  // namespace
}  // namespace LUtils
