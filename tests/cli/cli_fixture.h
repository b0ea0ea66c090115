// The end-to-end harness: a fresh directory per test, the cacheview binary run in it with its
// standard output and standard error captured, and maps written there exactly as a test wants.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "app/testing/vector_map.h"
#include "io/stream.h"
#include "irradiance/irradiance_file.h"
#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"
#include "test_support/scratch_dir.h"

namespace cvtest {

struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};

class CliTest : public LUtils::testing::ScratchDirTest {
 protected:
  CliTest() : ScratchDirTest("cli") {}

  // Runs cacheview in the test's directory. Batch runs never write to standard error.
  RunResult run(std::vector<std::string> args) {
    RunResult result;
    const std::string outPath = path(".stdout"), errPath = path(".stderr");
    const pid_t pid = fork();
    if (pid == 0) {
      if (chdir(dir_.c_str()) != 0) _exit(127);
      const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1);
      dup2(err, 2);
      std::vector<char*> argv;
      std::string program = CACHEVIEW_BINARY;
      argv.push_back(program.data());
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    std::filesystem::remove(outPath);
    std::filesystem::remove(errPath);
    EXPECT_EQ(result.err, "") << "standard error must stay empty";
    return result;
  }

  // Runs cacheview and checks its exit status and standard output.
  void expectRun(const std::vector<std::string>& args, int status, const std::string& out) {
    std::string line;
    for (const auto& a : args) line += a + " ";
    const RunResult r = run(args);
    EXPECT_EQ(r.status, status) << line;
    EXPECT_EQ(r.out, out) << line;
  }

  static std::string readFile(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  void writeFile(const std::string& name, const std::string& bytes) {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }
  bool exists(const std::string& name) const { return std::filesystem::exists(path(name)); }

  // The names in the test directory.
  std::set<std::string> listing() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_))
      names.insert(entry.path().filename().string());
    return names;
  }

  // Writes a map file of the given version with these samples and settings.
  void writeMap(const std::string& name, const std::vector<LUtils::IrradSample>& samples,
                uint32_t version = IrradFormat::kVersionCurrent,
                const IrradianceMapHeader& header = IrradianceMapHeader()) {
    VectorMap map;
    map.samples = samples;
    PFileStream out;
    ASSERT_EQ(out.openForWriting(path(name).c_str(), 0), 0);
    ASSERT_EQ(IrradFormat::writeMapFile(out, version, header, map, nullptr), 0);
    ASSERT_EQ(out.close(), 0);
  }

  // The samples of a map file as the program's own reader sees them.
  std::vector<LUtils::IrradSample> readMap(const std::string& name, uint32_t* version = nullptr) {
    LUtils::IrradianceMap* map = LUtils::newIrradianceMap();
    std::vector<LUtils::IrradSample> samples;
    EXPECT_EQ(map->loadFromFile(path(name).c_str(), 0, 0.0f), 0) << name;
    struct Collect : LUtils::EnumIrradianceSamplesCallback {
      std::vector<LUtils::IrradSample>* out;
      int process(LUtils::IrradSample& s) override {
        out->push_back(s);
        return 1;
      }
    } collect;
    collect.out = &samples;
    map->enumerateSamples(0, &collect);
    if (version) *version = map->formatVersion();
    LUtils::deleteIrradianceMap(map);
    return samples;
  }

  // Writes a light cache of `count` samples along the x axis.
  void writeLightCache(const std::string& name, int count, float offset = 0.0f) {
    LightMap cache;
    for (int i = 0; i < count; ++i) {
      LightMapSample* s = cache.insertSample();
      s->position = LUtils::Vector(offset + static_cast<float>(i), 0.0f, 0.0f);
      s->normal = s->normalB = LUtils::Vector(0.0f, 0.0f, 1.0f);
      s->radiusSquared = 0.01f;
    }
    ASSERT_EQ(cache.save(path(name).c_str(), nullptr), 0);
  }
  size_t lightCacheSamples(const std::string& name) {
    LightMap cache;
    EXPECT_EQ(cache.load(path(name).c_str()), 0) << name;
    return cache.sampleCount();
  }
};

// n samples with distinct positions and colours, starting at `first`.
inline std::vector<LUtils::IrradSample> samplesFrom(int first, int n) {
  std::vector<LUtils::IrradSample> samples;
  for (int i = first; i < first + n; ++i) {
    samples.push_back(makeSample({static_cast<float>(i), 0.5f * static_cast<float>(i), -1.0f},
                                 static_cast<uint8_t>(i), static_cast<uint8_t>(2 * i), 3));
  }
  return samples;
}

inline bool sameBytes(const LUtils::IrradSample& a, const LUtils::IrradSample& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace cvtest
