// -convert: the conversion of an irradiance map into a PTS point list.
#include "cli_fixture.h"

namespace cvtest {
namespace {

class Convert : public CliTest {};

TEST_F(Convert, BothModesWriteCrLfLinesWithSignedColourBytes) {
  writeMap("a.lumap", {makeSample({1.0f, 2.5f, -3.0f}, 255, 128, 0),
                       makeSample({-0.00004f, 1.03125f, 123456.789f}, 127, 1, 200)});

  expectRun({"-convert", "a.lumap", "a.pts"}, 0,
            "Conversion completed successfully.\n");
  EXPECT_EQ(readFile(path("a.pts")),
            "v 1.0000 2.5000 -3.0000\r\n"
            "v -0.0000 1.0312 123456.7891\r\n");

  expectRun({"-convert", "a.lumap", "rgb.pts", "-rgb", "ignored", "too"}, 0,
            "Conversion completed successfully.\n");
  EXPECT_EQ(readFile(path("rgb.pts")),
            "v 1.0000 2.5000 -3.0000 -1 -128 0\r\n"
            "v -0.0000 1.0312 123456.7891 127 1 -56\r\n");

  // An unrecognised option in the -rgb position means positions only.
  EXPECT_EQ(run({"-convert", "a.lumap", "plain.pts", "-RGB"}).status, 0);
  EXPECT_EQ(readFile(path("plain.pts")), readFile(path("a.pts")));
}

TEST_F(Convert, OldVersionsEmptyMapsAndTruncation) {
  writeMap("old.lumap", {makeSample({0.5f, -0.5f, 2.0f}, 3, 2, 1)}, 0xA0000);
  EXPECT_EQ(run({"-convert", "old.lumap", "old.pts", "-rgb"}).status, 0);
  EXPECT_EQ(readFile(path("old.pts")), "v 0.5000 -0.5000 2.0000 3 2 1\r\n");

  writeMap("empty.lumap", {});
  writeFile("target.pts", std::string(1000, 'x'));
  expectRun({"-convert", "empty.lumap", "target.pts"}, 0,
            "Conversion completed successfully.\n");
  EXPECT_TRUE(exists("target.pts"));
  EXPECT_EQ(readFile(path("target.pts")), "");
}

TEST_F(Convert, LargeMapMatchesPrintf) {
  // Many lines cross the writer's batch boundaries; each must still be whole and exact.
  std::vector<LUtils::IrradSample> samples;
  std::string expected;
  for (int i = 0; i < 60000; ++i) {
    const float x = static_cast<float>(i) * 0.37f - 9000.0f;
    const float y = 1.0f / static_cast<float>(i + 1);
    const float z = -static_cast<float>(i) * 1234.5678f;
    samples.push_back(makeSample({x, y, z}, static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8),
                                 static_cast<uint8_t>(i * 7)));
    char line[256];
    std::snprintf(line, sizeof line, "v %0.4f %0.4f %0.4f %d %d %d\r\n", x, y, z,
                  static_cast<int8_t>(i), static_cast<int8_t>(i >> 8),
                  static_cast<int8_t>(i * 7));
    expected += line;
  }
  writeMap("big.lumap", samples);
  ASSERT_EQ(run({"-convert", "big.lumap", "big.pts", "-rgb"}).status, 0);
  EXPECT_TRUE(readFile(path("big.pts")) == expected);
}

TEST_F(Convert, Errors) {
  writeMap("a.lumap", samplesFrom(0, 2));

  expectRun({"-convert", "a.lumap"}, 3,
            "Error converting irradiance map file: missing parameter(s)\n");

  // The message names the argument in the -rgb position, not the target.
  expectRun({"-convert", "a.lumap", "b.PTS"}, 3,
            "Error unsupported conversion format \"(null)\"\n");
  expectRun({"-convert", "a.lumap", "b.pts.txt", "-rgb"}, 3,
            "Error unsupported conversion format \"-rgb\"\n");
  expectRun({"-convert", "a.lumap", "pts", "x"}, 3,
            "Error unsupported conversion format \"x\"\n");
  EXPECT_EQ(run({"-convert", "a.lumap", "b.xpts"}).status, 3);
  EXPECT_EQ(run({"-convert", "a.lumap", ".pts"}).status, 0);  // a hidden file is a PTS name

  expectRun({"-convert", "missing.lumap", "m.pts"}, 3,
            "Error opening file \"missing.lumap\"\n");
  EXPECT_FALSE(exists("m.pts"));

  writeFile("garbage.lumap", "not a map at all");
  expectRun({"-convert", "garbage.lumap", "g.pts"}, 3,
            "Error opening file \"garbage.lumap\"\n");

  expectRun({"-convert", "a.lumap", "no/such/dir/a.pts"}, 3,
            "Error creating file \"no/such/dir/a.pts\"\n");
}

}  // namespace
}  // namespace cvtest
