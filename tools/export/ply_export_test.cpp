// cacheview-export end to end: maps of both kinds written to files (with the awkward values a
// real map holds: damaged samples, negative IDs, high flag bits), the program run on them in both
// encodings, and its PLY files read back by a reader of this test's own and compared value by
// value with the samples as the map loaders read them. CloudCompare, when installed, must open
// the file too.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "app/map_files.h"
#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "ply_export.h"
#include "render/draw_options.h"
#include "render/sample_drawing.h"
#include "synth/light_cache.h"
#include "synth/map_output.h"
#include "test_support/scratch_dir.h"

namespace {

using LUtils::testing::readWholeFile;

std::string shellQuoted(const std::string& s) { return "'" + s + "'"; }

// A PLY file as a reader that knows nothing of maps sees it: the property names and, per vertex,
// every value widened to double (exact for the 8- and 32-bit types used).
struct PlyCloud {
  std::string format;
  std::vector<std::string> comments;
  std::vector<std::pair<std::string, std::string>> properties;  // type, name
  std::vector<std::vector<double>> vertices;

  size_t column(const std::string& name) const {
    for (size_t i = 0; i < properties.size(); ++i) {
      if (properties[i].second == name) return i;
    }
    ADD_FAILURE() << "no property " << name;
    return 0;
  }
};

double readBinary(const std::string& type, const char*& p) {
  if (type == "uchar") return static_cast<uint8_t>(*p++);
  uint32_t word;
  std::memcpy(&word, p, 4);
  p += 4;
  if (type == "float") return std::bit_cast<float>(word);
  if (type == "int") return static_cast<int32_t>(word);
  if (type == "uint") return word;
  ADD_FAILURE() << "unexpected type " << type;
  return 0;
}

bool readPly(const std::string& bytes, PlyCloud& cloud) {
  const size_t headerEnd = bytes.find("end_header\n");
  if (bytes.compare(0, 4, "ply\n") != 0 || headerEnd == std::string::npos) return false;
  std::istringstream header(bytes.substr(4, headerEnd - 4));
  size_t count = 0;
  for (std::string line; std::getline(header, line);) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "format") {
      words >> cloud.format;
    } else if (key == "comment") {
      cloud.comments.push_back(line.substr(8));
    } else if (key == "element") {
      std::string name;
      words >> name >> count;
      if (name != "vertex") return false;
    } else if (key == "property") {
      std::string type, name;
      words >> type >> name;
      cloud.properties.emplace_back(type, name);
    } else {
      return false;
    }
  }
  const std::string body = bytes.substr(headerEnd + 11);
  if (cloud.format == "binary_little_endian") {
    size_t recordBytes = 0;
    for (const auto& [type, name] : cloud.properties) recordBytes += type == "uchar" ? 1 : 4;
    if (body.size() != count * recordBytes) return false;
    const char* p = body.data();
    for (size_t i = 0; i < count; ++i) {
      std::vector<double> v;
      for (const auto& property : cloud.properties) v.push_back(readBinary(property.first, p));
      cloud.vertices.push_back(std::move(v));
    }
    return true;
  }
  if (cloud.format != "ascii") return false;
  std::istringstream lines(body);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::vector<double> v;
    for (std::string word; words >> word;) {
      // A float property's text is read as a float, as a reader storing floats does.
      const bool isFloat = v.size() < cloud.properties.size() &&
                           cloud.properties[v.size()].first == "float";
      v.push_back(isFloat ? std::strtof(word.c_str(), nullptr) : std::strtod(word.c_str(), nullptr));
    }
    if (v.size() != cloud.properties.size()) return false;
    cloud.vertices.push_back(std::move(v));
  }
  return cloud.vertices.size() == count;
}

// The same value, NaN included (the PLY keeps what the file holds).
void expectSame(double actual, double expected, const std::string& what) {
  if (std::isnan(expected)) {
    EXPECT_TRUE(std::isnan(actual)) << what;
  } else {
    EXPECT_EQ(actual, expected) << what;
  }
}

uint8_t expectedByte(float channel, float brightness) {
  const float scaled = channel * brightness;
  if (!(scaled > 0.0f)) return 0;
  return static_cast<uint8_t>(std::lround(std::min(scaled, 1.0f) * 255.0f));
}

class ExportTool : public LUtils::testing::ScratchDirTest {
 protected:
  ExportTool() : ScratchDirTest("export-tool") {}

  int run(const std::string& args, std::string* out = nullptr) const {
    const std::string cmd = shellQuoted(CACHEVIEW_EXPORT_TOOL) + " " + args + " > " +
                            shellQuoted(path("out.txt")) + " 2> " + shellQuoted(path("err.txt"));
    const int raw = std::system(cmd.c_str());
    if (out != nullptr) *out = readWholeFile(path("out.txt")) + readWholeFile(path("err.txt"));
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }

  // A synthesised irradiance map with a damaged sample (NaN position), a negative render ID,
  // a time and high flag bits on some samples.
  std::string irradianceMap(uint32_t count) const {
    synth::Params params;
    params.count = count;
    LUtils::DefIrradianceMap map;
    EXPECT_EQ(synth::generate(params, map), count);
    struct Damage final : LUtils::EnumIrradianceSamplesCallback {
      int i = 0;
      int process(LUtils::IrradSample& s) override {
        if (i == 3) s.position.y = std::numeric_limits<float>::quiet_NaN();
        if (i % 7 == 0) s.renderId = -1 - i;
        s.time = 0.25f * static_cast<float>(i % 5);
        s.flags |= i % 2 == 0 ? 0x80000000u : 0u;
        ++i;
        return 1;
      }
    } damage;
    map.enumerateSamples(0, &damage);
    EXPECT_EQ(map.saveToFile(path("room.lumap").c_str(), nullptr), 0);
    return path("room.lumap");
  }

  std::string lightCache(uint32_t count) const {
    synth::Params params;
    params.count = count;
    std::string message;
    EXPECT_EQ(synth::writeLightCacheFile(path("room.lulmap").c_str(), 0x60000, params, message), 0)
        << message;
    return path("room.lulmap");
  }
};

// Exports the map in both encodings and compares every value of both files with the map as the
// loaders read it.
void expectRoundTrip(const std::string& mapFile,
                     const std::vector<std::string>& binaryAndAscii) {
  LUtils::IrradianceMap* irradiance = nullptr;
  LightMap* light = nullptr;
  ASSERT_EQ(loadMapFile(mapFile.c_str(), irradiance, light), 0);
  std::unique_ptr<LightMap> ownedLight(light);
  const LUtils::DrawnMap drawn{irradiance, light};
  LUtils::DrawOptions viewer;
  LUtils::automaticBrightness(drawn, viewer);
  const float brightness = viewer.brightness();
  ASSERT_TRUE(std::isfinite(brightness) && brightness > 0.0f);

  // Expected columns per sample, decoded here from the raw fields.
  std::vector<std::map<std::string, double>> expected;
  if (light != nullptr) {
    light->samples().forEach(0, [&](const LightMapSample& s) {
      const float c[3] = {std::bit_cast<float>(s.valueA[0]), std::bit_cast<float>(s.valueA[1]),
                          std::bit_cast<float>(s.valueA[2])};
      expected.push_back({{"x", s.position.x}, {"y", s.position.y}, {"z", s.position.z},
                          {"nx", s.normal.x}, {"ny", s.normal.y}, {"nz", s.normal.z},
                          {"scalar_colour_r", c[0]}, {"scalar_colour_g", c[1]},
                          {"scalar_colour_b", c[2]}, {"red", expectedByte(c[0], brightness)},
                          {"green", expectedByte(c[1], brightness)},
                          {"blue", expectedByte(c[2], brightness)},
                          {"scalar_radius", std::sqrt(s.radiusSquared)}, {"scalar_id", s.id}});
      return true;
    });
  } else {
    struct Collect final : LUtils::EnumIrradianceSamplesCallback {
      std::vector<std::map<std::string, double>>* out;
      float brightness;
      int process(LUtils::IrradSample& s) override {
        float c[3];
        for (int k = 0; k < 3; ++k) c[k] = std::ldexp(static_cast<float>(s.colour[k]), s.exponent - 135);
        out->push_back({{"x", s.position.x}, {"y", s.position.y}, {"z", s.position.z},
                        {"nx", s.normal.x}, {"ny", s.normal.y}, {"nz", s.normal.z},
                        {"scalar_colour_r", c[0]}, {"scalar_colour_g", c[1]},
                        {"scalar_colour_b", c[2]}, {"red", expectedByte(c[0], brightness)},
                        {"green", expectedByte(c[1], brightness)},
                        {"blue", expectedByte(c[2], brightness)},
                        {"scalar_radius", 0.2f * std::sqrt(s.drawRadius2)},
                        {"scalar_render_id", s.renderId}, {"scalar_time", s.time},
                        {"scalar_flags", s.flags}});
        return 1;
      }
    } collect;
    collect.out = &expected;
    collect.brightness = brightness;
    irradiance->enumerateSamples(0, &collect);
    LUtils::deleteIrradianceMap(irradiance);
  }

  for (const std::string& ply : binaryAndAscii) {
    PlyCloud cloud;
    ASSERT_TRUE(readPly(readWholeFile(ply), cloud)) << ply << " is not a PLY file";
    ASSERT_EQ(cloud.vertices.size(), expected.size()) << ply;
    ASSERT_EQ(cloud.properties.size(), expected.front().size()) << ply;
    ASSERT_EQ(cloud.comments.size(), 1u);
    EXPECT_NE(cloud.comments[0].find(mapFile), std::string::npos);
    for (const auto& [name, value] : expected.front()) {
      (void)value;
      const size_t column = cloud.column(name);
      for (size_t i = 0; i < expected.size(); ++i) {
        expectSame(cloud.vertices[i][column], expected[i].at(name),
                   ply + ": sample " + std::to_string(i) + " " + name);
        if (::testing::Test::HasFailure()) return;
      }
    }
  }
}

TEST_F(ExportTool, BothKindsOfMapRoundTripInBothEncodings) {
  for (const std::string& map : {irradianceMap(3000), lightCache(3000)}) {
    std::string out;
    ASSERT_EQ(run(shellQuoted(map) + " " + shellQuoted(path("binary.ply")), &out), 0) << out;
    EXPECT_NE(out.find("Wrote 3000 samples"), std::string::npos) << out;
    ASSERT_EQ(run("-q --ascii -o " + shellQuoted(path("ascii.ply")) + " " + shellQuoted(map), &out), 0);
    EXPECT_EQ(out, "");
    expectRoundTrip(map, {path("binary.ply"), path("ascii.ply")});
    if (HasFailure()) return;
  }
  // Irradiance records are 55 bytes, light-cache records 47: nothing more than the properties.
  EXPECT_EQ(readWholeFile(path("binary.ply")).size() -
                readWholeFile(path("binary.ply")).find("end_header\n") - 11,
            3000u * 47u);
}

TEST_F(ExportTool, BadInputFailsClearlyAndLeavesTheOutputAlone) {
  std::string out;
  EXPECT_EQ(run("--version", &out), 0);
  EXPECT_EQ(out.rfind("cacheview-export ", 0), 0u) << out;
  for (const char* args : {"", "only-a-map.lumap", "-b -1 a.lumap b.ply", "--frobnicate a b",
                           "a b c", "-o x.ply a.lumap b.ply"}) {
    EXPECT_EQ(run(args, &out), 2) << args;
    EXPECT_NE(out.find("Try 'cacheview-export --help'"), std::string::npos) << args;
  }

  LUtils::testing::writeWholeFile(path("keep.ply"), "the user's file");
  LUtils::testing::writeWholeFile(path("junk.lumap"), std::string(100, 'x'));
  for (const std::string& map : {path("missing.lumap"), path("junk.lumap")}) {
    EXPECT_EQ(run(shellQuoted(map) + " " + shellQuoted(path("keep.ply")), &out), 1) << map;
    EXPECT_NE(out.find("cannot read"), std::string::npos) << out;
  }
  EXPECT_EQ(readWholeFile(path("keep.ply")), "the user's file");
  EXPECT_EQ(run(shellQuoted(lightCache(10)) + " " + shellQuoted(path("no-dir/x.ply")), &out), 1);
  EXPECT_NE(out.find("cannot create"), std::string::npos) << out;
  EXPECT_EQ(entries(), 5);  // keep.ply, junk.lumap, room.lulmap and the two output captures
  // A full disk: /dev/full is written in place (a device is never replaced) and refuses it all.
  if (std::filesystem::exists("/dev/full")) {
    EXPECT_EQ(run(shellQuoted(path("room.lulmap")) + " /dev/full", &out), 1);
    EXPECT_NE(out.find("cannot write"), std::string::npos) << out;
  }
}

// The export streams: its peak memory is the loaded map and a little more, well below what a
// second copy of the map, or the PLY file held whole, would add.
TEST_F(ExportTool, HoldsOneCopyOfTheMap) {
  synth::Params params;
  params.count = 1000000;
  std::string message;
  ASSERT_EQ(synth::writeMapFile(path("big.lumap").c_str(), 0xD0000, params, message), 0);
  ASSERT_EQ(run("-q " + shellQuoted(path("big.lumap")) + " " + shellQuoted(path("big.ply"))), 0);
  const double mapBytes = static_cast<double>(std::filesystem::file_size(path("big.lumap")));
  const double plyBytes = static_cast<double>(std::filesystem::file_size(path("big.ply")));
  rusage usage{};
  ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
  const double peak = static_cast<double>(usage.ru_maxrss) * 1024.0;
  EXPECT_LT(peak, mapBytes + 0.5 * plyBytes + 16e6)
      << "peak " << peak / 1e6 << " MB for a " << mapBytes / 1e6 << " MB map";
}

// CloudCompare's command-line mode opens the PLY of each kind of map and writes it back as a
// point list whose header names the scalar fields and which holds every point.
TEST_F(ExportTool, CloudCompareReadsBothKinds) {
  if (std::system("command -v CloudCompare >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "CloudCompare is not installed";
  }
  struct Kind {
    std::string map;
    std::vector<std::string> fields;
  };
  for (const Kind& kind :
       {Kind{irradianceMap(2000), {"scalar_render_id", "scalar_time", "scalar_flags"}},
        Kind{lightCache(2000), {"scalar_id"}}}) {
    ASSERT_EQ(run("-q " + shellQuoted(kind.map) + " " + shellQuoted(path("cloud.ply"))), 0);
    std::filesystem::remove(path("cloud.asc"));
    const std::string cmd =
        "cd " + shellQuoted(dir_) + " && QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=" + shellQuoted(dir_) +
        " HOME=" + shellQuoted(dir_) +
        " timeout 120 CloudCompare -SILENT -NO_TIMESTAMP -O cloud.ply -C_EXPORT_FMT ASC"
        " -ADD_HEADER -SAVE_CLOUDS FILE cloud.asc > cc.log 2>&1";
    ASSERT_EQ(std::system(cmd.c_str()), 0) << readWholeFile(path("cc.log"));
    const std::string log = readWholeFile(path("cc.log"));
    EXPECT_NE(log.find("Found one cloud with 2000 points"), std::string::npos) << log;
    std::istringstream asc(readWholeFile(path("cloud.asc")));
    std::string header;
    std::getline(asc, header);
    std::vector<std::string> fields = kind.fields;
    fields.insert(fields.end(), {"colour_r", "colour_g", "colour_b", "radius"});
    for (std::string field : fields) {
      if (field.rfind("scalar_", 0) == 0) field = field.substr(7);
      EXPECT_NE((" " + header + " ").find(" " + field + " "), std::string::npos)
          << field << " missing from " << header;
    }
    int points = 0;
    for (std::string line; std::getline(asc, line);) points += line.empty() ? 0 : 1;
    EXPECT_EQ(points, 2000);
  }
}

}  // namespace
