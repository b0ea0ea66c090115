// The batch face: the usage banner, the option walk with its loads, merges, reports and saves,
// and every exit status.
#include "cli_fixture.h"

namespace cvtest {
namespace {

const char* const kBanner =
    "Lumora irradiance map viewer, version 1.5.3\n"
    "Copyright (C) 2026 the cacheview authors. Provided as is, without any warranty.\n"
    "\n"
    "Usage:\n"
    "\n"
    "cacheview\n"
    "  opens a dialog for choosing an irradiance or light cache\n"
    "\n"
    "cacheview <filename>\n"
    "  displays the specified irradiance or light cache\n"
    "\n"
    "cacheview  [-incremental] -load <filename> {-load <filename>} [-save <filename>] "
    "[-noDisplay] [-info]\n"
    "  merges the specified irradiance/light maps and writes them to the specified file.\n"
    "  If the -incremental option is specified, the cacheview will discard\n"
    "  samples that fall in areas where there is already sufficient information.\n"
    "  This option must be specified before any -load options. The -info option\n"
    "  prints out information about the current irradiance map.\n"
    "cacheview -up_axis [z|y]\n"
    "  choose the up axis (default is z)\n"
    "\n"
    "cacheview -convert <filenameFrom> <filenameTo.pts> [-rgb]\n"
    "  convert irradiance map file into PTS file\n"
    "\n"
    "cacheview -help\n"
    "  prints this help message\n"
    "\n";

// The progress line of a plain merge of 30 samples: a print every 6.67 percent.
const char* const kAdding30 =
    "Adding samples..."
    "\rAdding samples...6.67\rAdding samples...13.33\rAdding samples...20.00"
    "\rAdding samples...26.67\rAdding samples...33.33\rAdding samples...40.00"
    "\rAdding samples...46.67\rAdding samples...53.33\rAdding samples...60.00"
    "\rAdding samples...66.67\rAdding samples...73.33\rAdding samples...80.00"
    "\rAdding samples...86.67\rAdding samples...93.33\rAdding samples...100.00"
    "\rAdding samples...done      \n";

class Batch : public CliTest {};

TEST_F(Batch, UsageBanner) {
  // With more than one argument -help is just an unknown option. Matching is exact: no other
  // case, no "--" forms, and the banner's "-noDisplay" is unknown. -load and -save need a name.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"-help"}, {"-help", "extra"}, {"-nodisplay", "-HELP"},
        {"-nodisplay", "--nodisplay"}, {"-nodisplay", "-noDisplay"}, {"-nodisplay", "-Load"},
        {"-nodisplay", "x.lumap"}, {"-nodisplay", "-load"}, {"-nodisplay", "-save"}}) {
    expectRun(args, 1, kBanner);
  }
}

TEST_F(Batch, MergeOfTwoMapsWithItsProgress) {
  const auto a = samplesFrom(0, 2);
  const auto b = samplesFrom(100, 30);
  writeMap("a.lumap", a);
  writeMap("b.lumap", b);

  expectRun({"-load", "a.lumap", "-load", "b.lumap", "-save", "c.lumap", "-nodisplay"}, 0,
            std::string("Loaded irradiance map file \"a.lumap\"\n"
                               "Loaded irradiance map file \"b.lumap\"\n") +
                       kAdding30 + "Saved irradiance map file \"c.lumap\"\n");

  // Plain merging appends every source sample unchanged, after the target's own.
  uint32_t version = 0;
  const auto c = readMap("c.lumap", &version);
  EXPECT_EQ(version, IrradFormat::kVersionCurrent);
  ASSERT_EQ(c.size(), 32u);
  for (size_t i = 0; i < c.size(); ++i) {
    EXPECT_TRUE(sameBytes(c[i], i < 2 ? a[i] : b[i - 2])) << "sample " << i;
  }
}

TEST_F(Batch, MergingAnEmptyMapPrintsNoProgress) {
  writeMap("a.lumap", samplesFrom(0, 3));
  writeMap("empty.lumap", {});
  expectRun({"-nodisplay", "-load", "a.lumap", "-load", "empty.lumap", "-save", "c.lumap"}, 0,
            "Loaded irradiance map file \"a.lumap\"\n"
            "Loaded irradiance map file \"empty.lumap\"\n"
            "Saved irradiance map file \"c.lumap\"\n");
  EXPECT_EQ(readMap("c.lumap").size(), 3u);
}

TEST_F(Batch, EachSaveWritesTheStateReachedSoFar) {
  writeMap("a.lumap", samplesFrom(0, 4));
  writeMap("b.lumap", samplesFrom(10, 1));
  expectRun({"-load", "a.lumap", "-save", "s1.lumap", "-load", "b.lumap", "-save", "s2.lumap",
               "-save", "s3.lumap", "-nodisplay"}, 0,
            "Loaded irradiance map file \"a.lumap\"\n"
            "Saved irradiance map file \"s1.lumap\"\n"
            "Loaded irradiance map file \"b.lumap\"\n"
            "Adding samples...\rAdding samples...100.00\rAdding samples...done      \n"
            "Saved irradiance map file \"s2.lumap\"\n"
            "Saved irradiance map file \"s3.lumap\"\n");
  EXPECT_EQ(readMap("s1.lumap").size(), 4u);
  EXPECT_EQ(readMap("s2.lumap").size(), 5u);
  EXPECT_EQ(readFile(path("s3.lumap")), readFile(path("s2.lumap")));
}

TEST_F(Batch, AnUnknownOptionAfterASaveKeepsTheSavedFile) {
  writeMap("a.lumap", samplesFrom(0, 2));
  expectRun({"-load", "a.lumap", "-save", "s.lumap", "-bogus", "-save", "never.lumap"}, 1,
            std::string("Loaded irradiance map file \"a.lumap\"\n"
                               "Saved irradiance map file \"s.lumap\"\n") +
                       kBanner);
  EXPECT_EQ(readMap("s.lumap").size(), 2u);
  EXPECT_FALSE(exists("never.lumap"));
}

TEST_F(Batch, NodisplayWithoutSaveWritesNothing) {
  writeMap("a.lumap", samplesFrom(0, 2));
  writeMap("b.lumap", samplesFrom(5, 1));
  const auto before = listing();
  RunResult r = run({"-nodisplay", "-load", "a.lumap", "-load", "b.lumap", "-info"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Adding samples...done      \n"), std::string::npos);
  EXPECT_NE(r.out.find("Number of samples: 3\n"), std::string::npos);
  EXPECT_EQ(listing(), before);
}

TEST_F(Batch, InfoForEveryKindOfMap) {
  // The 812-sample example: a current map without camera information.
  IrradianceMapHeader settings;
  settings.timeDependence = 0.0f;
  settings.minRate = -3;
  settings.maxRate = 0;
  settings.calcPassInterpSamples = 10;
  writeMap("current.lumap", samplesFrom(0, 812), IrradFormat::kVersionCurrent, settings);
  expectRun({"-load", "current.lumap", "-info", "-nodisplay"}, 0,
            "Loaded irradiance map file \"current.lumap\"\n"
            "Irradiance map information:\n"
            "Sample size (bytes): 84\n"
            "Number of samples: 812\n"
            "Format version: 13 (0xD0000)\n"
            "Time dependent: no\n"
            "Min rate: -3\n"
            "Max rate: 0\n"
            "Contains render IDs: no\n"
            "Supports animation blending: no\n"
            "Calc. pass interpolation samples: 10\n"
            "Camera information: none\n");

  IrradianceMapHeader camera;
  camera.cameraFlags = 1;
  camera.cameraRotation[1] = 0.25f;
  camera.cameraPosition[2] = -12.5;
  camera.exposure[1] = 0.5f;
  camera.cameraFov = 60.0f;
  camera.cameraTarget = 3.0f;
  camera.containsRenderIds = 1;
  writeMap("camera.lumap", samplesFrom(0, 2), IrradFormat::kVersionCurrent, camera);
  expectRun({"-nodisplay", "-load", "camera.lumap", "-info"}, 0,
            "Loaded irradiance map file \"camera.lumap\"\n"
            "Irradiance map information:\n"
            "Sample size (bytes): 84\n"
            "Number of samples: 2\n"
            "Format version: 13 (0xD0000)\n"
            "Time dependent: yes\n"
            "Min rate: -3\n"
            "Max rate: 0\n"
            "Contains render IDs: yes\n"
            "Supports animation blending: no\n"
            "Calc. pass interpolation samples: 15\n"
            "Camera information: yes\n"
            "  Camera transformation:\n"
            "    (1, 0.25, 0),\n"
            "    (0, 1, 0),\n"
            "    (0, 0, 1),\n"
            "    (0, 0, -12.5)\n"
            "  Exposure RGB: (1, 0.5, 1)\n"
            "  Camera FOV: 60\n"
            "  Camera target: 3\n");

  // Version 0xB0000 stores no camera block: its camera information is always none.
  writeMap("b.lumap", samplesFrom(0, 1), IrradFormat::kVersionHeader, camera);
  RunResult r = run({"-nodisplay", "-load", "b.lumap", "-info"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("Format version: 11 (0xB0000)\nTime dependent: yes\n"), std::string::npos);
  EXPECT_NE(r.out.find("Camera information: none\n"), std::string::npos);

  // An old map has no settings to show.
  writeMap("old.lumap", samplesFrom(0, 7), 0x50000);
  expectRun({"-nodisplay", "-info", "-load", "old.lumap", "-info"}, 0,
            "No irradiance map to print info about\n"
            "Loaded irradiance map file \"old.lumap\"\n"
            "Irradiance map information:\n"
            "Sample size (bytes): 84\n"
            "Number of samples: 7\n"
            "Format version: 5 (0x50000)\n");

  // The report follows the map in memory through merges.
  r = run({"-nodisplay", "-load", "old.lumap", "-load", "camera.lumap", "-info"});
  EXPECT_NE(r.out.find("Number of samples: 9\nFormat version: 5 (0x50000)\n"), std::string::npos);
}

TEST_F(Batch, LoadAndSaveFailures) {
  expectRun({"-nodisplay", "-load", "missing.lumap", "-save", "never.lumap"}, 2,
            "Error loading file \"missing.lumap\"\n");
  writeFile("garbage.dat", std::string(3, '\x7f'));
  expectRun({"-nodisplay", "-load", "garbage.dat"}, 2, "Error loading file \"garbage.dat\"\n");
  // A .lulmap file is a light cache, whatever it holds.
  writeMap("map.lulmap", samplesFrom(0, 2));
  expectRun({"-nodisplay", "-load", "map.lulmap"}, 2, "Error loading file \"map.lulmap\"\n");
  // Saving with nothing in memory is a failed save.
  expectRun({"-nodisplay", "-save", "x.lumap"}, 3, "Error saving irradiance map file \"x.lumap\"\n");
  // The first failure ends the run: later options are never reached.
  writeMap("a.lumap", samplesFrom(0, 2));
  expectRun({"-load", "a.lumap", "-save", "no/such/dir/x.lumap", "-save", "later.lumap"}, 3,
            "Loaded irradiance map file \"a.lumap\"\n"
            "Error saving irradiance map file \"no/such/dir/x.lumap\"\n");
  EXPECT_EQ(listing(), (std::set<std::string>{"a.lumap", "garbage.dat", "map.lulmap"}));
}

TEST_F(Batch, LightCaches) {
  writeLightCache("a.lulmap", 3);
  writeLightCache("b.lulmap", 2, 100.0f);
  expectRun({"-load", "a.lulmap", "-load", "b.lulmap", "-info", "-save", "c.lulmap",
               "-nodisplay"}, 0,
            "Loaded light cache file \"a.lulmap\"\n"
            "Loaded light cache file \"b.lulmap\"\n"
            "No irradiance map to print info about\n"
            "Saved light cache file \"c.lulmap\"\n");
  EXPECT_EQ(lightCacheSamples("c.lulmap"), 5u);

  // A light cache under another extension is found once the irradiance-map load fails; with
  // both kinds in memory, -save writes the light cache and -info reports the irradiance map.
  writeLightCache("light.dat", 4);
  writeMap("m.lumap", samplesFrom(0, 6));
  const RunResult r = run({"-nodisplay", "-load", "light.dat", "-load", "m.lumap", "-save", "both.out", "-info"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.substr(0, r.out.find("Sample size")),
            "Loaded light cache file \"light.dat\"\n"
            "Loaded irradiance map file \"m.lumap\"\n"
            "Saved light cache file \"both.out\"\n"
            "Irradiance map information:\n");
  EXPECT_EQ(lightCacheSamples("both.out"), 4u);

  expectRun({"-nodisplay", "-load", "a.lulmap", "-save", "no/such/dir/c.lulmap"}, 3,
            "Loaded light cache file \"a.lulmap\"\n"
            "Error saving light cache file \"no/such/dir/c.lulmap\"\n");
}

TEST_F(Batch, IncrementalFlagAffectsOnlyTheLoadsAfterIt) {
  writeMap("a.lumap", samplesFrom(0, 2));
  writeMap("old.lumap", samplesFrom(50, 1), 0xA0000);
  RunResult r = run({"-load", "a.lumap", "-load", "old.lumap", "-incremental", "-save", "d.lumap",
           "-nodisplay"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.find("Warning"), std::string::npos);
  EXPECT_EQ(readMap("d.lumap").size(), 3u);
}

TEST_F(Batch, UpAxisTakesItsValue) {
  // The value is consumed whatever it is, so "-bogus" here is not an unknown option; a missing
  // value counts as "not y".
  expectRun({"-nodisplay", "-up_axis", "-bogus"}, 0, "");
  expectRun({"-up_axis", "y", "-nodisplay"}, 0, "");
  expectRun({"-nodisplay", "-up_axis"}, 0, "");
}

// Every run that would open the window, on a machine without a display (as CI and SSH are):
// status 4 and one line that says why, whether or not the viewer is in the build.
TEST_F(Batch, ViewerRunsWithoutADisplaySaySoAndStopAtOnce) {
  const std::string binary = CACHEVIEW_BINARY;
  const bool viewerBuilt =
      std::filesystem::exists(binary.substr(0, binary.rfind('/')) + "/cacheview-viewer.so");
  const std::string message =
      viewerBuilt ? "The viewer cannot open a window here (no display); add -nodisplay to run "
                    "the batch steps without it.\n"
                  : "The viewer is not part of this build of cacheview; add -nodisplay to run "
                    "the batch steps without it.\n";
  writeMap("a.lumap", samplesFrom(0, 1));
  const std::string display = std::getenv("DISPLAY") != nullptr ? std::getenv("DISPLAY") : "";
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  // No argument, a single argument (always a file name, even an option's), a batch run without
  // -nodisplay.
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, {"a.lumap"}, {"-info"}, {"-convert"}, {"-up_axis", "y"},
        {"-load", "a.lumap"}}) {
    RunResult r = run(args);
    EXPECT_EQ(r.status, 4);
    EXPECT_TRUE(r.out.ends_with(message)) << r.out;
  }
  if (!display.empty()) setenv("DISPLAY", display.c_str(), 1);
}

}  // namespace
}  // namespace cvtest
