// The irradiance map file format: the old record layouts and their converters, the parameter
// header, the writer for every version, and the map's load and save operations.
#include "irradiance/irradiance_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "io/file_errors.h"
#include "io/safe_file.h"
#include "io/stream.h"
#include "irradiance/def_irradiance_map.h"
#include "threads/prefault.h"
#include "threads/thread_manager.h"

// Files are little-endian and records are read straight into memory.
static_assert(std::endian::native == std::endian::little, "the map file code assumes little-endian");

namespace IrradFormat {
namespace {

using LUtils::IrradSample;

// Map files are read and written through a buffer of this size.
constexpr uint32_t kIoBufferBytes = 0x100000;
// Records handed to the stream per read or write call.
constexpr uint32_t kRecordsPerBatch = 2048;
constexpr uint32_t kSampleBytes = sizeof(IrradSample);

// --- old record layouts ---
//
// A layout is a list of byte runs copied between the record and the sample; sample bytes no run
// reaches are 0 after decoding (among them the flag word at 44 and the time at 80, which no old
// version stores), record bytes no run reaches are dropped on reading and written as 0. The packed
// normal (36..39) is always recomputed from the normal.
struct Run {
  uint8_t record;  // offset in the old record
  uint8_t sample;  // offset in IrradSample
  uint8_t bytes;
};

struct OldLayout {
  uint32_t version;
  uint32_t recordBytes;
  uint32_t runCount;
  Run runs[4];
};

constexpr uint8_t kPosition = offsetof(IrradSample, position);      // position, normal, then the
constexpr uint8_t kValueTriple = offsetof(IrradSample, validRadius2);  // value triple at 24..35
constexpr uint8_t kColour = offsetof(IrradSample, colour);            // 4 bytes with the exponent
constexpr uint8_t kDrawRadius = offsetof(IrradSample, drawRadius2);   // drawRadius2, renderId,
constexpr uint8_t kGradient = offsetof(IrradSample, gradient);        // gradient[4], aux[2]

constexpr OldLayout kOldLayouts[] = {
    // 0x10000, 56 bytes: 0 position, normal, validRadius2, hitDistance | 32 colour |
    // 36 drawRadius2 | 40 gradient[4]. No footprint, render ID or aux words.
    {0x10000, 56, 4, {{0, kPosition, 32}, {32, kColour, 4}, {36, kDrawRadius, 4}, {40, kGradient, 16}}},
    // 0x20000, 92 bytes: 0 position, normal, value triple | 36 colour | 40 drawRadius2 |
    // 44 gradient[4] | 60..91 dropped. No render ID or aux words.
    {0x20000, 92, 4, {{0, kPosition, 36}, {36, kColour, 4}, {40, kDrawRadius, 4}, {44, kGradient, 16}}},
    // 0x30000, 96 bytes: 0 position, normal, value triple | 36 colour | 40 drawRadius2, renderId,
    // gradient[4] | 64..95 dropped. No aux words.
    {0x30000, 96, 3, {{0, kPosition, 36}, {36, kColour, 4}, {40, kDrawRadius, 24}}},
    // 0x40000, 100 bytes: as 0x30000, with 64..99 dropped.
    {0x40000, 100, 3, {{0, kPosition, 36}, {36, kColour, 4}, {40, kDrawRadius, 24}}},
    // 0x50000, 112 bytes: 0 position, normal, value triple | 36 colour | 40 drawRadius2, renderId,
    // gradient[4], aux[2] | 72..111 dropped.
    {0x50000, 112, 3, {{0, kPosition, 36}, {36, kColour, 4}, {40, kDrawRadius, 32}}},
    // 0x60000, 148 bytes: as 0x50000, with 72..147 dropped.
    {0x60000, 148, 3, {{0, kPosition, 36}, {36, kColour, 4}, {40, kDrawRadius, 32}}},
    // 0x70000, 148 bytes: 0 position, normal | 24 colour | 28 value triple | 40 drawRadius2,
    // renderId, gradient[4], aux[2] | 72..147 dropped.
    {0x70000, 148, 4, {{0, kPosition, 24}, {24, kColour, 4}, {28, kValueTriple, 12}, {40, kDrawRadius, 32}}},
    // 0x80000, 76 bytes: 0 position, normal, value triple | 36 colour | 40 drawRadius2, renderId,
    // gradient[4], aux[2] | 72..75 dropped.
    {0x80000, 76, 3, {{0, kPosition, 36}, {36, kColour, 4}, {40, kDrawRadius, 32}}},
    // 0x90000, 80 bytes: 0 position, normal, value triple | 36..39 dropped | 40 colour |
    // 44 drawRadius2, renderId, gradient[4], aux[2] | 76..79 dropped.
    {0x90000, 80, 3, {{0, kPosition, 36}, {40, kColour, 4}, {44, kDrawRadius, 32}}},
    // 0xA0000, 84 bytes: 0 position, normal, value triple | 36..39 dropped | 40 colour |
    // 44..47 dropped | 48 drawRadius2, renderId, gradient[4], aux[2] | 80..83 dropped.
    {0xA0000, 84, 3, {{0, kPosition, 36}, {40, kColour, 4}, {48, kDrawRadius, 32}}},
};

const OldLayout* oldLayout(uint32_t version) {
  if (version < kVersionMin || version > kVersionLastOld || (version & 0xFFFFu) != 0) return nullptr;
  return &kOldLayouts[(version >> 16) - 1];
}

bool isCurrentWithSamples(uint32_t version) {
  return version == kVersionHeader || version == kVersionHeaderC || version == kVersionCamera;
}

// --- parameter header ---
//
// The stored fields in file order; version 0xD0000 adds the exposure and camera fields.
struct FieldRef {
  void* data;
  uint32_t bytes;
};
constexpr uint32_t kFieldsB = 19;
constexpr uint32_t kFieldsD = 25;

std::array<FieldRef, kFieldsD> headerFields(IrradianceMapHeader& h) {
  return {{{&h.colorThreshold, 4},    {&h.normalThreshold, 4},
           {&h.distanceThreshold, 4}, {&h.timeDependence, 4},
           {&h.word4, 4},             {&h.word5, 4},
           {&h.calcPassInterpSamples, 4}, {&h.word7, 4},
           {&h.word8, 4},             {&h.interpolationMode, 4},
           {&h.word10, 4},            {&h.word11, 4},
           {&h.word12, 4},            {&h.minRate, 4},
           {&h.maxRate, 4},           {&h.word15, 4},
           {&h.word16, 4},            {&h.containsRenderIds, 4},
           {&h.supportsAnimBlending, 4},
           {h.exposure, 12},          {&h.cameraFlags, 4},
           {h.cameraRotation, 36},    {h.cameraPosition, 24},
           {&h.cameraFov, 4},         {&h.cameraTarget, 4}}};
}

uint32_t headerFieldCount(uint32_t version) { return version == kVersionCamera ? kFieldsD : kFieldsB; }

// Reads the fields in order as long as each lies entirely within the header's `size` bytes.
// Returns false at the first field that does not fit or cannot be read; the fields before it
// are kept, the rest keep their values.
bool readHeaderFields(PStream& in, uint32_t version, uint32_t size, IrradianceMapHeader& h) {
  const auto fields = headerFields(h);
  uint64_t end = 0;
  for (uint32_t i = 0; i < headerFieldCount(version); ++i) {
    end += fields[i].bytes;
    if (end > size) return false;
    uint8_t value[36];
    uint32_t got = 0;
    if (in.read(value, fields[i].bytes, &got) != 0 || got != fields[i].bytes) return false;
    std::memcpy(fields[i].data, value, fields[i].bytes);
  }
  return true;
}

bool readExactly(PStream& in, void* buffer, uint32_t bytes) {
  uint32_t got = 0;
  return in.read(buffer, bytes, &got) == 0 && got == bytes;
}

bool writeExactly(PStream& out, const void* buffer, uint32_t bytes) {
  uint32_t written = 0;
  return out.write(buffer, bytes, &written) == 0 && written == bytes;
}

// Reads `count` records in batches and hands each to `take` (false: storage full). Stops with
// kFileReadError at the first record that is not complete; the records before it were taken.
// Memory never follows `count`, so a huge count in a short file fails at its end: the staging
// buffer holds one batch, or fewer records when the count or the stream's remaining bytes (where
// the stream knows its size) say so.
template <class Take>
int readRecords(PStream& in, uint32_t count, uint32_t recordBytes, Take&& take) {
  uint64_t batch = std::min(count, kRecordsPerBatch);
  const int64_t size = in.size(), at = in.tell();
  if (size >= 0 && at >= 0) {
    const uint64_t left = static_cast<uint64_t>(std::max(size, at) - at);
    batch = std::min<uint64_t>(batch, left / recordBytes + 1);
  }
  std::vector<uint8_t> staging(batch * recordBytes);
  for (uint32_t left = count; left > 0;) {
    const uint32_t want = std::min(left, static_cast<uint32_t>(batch));
    uint32_t got = 0;
    const int status = in.read(staging.data(), want * recordBytes, &got);
    const uint32_t whole = std::min(got / recordBytes, want);
    for (uint32_t i = 0; i < whole; ++i) {
      if (!take(staging.data() + size_t{i} * recordBytes)) return LUtils::kFileReadError;
    }
    if (status != 0 || whole < want) return LUtils::kFileReadError;
    left -= want;
  }
  return LUtils::kFileOk;
}

// Files of at least this many samples are read straight into the storage, on several threads
// where allowed (on fewer, a thread costs more than it saves, and the buffered reader is as fast).
constexpr uint32_t kParallelLoadRecords = 65536;

// Bytes of the buffer that a reading thread passes each piece of records through: small enough
// to stay in the core's cache between the read and the copy.
constexpr size_t kBounceBytes = 256 * 1024;

// Reads records [first, first + count) of a current file whose records start at byte `offset`
// into samples [base + first, ...) of the storage (appended, unwritten), whose blocks hold the
// records as they lie in the file, a piece at a time, mapping each piece's pages first. Each
// piece is read into a small buffer and copied into the storage rather than read straight into
// it: on some machines memory that the kernel's read wrote is many times slower to read the
// first time than memory the program wrote (on the AMD machine this was measured on, 45 against
// 3 ms for a first pass over 84 MB), which every later pass over a fresh map paid, on one
// thread; the copy through the cache costs about as much as the read saves.
// Returns how many records it read in one run from `first`: fewer when the file ends or a read
// fails.
size_t readRecordRange(int fd, uint64_t offset, LUtils::BlockSequence<IrradSample>& samples,
                       size_t base, size_t first, size_t count) {
  static_assert(sizeof(IrradSample) == kSampleBytes);
  constexpr size_t kPiece = kBounceBytes / kSampleBytes;
  std::vector<uint8_t> bounce(kPiece * kSampleBytes);
  const size_t perBlock = samples.elementsPerBlock();
  size_t done = 0;
  while (done < count) {
    const size_t index = base + first + done;
    const size_t inBlock = index % perBlock;
    const size_t records = std::min({kPiece, count - done, perBlock - inBlock});
    auto* to = reinterpret_cast<uint8_t*>(samples.block(index / perBlock) + inBlock);
    const size_t want = records * kSampleBytes;
    LUtils::prefaultForWriting(to, want);
    const uint64_t at = offset + (first + done) * uint64_t{kSampleBytes};
    size_t got = 0;
    while (got < want) {
      const ssize_t r = pread(fd, bounce.data() + got, want - got, static_cast<off_t>(at + got));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;
      got += static_cast<size_t>(r);
    }
    std::memcpy(to, bounce.data(), got);
    done += got / kSampleBytes;
    if (got < want) break;
  }
  return done;
}

// The records of a current file read on `threads` threads at once, each a contiguous share of
// them, straight from the file at `offset`. The result is the one reading on one thread gives:
// kFileOk with `count` samples appended; or, when the file ends early or a read fails,
// kFileReadError with the samples before the first record missing. Returns 1, with nothing
// appended, when the storage cannot grow by `count` at once (reading on one thread then goes
// as far as it can).
int readRecordsOnThreads(int fd, uint64_t offset, uint32_t count, int threads,
                         LUtils::BlockSequence<IrradSample>& samples) {
  struct stat status {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return 1;  // a pipe is read in order
  const uint64_t size = static_cast<uint64_t>(std::max<off_t>(status.st_size, 0));
  const uint64_t available = size > offset ? (size - offset) / kSampleBytes : 0;
  const size_t n = static_cast<size_t>(std::min<uint64_t>(count, available));
  const size_t base = samples.size();
  if (!samples.appendUnwritten(n)) return 1;
  const size_t shares = static_cast<size_t>(std::clamp(threads, 1, 8));
  std::vector<size_t> done(shares, 0);
  const auto share = [&](size_t t) {
    const size_t first = n * t / shares, end = n * (t + 1) / shares;
    done[t] = readRecordRange(fd, offset, samples, base, first, end - first);
  };
  std::vector<std::thread> workers;
  size_t started = 1;
  for (; started < shares; ++started) {
    try {
      workers.emplace_back(share, started);
    } catch (const std::system_error&) {
      break;
    }
  }
  share(0);
  for (size_t t = started; t < shares; ++t) share(t);  // the shares no thread took
  for (std::thread& w : workers) w.join();
  size_t read = 0;
  for (size_t t = 0; t < shares; ++t) {
    read += done[t];
    if (done[t] < n * (t + 1) / shares - n * t / shares) break;
  }
  samples.truncate(base + read);
  return read == count ? LUtils::kFileOk : LUtils::kFileReadError;
}

// Collects the samples a save writes into batches of records and writes them through the stream.
class RecordWriter : public LUtils::EnumIrradianceSamplesCallback {
 public:
  // `count`: the samples to be written, which bounds the batch buffer for small maps.
  RecordWriter(PStream& out, uint32_t version, LUtils::IrradianceMap::SaveCb* saveCb,
               uint32_t count)
      : out_(out), version_(version), recordBytes_(recordSize(version)), saveCb_(saveCb),
        batch_(std::max(1u, std::min(count, kRecordsPerBatch))),
        buffer_(size_t{batch_} * recordBytes_) {}

  int process(IrradSample& sample) override {
    if (saveCb_ && !saveCb_->accept(sample)) return 1;
    uint8_t* record = buffer_.data() + size_t{pending_} * recordBytes_;
    if (recordBytes_ == kSampleBytes && version_ >= kVersionHeader) {
      std::memcpy(record, &sample, kSampleBytes);
    } else {
      encodeOldRecord(version_, sample, record);
    }
    ++written_;
    if (++pending_ == batch_) return flush() ? 1 : 0;
    return 1;
  }

  bool flush() {
    if (failed_) return false;
    if (pending_ > 0 && !writeExactly(out_, buffer_.data(), pending_ * recordBytes_)) failed_ = true;
    pending_ = 0;
    return !failed_;
  }

  uint64_t written() const { return written_; }

 private:
  PStream& out_;
  uint32_t version_;
  uint32_t recordBytes_;
  LUtils::IrradianceMap::SaveCb* saveCb_;
  uint32_t batch_;
  std::vector<uint8_t> buffer_;
  uint32_t pending_ = 0;
  uint64_t written_ = 0;
  bool failed_ = false;
};

}  // namespace

uint32_t recordSize(uint32_t version) {
  if (const OldLayout* layout = oldLayout(version)) return layout->recordBytes;
  return isCurrentWithSamples(version) ? kSampleBytes : 0;
}

void decodeOldRecord(uint32_t version, const uint8_t* record, IrradSample& out) {
  out = IrradSample{};
  const OldLayout* layout = oldLayout(version);
  if (!layout) return;
  auto* bytes = reinterpret_cast<uint8_t*>(&out);
  for (uint32_t i = 0; i < layout->runCount; ++i) {
    const Run& run = layout->runs[i];
    std::memcpy(bytes + run.sample, record + run.record, run.bytes);
  }
  out.packNormal();
}

void encodeOldRecord(uint32_t version, const IrradSample& in, uint8_t* record) {
  const OldLayout* layout = oldLayout(version);
  if (!layout) return;
  std::memset(record, 0, layout->recordBytes);
  const auto* bytes = reinterpret_cast<const uint8_t*>(&in);
  for (uint32_t i = 0; i < layout->runCount; ++i) {
    const Run& run = layout->runs[i];
    std::memcpy(record + run.record, bytes + run.sample, run.bytes);
  }
}

int writeMapFile(PStream& out, uint32_t version, const IrradianceMapHeader& header,
                 LUtils::IrradianceMap& map, LUtils::IrradianceMap::SaveCb* saveCb) {
  if (recordSize(version) == 0) return LUtils::kFileFormatError;
  const int count = saveCb ? saveCb->count() : map.numSamples();
  if (count < 0) return LUtils::kFileWriteError;

  const uint32_t start[2] = {version, static_cast<uint32_t>(count)};
  if (!writeExactly(out, start, sizeof start)) return LUtils::kFileWriteError;
  if (version >= kVersionHeader) {
    IrradianceMapHeader copy = header;
    const auto fields = headerFields(copy);
    uint8_t bytes[kHeaderSizeD];
    uint32_t size = 0;
    for (uint32_t i = 0; i < headerFieldCount(version); ++i) {
      std::memcpy(bytes + size, fields[i].data, fields[i].bytes);
      size += fields[i].bytes;
    }
    if (!writeExactly(out, &size, 4) || !writeExactly(out, bytes, size)) {
      return LUtils::kFileWriteError;
    }
  }

  RecordWriter writer(out, version, saveCb, static_cast<uint32_t>(count));
  map.enumerateSamples(0, &writer);
  if (!writer.flush()) return LUtils::kFileWriteError;
  // A save callback whose count() disagrees with what it accepts would give a file that no
  // longer loads: refuse it rather than write it.
  if (writer.written() != static_cast<uint64_t>(count)) return LUtils::kFileWriteError;
  return LUtils::kFileOk;
}

}  // namespace IrradFormat

namespace LUtils {

using namespace IrradFormat;

int DefIrradianceMap::loadFromFile(const char* name, int buildIndex, float timeOffset) {
  if (!name) return kFileEmptyName;
  PFileStream file;
  if (file.open(name, PFileStream::kAccessRead, 1, PFileStream::kOpenExisting) != 0) {
    return kFileOpenError;
  }
  PBufferedStream in(PBufferedStream::kReading, &file, kIoBufferBytes);
  const int result = loadFromStream(in, buildIndex, timeOffset, file.descriptor());
  if (in.close() != 0 && result == kFileOk) return kFileReadError;
  return result;
}

int DefIrradianceMap::loadFromStream(PStream& in, int buildIndex, float timeOffset) {
  return loadFromStream(in, buildIndex, timeOffset, -1);
}

int DefIrradianceMap::loadFromStream(PStream& in, int buildIndex, float timeOffset, int fd) {
  fileHeader_ = IrradianceMapHeader();
  uint32_t version = 0;
  if (!readExactly(in, &version, 4)) return kFileReadError;
  if (version < kVersionMin || version > kVersionCurrent) return kFileFormatError;
  clear();

  auto append = [this](const IrradSample& s) { return appendSample(s) != nullptr; };
  if (const OldLayout* layout = oldLayout(version)) {
    // The count is not checked: a file that ends inside it loads with what was read of it.
    uint32_t count = 0;
    uint32_t got = 0;
    in.read(&count, 4, &got);
    const int result = readRecords(in, count, layout->recordBytes, [&](const uint8_t* record) {
      IrradSample s;
      decodeOldRecord(version, record, s);
      return append(s);
    });
    if (result != kFileOk) return result;
  } else {
    // Current versions, and versions in range that are not a multiple of 0x10000: those have
    // the current header but no samples are read for them.
    uint32_t count = 0;
    uint32_t headerSize = 0;
    if (!readExactly(in, &count, 4) || !readExactly(in, &headerSize, 4)) return kFileReadError;
    // A header shorter than its fields leaves the rest at their defaults; a longer one is skipped.
    readHeaderFields(in, version, headerSize, fileHeader_);
    if (in.seek(12 + uint64_t{headerSize}) != 0) return kFileReadError;
    const int threads = loadThreads_ > 0 ? loadThreads_ : defaultThreadCount();
    // A large file of samples as they lie in memory is read straight from the file into the
    // storage (a zero offset leaves the records byte-identical), on several threads at once
    // where allowed.
    int onThreads = 1;  // 1: not read there
    if (isCurrentWithSamples(version) && fd >= 0 && count >= kParallelLoadRecords &&
        timeOffset == 0.0f && !lockedMode_) {
      onThreads = readRecordsOnThreads(fd, 12 + uint64_t{headerSize}, count, threads, samples_);
    }
    if (onThreads != 1) {
      if (onThreads != kFileOk) return onThreads;
    } else if (isCurrentWithSamples(version)) {
      const bool shift = timeOffset != 0.0f;  // a zero offset leaves the records byte-identical
      const int result = readRecords(in, count, kSampleBytes, [&](const uint8_t* record) {
        IrradSample s;
        std::memcpy(&s, record, kSampleBytes);
        if (shift) s.time += timeOffset;
        return append(s);
      });
      if (result != kFileOk) return result;
    }
    header_.containsRenderIds = fileHeader_.containsRenderIds;
    fileHeader_.updateRateScales();
  }

  version_ = version;
  if (buildIndex) prepare(kPrepareAfterLoad);
  return kFileOk;
}

int DefIrradianceMap::saveToFile(PStream& out, SaveCb* saveCb) {
  return writeMapFile(out, kVersionCurrent, header_, *this, saveCb);
}

int DefIrradianceMap::saveToFile(const char* name, SaveCb* saveCb) {
  if (!name) return kFileEmptyName;
  // The good file is replaced only after the new one is complete (or written in place when the
  // target is a device or FIFO).
  SafeFileReplace replace;
  if (replace.begin(name) != 0) return kFileOpenError;
  PFileStream file;
  if (file.openForWriting(replace.writePath().c_str(), 0) != 0) return kFileOpenError;

  int result;
  {
    PBufferedStream out(PBufferedStream::kWriting, &file, kIoBufferBytes);
    result = saveToFile(out, saveCb);
    if (result == kFileOk && out.flush() != 0) result = kFileWriteError;
    if (out.close() != 0 && result == kFileOk) result = kFileWriteError;
  }
  if (result != kFileOk) {
    replace.abandon();
    return result;
  }
  return replace.commit();
}

}  // namespace LUtils
