// Map files: round trips for every version, the reader's leniencies and error codes, and saves that
// must never destroy the file they replace.
#include "irradiance/irradiance_file.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "io/stream.h"
#include "irradiance/def_irradiance_map.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;
namespace fs = std::filesystem;

constexpr uint32_t kCurrentVersions[] = {0xB0000, 0xC0000, 0xD0000};

std::string tempDir() {
  static const std::string dir = [] {
    std::string d = std::string(CACHEVIEW_TEST_TMPDIR) + "/irradiance_file." + std::to_string(getpid());
    fs::create_directories(d);
    return d;
  }();
  return dir;
}

std::string tempPath(const std::string& name) { return tempDir() + "/" + name; }

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

template <class T>
void put(std::vector<uint8_t>& bytes, const T& value) {
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  bytes.insert(bytes.end(), p, p + sizeof value);
}

// Random bytes throughout: NaNs, negative zeros and denormals must survive as they are.
IrradSample randomSample(std::mt19937& rng) {
  uint32_t words[21];
  for (auto& w : words) w = static_cast<uint32_t>(rng());
  IrradSample s;
  std::memcpy(&s, words, sizeof s);
  return s;
}

void fill(DefIrradianceMap& map, size_t n, uint32_t seed = 7) {
  std::mt19937 rng(seed);
  for (size_t i = 0; i < n; ++i) map.appendSample(randomSample(rng));
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

// Writes `map` with `header` as a file of `version`.
void writeVersion(const std::string& path, uint32_t version, const IrradianceMapHeader& header,
                  DefIrradianceMap& map) {
  PFileStream file;
  ASSERT_EQ(file.openForWriting(path.c_str(), 0), 0);
  PBufferedStream out(PBufferedStream::kWriting, &file, 4096);
  ASSERT_EQ(IrradFormat::writeMapFile(out, version, header, map, nullptr), 0);
  ASSERT_EQ(out.close(), 0);
}

void expectSameSamples(DefIrradianceMap& a, DefIrradianceMap& b) {
  ASSERT_EQ(a.samples().size(), b.samples().size());
  for (size_t i = 0; i < a.samples().size(); ++i) {
    ASSERT_EQ(std::memcmp(&a.samples()[i], &b.samples()[i], sizeof(IrradSample)), 0) << "sample " << i;
  }
}

TEST(IrradianceFile, SaveAndLoadGiveTheSameBytes) {
  DefIrradianceMap map;
  fill(map, 70000);  // more than two storage blocks and several write batches
  map.setHeader(unusualHeader());
  const std::string path = tempPath("current.lumap");
  ASSERT_EQ(map.saveToFile(path.c_str(), nullptr), 0);
  EXPECT_EQ(fs::file_size(path), 12 + 160 + 70000u * 84);

  DefIrradianceMap loaded;
  ASSERT_EQ(loaded.loadFromFile(path.c_str(), 0, 0.0f), 0);
  EXPECT_EQ(loaded.formatVersion(), 0xD0000u);
  expectSameSamples(map, loaded);

  // Saving the loaded map again reproduces the file byte for byte.
  loaded.setHeader(*loaded.fileHeader());
  const std::string again = tempPath("current-again.lumap");
  ASSERT_EQ(loaded.saveToFile(again.c_str(), nullptr), 0);
  EXPECT_EQ(readBytes(path), readBytes(again));
}

// The header fields a version stores keep their values; the others keep their defaults.
void expectHeaderAsStored(uint32_t version, const IrradianceMapHeader& written,
                          const IrradianceMapHeader& read) {
  IrradianceMapHeader expected;  // old versions store no header
  if (version >= 0xB0000) {
    std::memcpy(static_cast<void*>(&expected), &written, 19 * 4);
    if (version == 0xD0000) expected = written;
    expected.updateRateScales();
  }
  EXPECT_EQ(std::memcmp(&expected, &read, sizeof expected), 0) << std::hex << version;
}

// What an old version keeps of a sample, stated apart from the converter's tables: the rest reads
// back as 0, and the packed normal is recomputed from the normal.
void expectConverted(uint32_t version, IrradSample in, const IrradSample& out) {
  const uint32_t major = version >> 16;
  if (major < 2) in.footprint = 0;
  if (major < 3) in.renderId = 0;
  if (major < 5) in.aux[0] = in.aux[1] = 0;
  in.flags = 0;
  in.time = 0;
  in.packNormal();
  ASSERT_EQ(std::memcmp(&in, &out, sizeof in), 0) << std::hex << version;
}

TEST(IrradianceFile, EveryVersionRoundTrips) {
  DefIrradianceMap map;
  fill(map, 3000);
  for (size_t i = 0; i < 3000; ++i) map.samples()[i].packedNormalZ ^= 0x5555;  // not carried by old versions
  const IrradianceMapHeader header = unusualHeader();
  for (uint32_t major = 1; major <= 13; ++major) {
    const uint32_t version = major << 16;
    const std::string path = tempPath("v.lumap");
    writeVersion(path, version, header, map);
    EXPECT_EQ(fs::file_size(path), (major > 10 ? 12 + (major == 13 ? 160 : 76) : 8) +
                                       3000u * IrradFormat::recordSize(version));
    DefIrradianceMap loaded;
    ASSERT_EQ(loaded.loadFromFile(path.c_str(), 0, 0.0f), 0) << std::hex << version;
    EXPECT_EQ(loaded.formatVersion(), version);
    expectHeaderAsStored(version, header, *loaded.fileHeader());
    EXPECT_EQ(loaded.header()->containsRenderIds, major > 10 ? header.containsRenderIds : 0);
    if (major > 10) {
      expectSameSamples(map, loaded);
      continue;
    }
    ASSERT_EQ(loaded.samples().size(), map.samples().size());
    for (size_t i = 0; i < map.samples().size(); ++i) {
      expectConverted(version, map.samples()[i], loaded.samples()[i]);
    }
  }
}

// The 0xA0000 record, built byte by byte from its documented layout.
TEST(IrradianceFile, VersionA0000RecordConversion) {
  uint8_t record[84];
  for (int i = 0; i < 84; ++i) record[i] = static_cast<uint8_t>(0x80 + i);
  const float position[3] = {1, 2, 3}, normal[3] = {0, -1, 0}, triple[3] = {4, 5, 6};
  std::memcpy(record, position, 12);
  std::memcpy(record + 12, normal, 12);
  std::memcpy(record + 24, triple, 12);
  IrradSample s;
  IrradFormat::decodeOldRecord(0xA0000, record, s);
  EXPECT_EQ(s.position, LUtils::Vector(1, 2, 3));
  EXPECT_EQ(s.normal, LUtils::Vector(0, -1, 0));
  EXPECT_EQ(s.validRadius2, 4.0f);
  EXPECT_EQ(s.footprint, 6.0f);
  EXPECT_EQ(s.packedNormalZ, 32767);  // floor(0.5 * 65535)
  EXPECT_EQ(s.packedNormalAngle, 16383);  // atan2(-1, 0) = -pi/2 -> floor(0.25 * 65535)
  EXPECT_EQ(std::memcmp(reinterpret_cast<uint8_t*>(&s) + 40, record + 40, 4), 0);
  EXPECT_EQ(s.flags, 0u);
  EXPECT_EQ(std::memcmp(reinterpret_cast<uint8_t*>(&s) + 48, record + 48, 32), 0);
  EXPECT_EQ(s.time, 0.0f);
}

// A current file by hand: version, count, header size, `header` bytes, then the records.
std::vector<uint8_t> currentFile(uint32_t version, uint32_t count, uint32_t headerSize,
                                 const std::vector<IrradSample>& samples) {
  std::vector<uint8_t> bytes;
  put(bytes, version);
  put(bytes, count);
  put(bytes, headerSize);
  for (uint32_t i = 0; i < headerSize / 4; ++i) put(bytes, 1000 + i);
  bytes.resize(12 + headerSize, 0xAB);
  for (const IrradSample& s : samples) put(bytes, s);
  return bytes;
}

std::vector<IrradSample> someSamples(size_t n) {
  std::mt19937 rng(11);
  std::vector<IrradSample> v;
  for (size_t i = 0; i < n; ++i) v.push_back(randomSample(rng));
  return v;
}

int loadBytes(DefIrradianceMap& map, const std::vector<uint8_t>& bytes, float timeOffset = 0.0f) {
  const std::string path = tempPath("hand.lumap");
  writeBytes(path, bytes);
  return map.loadFromFile(path.c_str(), 0, timeOffset);
}

TEST(IrradianceFile, ReaderErrorCodes) {
  DefIrradianceMap map;
  EXPECT_EQ(map.loadFromFile(nullptr, 0, 0.0f), -1);
  EXPECT_EQ(map.loadFromFile(tempPath("missing.lumap").c_str(), 0, 0.0f), -2);
  EXPECT_EQ(loadBytes(map, {}), -4);
  EXPECT_EQ(loadBytes(map, {0x00, 0x00, 0x0D}), -4);
  fill(map, 5);
  EXPECT_EQ(loadBytes(map, currentFile(0xFFFF, 0, 0, {})), -3);
  EXPECT_EQ(loadBytes(map, currentFile(0xD0001, 0, 0, {})), -3);
  EXPECT_EQ(map.samples().size(), 5u);  // a version out of range leaves the map alone
}

TEST(IrradianceFile, EmptyMapsAndVersionsBetweenMajors) {
  DefIrradianceMap map;
  fill(map, 5);
  ASSERT_EQ(loadBytes(map, currentFile(0xD0000, 0, 160, {})), 0);
  EXPECT_EQ(map.samples().size(), 0u);
  EXPECT_EQ(map.fileHeader()->word4, 1004);
  // An 0x10001 file takes the current layout: its header is read, its samples are not.
  ASSERT_EQ(loadBytes(map, currentFile(0x10001, 3, 76, someSamples(3))), 0);
  EXPECT_EQ(map.samples().size(), 0u);
  EXPECT_EQ(map.formatVersion(), 0x10001u);
  EXPECT_EQ(map.fileHeader()->word5, 1005);
}

TEST(IrradianceFile, FileCutInsideARecordKeepsTheRecordsBefore) {
  const auto samples = someSamples(10);
  for (const size_t cut : {size_t{0}, size_t{1}, size_t{83}}) {
    // Current version: cut `cut` bytes into the 7th record.
    auto bytes = currentFile(0xD0000, 10, 160, samples);
    bytes.resize(12 + 160 + 6 * 84 + cut);
    DefIrradianceMap map;
    EXPECT_EQ(loadBytes(map, bytes), -4);
    ASSERT_EQ(map.samples().size(), 6u);
    EXPECT_EQ(std::memcmp(&map.samples()[5], &samples[5], 84), 0);
  }
  // Old version, cut inside the 3rd record.
  DefIrradianceMap source;
  fill(source, 10);
  const std::string path = tempPath("old.lumap");
  writeVersion(path, 0x60000, IrradianceMapHeader(), source);
  auto bytes = readBytes(path);
  bytes.resize(8 + 2 * 148 + 100);
  DefIrradianceMap map;
  EXPECT_EQ(loadBytes(map, bytes), -4);
  EXPECT_EQ(map.samples().size(), 2u);
}

TEST(IrradianceFile, HeaderSizeShorterOrLongerThanItsFields) {
  const auto samples = someSamples(4);
  // 30 bytes hold words 0-6 (28 bytes) but not word 7: it and the rest keep their defaults, and
  // the samples are found at 12 + 30.
  DefIrradianceMap map;
  auto bytes = currentFile(0xD0000, 4, 30, samples);
  ASSERT_EQ(loadBytes(map, bytes), 0);
  EXPECT_EQ(map.fileHeader()->calcPassInterpSamples, 1006);
  EXPECT_EQ(map.fileHeader()->word7, IrradianceMapHeader().word7);
  EXPECT_EQ(map.fileHeader()->maxRate, 0);
  ASSERT_EQ(map.samples().size(), 4u);
  EXPECT_EQ(std::memcmp(&map.samples()[3], &samples[3], 84), 0);

  // 200 bytes: the 40 unknown bytes after the camera fields are skipped.
  IrradianceMapHeader header = unusualHeader();
  DefIrradianceMap source;
  for (const auto& s : samples) source.appendSample(s);
  const std::string path = tempPath("long.lumap");
  writeVersion(path, 0xD0000, header, source);
  auto file = readBytes(path);
  const uint32_t longer = 200;
  std::memcpy(file.data() + 8, &longer, 4);
  file.insert(file.begin() + 12 + 160, 40, 0x5A);
  ASSERT_EQ(loadBytes(map, file), 0);
  EXPECT_EQ(map.fileHeader()->cameraTarget, header.cameraTarget);
  expectSameSamples(source, map);

  // Version 0xB0000 with a 160-byte header: only its 19 words are fields.
  bytes = currentFile(0xB0000, 4, 160, samples);
  ASSERT_EQ(loadBytes(map, bytes), 0);
  EXPECT_EQ(map.fileHeader()->supportsAnimBlending, 1018);
  EXPECT_EQ(map.fileHeader()->cameraFlags, 0u);
  EXPECT_EQ(map.samples().size(), 4u);
}

TEST(IrradianceFile, TimeOffsetShiftsCurrentVersions) {
  auto samples = someSamples(5);
  for (size_t i = 0; i < 5; ++i) samples[i].time = static_cast<float>(i);
  for (uint32_t version : kCurrentVersions) {
    DefIrradianceMap map;
    ASSERT_EQ(loadBytes(map, currentFile(version, 5, version == 0xD0000 ? 160 : 76, samples), 2.5f), 0);
    ASSERT_EQ(map.samples().size(), 5u);
    for (size_t i = 0; i < 5; ++i) EXPECT_FLOAT_EQ(map.samples()[i].time, samples[i].time + 2.5f);
  }
}

// Runs `fn` in a child process (to change its limits or user safely); returns fn's result, which
// travels as an exit status and so must lie in -128..127.
int inChild(const std::function<int()>& fn) {
  const pid_t pid = fork();
  if (pid == 0) _exit(fn() & 0xFF);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return 1000;
  return static_cast<int8_t>(WEXITSTATUS(status));
}

TEST(IrradianceFile, HugeCountInATinyFileFailsWithoutAllocating) {
  // With the address space capped near its current size, any allocation sized from the count
  // (up to 4 G records) would fail; the reader must simply run into the end of the file.
  const auto samples = someSamples(2);
  const auto current = currentFile(0xD0000, 0xFFFFFFFFu, 160, samples);
  DefIrradianceMap source;
  for (const auto& s : samples) source.appendSample(s);
  writeVersion(tempPath("old-huge.lumap"), 0x20000, IrradianceMapHeader(), source);
  auto old = readBytes(tempPath("old-huge.lumap"));
  const uint32_t huge = 0xFFFFFFF0u;
  std::memcpy(old.data() + 4, &huge, 4);

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
    return loadBytes(a, current) == -4 && a.samples().size() == 2 && loadBytes(b, old) == -4 &&
           b.samples().size() == 2;
  });
  EXPECT_EQ(result, 1);
}

// --- saving ---

std::vector<std::string> directoryEntries(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
  return names;
}

std::string freshDirectory(const std::string& name) {
  const std::string dir = tempPath(name);
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

const std::vector<uint8_t> kOldContent = {'g', 'o', 'o', 'd', 0, 1, 2, 3};

TEST(IrradianceFileSave, ErrorCodes) {
  DefIrradianceMap map;
  fill(map, 100);
  EXPECT_EQ(map.saveToFile(static_cast<const char*>(nullptr), nullptr), -1);
  EXPECT_EQ(map.saveToFile(tempPath("no-such-dir/x.lumap").c_str(), nullptr), -2);
  EXPECT_EQ(map.saveToFile("/dev/full", nullptr), -5);  // a device is written in place
}

TEST(IrradianceFileSave, UnwritableDirectoryLeavesTheTargetAlone) {
  const std::string dir = freshDirectory("readonly");
  const std::string target = dir + "/map.lumap";
  writeBytes(target, kOldContent);
  chmod(dir.c_str(), 0555);
  DefIrradianceMap map;
  fill(map, 100);
  const int result = inChild([&] {
    if (geteuid() == 0 && setuid(65534) != 0) return 99;  // root writes anywhere: drop it
    return map.saveToFile(target.c_str(), nullptr);
  });
  chmod(dir.c_str(), 0755);
  EXPECT_EQ(result, -2);
  EXPECT_EQ(readBytes(target), kOldContent);
  EXPECT_EQ(directoryEntries(dir), std::vector<std::string>{"map.lumap"});
}

TEST(IrradianceFileSave, WriteFailingHalfWayLeavesTheTargetAlone) {
  const std::string dir = freshDirectory("full");
  const std::string target = dir + "/map.lumap";
  writeBytes(target, kOldContent);
  DefIrradianceMap map;
  fill(map, 100000);  // 8.4 MB against a 3 MB file size limit
  const int result = inChild([&] {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{3u << 20, 3u << 20};
    setrlimit(RLIMIT_FSIZE, &limit);
    return map.saveToFile(target.c_str(), nullptr);
  });
  EXPECT_EQ(result, -5);
  EXPECT_EQ(readBytes(target), kOldContent);
  EXPECT_EQ(directoryEntries(dir), std::vector<std::string>{"map.lumap"});
}

// Keeps the samples whose flag word is odd.
class OddFlags : public LUtils::IrradianceMap::SaveCb {
 public:
  OddFlags(DefIrradianceMap& map, int extra) {
    for (size_t i = 0; i < map.samples().size(); ++i) count_ += map.samples()[i].flags & 1;
    count_ += extra;
  }
  bool accept(const IrradSample& s) override { return (s.flags & 1) != 0; }
  int count() override { return count_; }

 private:
  int count_ = 0;
};

TEST(IrradianceFileSave, SaveCallbackChoosesTheSamples) {
  DefIrradianceMap map;
  fill(map, 1000);
  const std::string path = tempPath("odd.lumap");
  OddFlags odd(map, 0);
  ASSERT_EQ(map.saveToFile(path.c_str(), &odd), 0);
  DefIrradianceMap loaded;
  ASSERT_EQ(loaded.loadFromFile(path.c_str(), 0, 0.0f), 0);
  ASSERT_EQ(loaded.samples().size(), static_cast<size_t>(odd.count()));
  size_t j = 0;
  for (size_t i = 0; i < map.samples().size(); ++i) {
    if (map.samples()[i].flags & 1) {
      ASSERT_EQ(std::memcmp(&map.samples()[i], &loaded.samples()[j++], 84), 0);
    }
  }
  // A count that disagrees with what the callback accepts would make a file that cannot load.
  const auto before = readBytes(path);
  OddFlags wrong(map, 1);
  EXPECT_EQ(map.saveToFile(path.c_str(), &wrong), -5);
  EXPECT_EQ(readBytes(path), before);
}

}  // namespace
