// Map files: round trips for every version, the reader's leniencies and error codes, and saves that
// must never destroy the file they replace.
#include "irradiance/irradiance_file.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "io/stream.h"
#include "test_support/scratch_dir.h"
#include "irradiance/def_irradiance_map.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;
using LUtils::testing::readWholeFile;
using LUtils::testing::writeWholeFile;
namespace fs = std::filesystem;

template <class T>
void put(std::string& bytes, const T& value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// Random bytes throughout: NaNs, negative zeros and denormals must survive as they are.
std::vector<IrradSample> randomSamples(size_t n) {
  std::mt19937 rng(7);
  std::vector<IrradSample> samples(n);
  for (IrradSample& s : samples) {
    uint32_t words[21];
    for (auto& w : words) w = static_cast<uint32_t>(rng());
    std::memcpy(&s, words, sizeof s);
  }
  return samples;
}

void fill(DefIrradianceMap& map, const std::vector<IrradSample>& samples) {
  for (const IrradSample& s : samples) map.appendSample(s);
}

// Every stored field differs from its default: word i of the first 19 holds 1000 + i (as an
// integer, also in the float words), as in currentFile() below.
IrradianceMapHeader unusualHeader() {
  IrradianceMapHeader h;
  int32_t words[19];
  for (int32_t i = 0; i < 19; ++i) words[i] = 1000 + i;
  std::memcpy(static_cast<void*>(&h), words, sizeof words);  // the stored words lead the struct
  h.exposure[0] = 2.0f;
  h.cameraFlags = 1;
  h.cameraRotation[4] = -1.0f;
  h.cameraPosition[2] = 1e10;
  h.cameraFov = 0.7f;
  h.cameraTarget = 12.5f;
  return h;
}

// A current file by hand: version, count, header size, a header whose word i holds 1000 + i, then
// the records.
std::string currentFile(uint32_t version, uint32_t count, uint32_t headerSize,
                        const std::vector<IrradSample>& samples) {
  std::string bytes;
  put(bytes, std::array<uint32_t, 3>{version, count, headerSize});
  for (uint32_t i = 0; i < headerSize / 4; ++i) put(bytes, 1000 + i);
  bytes.resize(12 + headerSize, '\xAB');
  for (const IrradSample& s : samples) put(bytes, s);
  return bytes;
}

// Checks a map loaded from a file of `version` against the header and map written: the header
// fields the version stores keep their values, the others their defaults; current versions keep
// every sample byte for byte, old ones what they store of it (stated here apart from the
// converter's tables: the rest reads back as 0, the packed normal is recomputed).
void expectLoadedAsWritten(uint32_t version, const IrradianceMapHeader& header,
                           DefIrradianceMap& written, DefIrradianceMap& loaded) {
  EXPECT_EQ(loaded.formatVersion(), version);
  IrradianceMapHeader expected;  // old versions store no header
  if (version >= 0xB0000) {
    std::memcpy(static_cast<void*>(&expected), &header, 19 * 4);
    if (version == 0xD0000) expected = header;
    expected.updateRateScales();
  }
  EXPECT_EQ(std::memcmp(&expected, loaded.fileHeader(), sizeof expected), 0) << std::hex << version;
  EXPECT_EQ(loaded.header()->containsRenderIds, expected.containsRenderIds);
  ASSERT_EQ(loaded.samples().size(), written.samples().size());
  const uint32_t major = version >> 16;
  for (size_t i = 0; i < written.samples().size(); ++i) {
    IrradSample in = written.samples()[i];
    if (major <= 10) {
      if (major < 2) in.footprint = 0;
      if (major < 3) in.renderId = 0;
      if (major < 5) in.aux[0] = in.aux[1] = 0;
      in.flags = 0;
      in.time = 0;
      in.packNormal();
    }
    ASSERT_EQ(std::memcmp(&in, &loaded.samples()[i], sizeof in), 0) << std::hex << version;
  }
}

// Runs `fn` in a child process (to change its limits or user safely); returns fn's result, which
// travels as an exit status and so must lie in -128..127, or 1000 when the child did not end
// through fn. An exception must not leave fn: the framework would catch it and run the other
// tests in the child, whose exit status 1 would pass for a result.
int inChild(const std::function<int()>& fn) {
  const pid_t pid = fork();
  if (pid == 0) {
    try {
      _exit(fn() & 0xFF);
    } catch (...) {
      raise(SIGKILL);
    }
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return 1000;
  return static_cast<int8_t>(WEXITSTATUS(status));
}

class IrradianceFile : public LUtils::testing::ScratchDirTest {
 protected:
  // The bytes of `map` written with `header` as a file of `version` by the format's writer.
  std::string written(uint32_t version, DefIrradianceMap& map,
                      const IrradianceMapHeader& header = IrradianceMapHeader()) {
    {
      PFileStream file;
      EXPECT_EQ(file.openForWriting(path("written.lumap").c_str(), 0), 0);
      PBufferedStream out(PBufferedStream::kWriting, &file, 4096);
      EXPECT_EQ(IrradFormat::writeMapFile(out, version, header, map, nullptr), 0);
      EXPECT_EQ(out.close(), 0);
    }
    return readWholeFile(path("written.lumap"));
  }
  int load(DefIrradianceMap& map, const std::string& bytes, float timeOffset = 0.0f) {
    writeWholeFile(path("read.lumap"), bytes);
    return map.loadFromFile(path("read.lumap").c_str(), 0, timeOffset);
  }
};

TEST_F(IrradianceFile, EveryVersionRoundTrips) {
  DefIrradianceMap map;
  fill(map, randomSamples(3000));
  // Old versions do not carry the packed normal: they recompute it.
  for (size_t i = 0; i < 3000; ++i) map.samples()[i].packedNormalZ ^= 0x5555;
  const IrradianceMapHeader header = unusualHeader();
  for (uint32_t major = 1; major <= 13; ++major) {
    const uint32_t version = major << 16;
    const std::string bytes = written(version, map, header);
    EXPECT_EQ(bytes.size(), (major > 10 ? 12 + (major == 13 ? 160 : 76) : 8) +
                                3000u * IrradFormat::recordSize(version));
    DefIrradianceMap loaded;
    ASSERT_EQ(load(loaded, bytes), 0) << std::hex << version;
    expectLoadedAsWritten(version, header, map, loaded);
  }

  // The map's own save, of more than two storage blocks, I/O buffers and write batches.
  DefIrradianceMap big, loaded;
  fill(big, randomSamples(70000));
  big.setHeader(header);
  const std::string name = path("current.lumap");
  ASSERT_EQ(big.saveToFile(name.c_str(), nullptr), 0);
  EXPECT_EQ(fs::file_size(name), 12 + 160 + 70000u * 84);
  ASSERT_EQ(loaded.loadFromFile(name.c_str(), 0, 0.0f), 0);
  expectLoadedAsWritten(0xD0000, header, big, loaded);
}

// The 0xA0000 record, built byte by byte from its layout.
TEST(IrradianceFormat, VersionA0000RecordConversion) {
  uint8_t record[84];
  for (int i = 0; i < 84; ++i) record[i] = static_cast<uint8_t>(0x80 + i);
  const float leading[9] = {1, 2, 3, 0, -1, 0, 4, 5, 6};  // position, normal, value triple
  std::memcpy(record, leading, sizeof leading);
  IrradSample s;
  IrradFormat::decodeOldRecord(0xA0000, record, s);
  const auto* bytes = reinterpret_cast<const uint8_t*>(&s);
  EXPECT_EQ(std::memcmp(bytes, record, 36), 0);
  EXPECT_EQ(s.packedNormalZ, 32767);  // floor(0.5 * 65535)
  EXPECT_EQ(s.packedNormalAngle, 16383);  // atan2(-1, 0) = -pi/2 -> floor(0.25 * 65535)
  EXPECT_EQ(std::memcmp(bytes + 40, record + 40, 4), 0);
  EXPECT_EQ(s.flags, 0u);
  EXPECT_EQ(std::memcmp(bytes + 48, record + 48, 32), 0);
  EXPECT_EQ(s.time, 0.0f);
}

TEST_F(IrradianceFile, ReaderErrorCodesEmptyMapsAndVersionsBetweenMajors) {
  DefIrradianceMap map;
  EXPECT_EQ(map.loadFromFile(nullptr, 0, 0.0f), -1);
  EXPECT_EQ(map.loadFromFile(path("missing.lumap").c_str(), 0, 0.0f), -2);
  EXPECT_EQ(load(map, ""), -4);
  EXPECT_EQ(load(map, std::string("\0\0\x0D", 3)), -4);
  fill(map, randomSamples(5));
  EXPECT_EQ(load(map, currentFile(0xFFFF, 0, 0, {})), -3);
  EXPECT_EQ(load(map, currentFile(0xD0001, 0, 0, {})), -3);
  EXPECT_EQ(map.samples().size(), 5u);  // a version out of range leaves the map alone

  ASSERT_EQ(load(map, currentFile(0xD0000, 0, 160, {})), 0);
  EXPECT_EQ(map.samples().size(), 0u);
  EXPECT_EQ(map.fileHeader()->word4, 1004);
  // An 0x10001 file takes the current layout: its header is read, its samples are not.
  ASSERT_EQ(load(map, currentFile(0x10001, 3, 76, randomSamples(3))), 0);
  EXPECT_EQ(map.samples().size(), 0u);
  EXPECT_EQ(map.formatVersion(), 0x10001u);
  EXPECT_EQ(map.fileHeader()->word5, 1005);
}

TEST_F(IrradianceFile, FileCutInsideARecordKeepsTheRecordsBefore) {
  const auto samples = randomSamples(10);
  for (const size_t cut : {size_t{0}, size_t{1}, size_t{83}}) {
    // Current version: cut `cut` bytes into the 7th record.
    DefIrradianceMap map;
    EXPECT_EQ(load(map, currentFile(0xD0000, 10, 160, samples).substr(0, 172 + 6 * 84 + cut)), -4);
    ASSERT_EQ(map.samples().size(), 6u);
    EXPECT_EQ(std::memcmp(&map.samples()[5], &samples[5], 84), 0);
  }
  // Old version, cut inside the 3rd record.
  DefIrradianceMap source, map;
  fill(source, samples);
  EXPECT_EQ(load(map, written(0x60000, source).substr(0, 8 + 2 * 148 + 100)), -4);
  EXPECT_EQ(map.samples().size(), 2u);
}

// A large current file is read on several threads at once, straight into the storage: the map
// is the one reading on one thread gives, whole or cut anywhere, with storage blocks of any size,
// and so is the map read from a pipe.
TEST_F(IrradianceFile, LargeFilesReadOnThreadsAsOnOne) {
  constexpr size_t kCount = 70000;
  const auto samples = randomSamples(kCount);
  const std::string whole = currentFile(0xD0000, kCount, 160, samples);
  for (const size_t cut : {whole.size(), size_t{172 + 100 * 84 + 5}, size_t{172 + 30000 * 84},
                           size_t{172 + 50000 * 84 + 83}, whole.size() - 1}) {
    writeWholeFile(path("large.lumap"), whole.substr(0, cut));
    const size_t records = std::min(kCount, (cut - 172) / 84);
    // Threads 0: through a pipe, which is read in order on one thread.
    for (const int threads : {1, 2, 3, 0}) {
      for (const uint32_t perBlock : {20000u, 999u}) {
        DefIrradianceMap map(perBlock);
        map.setLoadThreads(threads);
        std::string file = path("large.lumap");
        std::optional<LUtils::testing::PipeFeeder> pipe;
        if (threads == 0) pipe.emplace(file = path("pipe"), whole.substr(0, cut));
        EXPECT_EQ(map.loadFromFile(file.c_str(), 0, 0.0f), cut == whole.size() ? 0 : -4);
        ASSERT_EQ(map.samples().size(), records) << threads << " threads, cut at " << cut;
        for (size_t i = 0; i < records; ++i) {
          ASSERT_EQ(std::memcmp(&map.samples()[i], &samples[i], 84), 0) << i;
        }
      }
    }
  }
}

// Hand-made current files with a header shorter or longer than the version's fields, loaded one
// after the other into one map with a time offset: each load starts from the default header, and
// the samples are found after the header, whole but for their shifted times.
TEST_F(IrradianceFile, HeaderSizeShorterOrLongerThanItsFieldsAndTimeOffset) {
  auto samples = randomSamples(4);
  for (size_t i = 0; i < 4; ++i) samples[i].time = static_cast<float>(i);
  DefIrradianceMap map;
  auto loadWithHeader = [&](uint32_t version, uint32_t size) {
    ASSERT_EQ(load(map, currentFile(version, 4, size, samples), 2.5f), 0) << size;
    ASSERT_EQ(map.samples().size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
      IrradSample expected = samples[i];
      expected.time += 2.5f;
      EXPECT_EQ(std::memcmp(&map.samples()[i], &expected, 84), 0) << size << " sample " << i;
    }
  };
  // 30 bytes hold words 0-6 (28 bytes) but not word 7: it and the rest keep their defaults.
  loadWithHeader(0xD0000, 30);
  EXPECT_EQ(map.fileHeader()->calcPassInterpSamples, 1006);
  EXPECT_EQ(map.fileHeader()->word7, IrradianceMapHeader().word7);
  EXPECT_EQ(map.fileHeader()->maxRate, 0);
  // 200 bytes: the camera fields end with the target in word 39, the 40 bytes after it are skipped.
  loadWithHeader(0xD0000, 200);
  EXPECT_EQ(map.fileHeader()->cameraFlags, 1022u);
  EXPECT_EQ(std::bit_cast<int32_t>(map.fileHeader()->cameraTarget), 1039);
  // Version 0xB0000 with a 160-byte header: only its 19 words are fields.
  loadWithHeader(0xB0000, 160);
  EXPECT_EQ(map.fileHeader()->supportsAnimBlending, 1018);
  EXPECT_EQ(map.fileHeader()->cameraFlags, 0u);
  loadWithHeader(0xC0000, 76);
}

TEST_F(IrradianceFile, HugeCountInATinyFileFailsWithoutAllocating) {
  // With the address space capped near its current size, any allocation sized from the count
  // (up to 4 G records) would fail; the reader must simply run into the end of the file.
  const auto samples = randomSamples(2);
  const std::string current = currentFile(0xD0000, 0xFFFFFFFFu, 160, samples);
  DefIrradianceMap source;
  fill(source, samples);
  std::string old = written(0x20000, source);
  const uint32_t huge = 0xFFFFFFF0u;
  old.replace(4, 4, reinterpret_cast<const char*>(&huge), 4);

  const int result = inChild([&] {
    long pages = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld", &pages) != 1) pages = 0;
      std::fclose(f);
    }
    const rlim_t cap = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (256u << 20);
    rlimit limit{cap, cap};
    setrlimit(RLIMIT_AS, &limit);
    DefIrradianceMap a, b;
    return load(a, current) == -4 && a.samples().size() == 2 && load(b, old) == -4 &&
           b.samples().size() == 2;
  });
  EXPECT_EQ(result, 1);
}

// --- saving ---

// A save that fails reports why. When no temporary can be made in a read-only directory, or the
// file size limit (3 MB against 8.4 MB) stops the writing half-way, the good file stays as it was
// and alone in its directory.
TEST_F(IrradianceFile, FailedSavesReportTheirCodesAndLeaveTheTargetAlone) {
  DefIrradianceMap map;
  fill(map, randomSamples(100000));
  EXPECT_EQ(map.saveToFile(static_cast<const char*>(nullptr), nullptr), -1);
  EXPECT_EQ(map.saveToFile(path("no-such-dir/x.lumap").c_str(), nullptr), -2);
  EXPECT_EQ(map.saveToFile("/dev/full", nullptr), -5);  // a device is written in place
  const std::string good("good\0\1\2\3", 8);
  chmod(dir_.c_str(), 0755);  // the unprivileged child below must reach its directory
  for (const bool readOnly : {true, false}) {
    const std::string dir = path(readOnly ? "readonly" : "full"), target = dir + "/map.lumap";
    fs::create_directory(dir);
    writeWholeFile(target, good);
    if (readOnly) chmod(dir.c_str(), 0555);
    const int result = inChild([&] {
      if (readOnly && geteuid() == 0 && setuid(65534) != 0) return 99;  // root writes anywhere
      if (!readOnly) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{3u << 20, 3u << 20};
        setrlimit(RLIMIT_FSIZE, &limit);
      }
      return map.saveToFile(target.c_str(), nullptr);
    });
    chmod(dir.c_str(), 0755);
    EXPECT_EQ(result, readOnly ? -2 : -5);
    EXPECT_EQ(readWholeFile(target), good);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
  }
}

// Keeps the samples whose flag word is odd, and declares `extra` more than it keeps.
struct OddFlags : LUtils::IrradianceMap::SaveCb {
  OddFlags(DefIrradianceMap& map, int extra) : declared(extra) {
    for (size_t i = 0; i < map.samples().size(); ++i) declared += map.samples()[i].flags & 1;
  }
  bool accept(const IrradSample& s) override { return (s.flags & 1) != 0; }
  int count() override { return declared; }
  int declared;
};

TEST_F(IrradianceFile, SaveCallbackChoosesTheSamples) {
  DefIrradianceMap map;
  fill(map, randomSamples(1000));
  const std::string name = path("odd.lumap");
  OddFlags odd(map, 0);
  ASSERT_EQ(map.saveToFile(name.c_str(), &odd), 0);
  DefIrradianceMap loaded;
  ASSERT_EQ(loaded.loadFromFile(name.c_str(), 0, 0.0f), 0);
  ASSERT_EQ(loaded.samples().size(), static_cast<size_t>(odd.declared));
  for (size_t i = 0, j = 0; i < map.samples().size(); ++i) {
    if (map.samples()[i].flags & 1) {
      ASSERT_EQ(std::memcmp(&map.samples()[i], &loaded.samples()[j++], 84), 0);
    }
  }
  // A count that disagrees with what the callback accepts would make a file that cannot load.
  const std::string before = readWholeFile(name);
  OddFlags wrong(map, 1);
  EXPECT_EQ(map.saveToFile(name.c_str(), &wrong), -5);
  EXPECT_EQ(readWholeFile(name), before);
}

}  // namespace
