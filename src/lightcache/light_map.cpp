// The light cache object, its filters, and the lulmap reader and writer.
#include "lightcache/light_map.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <vector>

#include "io/file_errors.h"
#include "io/safe_file.h"

static_assert(std::endian::native == std::endian::little,
              "the file words are copied into samples as they are");

bool LightMapSampleFilter::accept(const LightMapSample& sample) {
  const double d = double{sample.normal.x} * direction_.x + double{sample.normal.y} * direction_.y +
                   double{sample.normal.z} * direction_.z;
  return !(d < 0.01);
}

namespace {

double dotDouble(const LUtils::Vector& a, const LUtils::Vector& b) {
  return double{a.x} * b.x + double{a.y} * b.y + double{a.z} * b.z;
}

}  // namespace

bool LightMapFilter_store::accept(const LightMapSample& sample) {
  if (id_ == kAnyId) return true;
  if (sample.id != id_) return false;
  if (dotDouble(sample.normalB, normal_) < 0.8) return false;
  const LUtils::Vector d = point_ - sample.position;
  const float along = static_cast<float>(dotDouble(d, sample.normal)) *
                      static_cast<float>(dotDouble(d, second_));
  return along <= 0.01f * LUtils::lengthSquared(d);
}

LightMap::LightMap(uint32_t samplesPerBlock) : samples_(samplesPerBlock), nodes_(samplesPerBlock) {}

size_t LightMap::sampleCount() {
  std::lock_guard<LUtils::SpinningMutex> guard(samples_.lock());
  return samples_.size();
}

LightMapSample* LightMap::insertSample() {
  LightMapSample* sample;
  if (multithreaded_) {
    std::lock_guard<LUtils::SpinningMutex> guard(insertionLock_);
    sample = samples_.append();
  } else {
    sample = samples_.append();
  }
  needsRebuild_ = 1;
  return sample;
}

void LightMap::resetTree() {
  {
    std::lock_guard<LUtils::SpinningMutex> guard(nodes_.lock());
    nodes_.clear();
  }
  root_ = nullptr;
  treeState_ = 0;
  indexed_ = 0;
}

void LightMap::clear() {
  {
    std::lock_guard<LUtils::SpinningMutex> guard(samples_.lock());
    samples_.clear();
  }
  resetTree();
  treeParameter_ = kDefaultTreeParameter;
  needsRebuild_ = 1;
}

void LightMap::rebuildTree() {
  resetTree();
  needsRebuild_ = 0;
  indexed_ = samples_.size();
  if (indexed_ >= 2) buildTree();
}

// ---------------------------------------------------------------------------------------------
// Reading

namespace {

uint32_t recordBytes(uint32_t version) {
  switch (version) {
    case LightMap::kVersion1: return 44;
    case LightMap::kVersion2: return 60;
    case LightMap::kVersion3: return 72;
    case LightMap::kVersion4: return 80;
    case LightMap::kVersion5:
    case LightMap::kVersion6: return 120;
    default: return 0;
  }
}

// Copies `n` words of a record, from word `from`, into the sample from word `to`.
void copyWords(LightMapSample& sample, int to, const unsigned char* record, int from, int n) {
  std::memcpy(reinterpret_cast<unsigned char*>(&sample) + 4 * to, record + 4 * from, 4 * size_t(n));
}

// Fills a zeroed sample from one record of the given version.
void fillSample(LightMapSample& s, const unsigned char* r, uint32_t version) {
  copyWords(s, 0, r, 0, 7);  // position, normal, radiusSquared
  switch (version) {
    case LightMap::kVersion1:
    case LightMap::kVersion2:
      // One value group, used for both; the normal doubles as normalB.
      copyWords(s, 14, r, 7, 4);
      copyWords(s, 18, r, 7, 4);
      copyWords(s, 22, r, 3, 3);
      break;
    case LightMap::kVersion3:
    case LightMap::kVersion4:
      copyWords(s, 14, r, 7, 11);  // valueA, valueB, normalB
      break;
    case LightMap::kVersion5:
      copyWords(s, 14, r, 14, 11);
      copyWords(s, 28, r, 28, 1);
      break;
    default:  // the newest version: the memory layout without the alignment words
      copyWords(s, 8, r, 8, 17);
      copyWords(s, 26, r, 26, 3);
      break;
  }
}

class FileCloser {
 public:
  explicit FileCloser(FILE* f) : f_(f) {}
  ~FileCloser() { std::fclose(f_); }
  FileCloser(const FileCloser&) = delete;
  FileCloser& operator=(const FileCloser&) = delete;

 private:
  FILE* f_;
};

}  // namespace

uint32_t LightMap::fileRecordBytes(uint32_t version) { return recordBytes(version); }

int LightMap::load(const char* fileName) {
  if (!fileName) return LUtils::kFileEmptyName;
  FILE* f = std::fopen(fileName, "rb");
  if (!f) return LUtils::kFileOpenError;
  FileCloser closer(f);
  // Only a regular file's size is known before reading it.
  struct stat st;
  const bool sized = fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode);
  return loadFrom(f, sized ? int64_t(st.st_size) : -1);
}

int LightMap::loadFrom(std::FILE* f, int64_t size) {
  uint32_t version = 0;
  if (std::fread(&version, 4, 1, f) != 1) return LUtils::kFileFormatError;
  const uint32_t recBytes = recordBytes(version);
  if (recBytes == 0) return LUtils::kFileFormatError;
  int32_t count = 0;
  if (std::fread(&count, 4, 1, f) != 1) return LUtils::kFileFormatError;
  const size_t total = count > 0 ? size_t(count) : 0;

  // A file of known size too short for its count is refused before anything is touched, so a
  // cut file never replaces or half-extends what is in memory.
  if (size >= 0) {
    const uint64_t available = size > 8 ? uint64_t(size) - 8 : 0;
    if (available < uint64_t(total) * recBytes) return LUtils::kFileFormatError;
  }

  if (version == kVersion6) {
    {
      std::lock_guard<LUtils::SpinningMutex> guard(samples_.lock());
      samples_.clear();
    }
    resetTree();
    treeParameter_ = kDefaultTreeParameter;
  }
  needsRebuild_ = 1;

  // Whole records only: fread counts complete items, so a partial record at the end is dropped.
  constexpr size_t kChunk = 1024;
  std::vector<unsigned char> buffer(kChunk * recBytes);
  int result = LUtils::kFileOk;
  for (size_t done = 0; done < total && result == LUtils::kFileOk;) {
    const size_t want = std::min(kChunk, total - done);
    const size_t got = std::fread(buffer.data(), recBytes, want, f);
    for (size_t i = 0; i < got; ++i) {
      LightMapSample* sample = insertSample();
      if (!sample) {
        result = LUtils::kFileReadError;
        break;
      }
      fillSample(*sample, buffer.data() + i * recBytes, version);
    }
    done += got;
    if (got < want) result = LUtils::kFileReadError;
  }
  rebuildTree();
  return result;
}

// ---------------------------------------------------------------------------------------------
// Writing

// The sample count a save writes, or -1 when the file's 32-bit count cannot hold it.
int64_t LightMap::saveCount(SaveCb* saveCb) {
  if (saveCb) return saveCb->count();
  const int64_t count = int64_t(sampleCount());
  return count > std::numeric_limits<int32_t>::max() ? -1 : count;
}

int LightMap::save(const char* fileName, SaveCb* saveCb) {
  if (!fileName || !*fileName) return LUtils::kFileOk;
  const int64_t count = saveCount(saveCb);
  if (!saveCb && count < 0) return LUtils::kFileWriteError;

  LUtils::SafeFileReplace target;
  if (target.begin(fileName) != 0) return LUtils::kFileOpenError;
  FILE* f = std::fopen(target.writePath().c_str(), "wb");
  if (!f) {
    target.abandon();
    return LUtils::kFileOpenError;
  }
  std::setvbuf(f, nullptr, _IOFBF, 1 << 20);
  bool ok = writeSamples(f, count, saveCb);
  ok = std::fflush(f) == 0 && ok;
  // Devices and pipes written in place cannot be synchronised; that is not a failure.
  if (ok && fsync(fileno(f)) != 0 && errno != EINVAL && errno != EROFS) ok = false;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    target.abandon();
    return LUtils::kFileWriteError;
  }
  return target.commit() == 0 ? LUtils::kFileOk : LUtils::kFileWriteError;
}

int LightMap::saveTo(std::FILE* f, SaveCb* saveCb) {
  const int64_t count = saveCount(saveCb);
  if (!saveCb && count < 0) return LUtils::kFileWriteError;
  const bool ok = writeSamples(f, count, saveCb) && std::fflush(f) == 0;
  return ok ? LUtils::kFileOk : LUtils::kFileWriteError;
}

bool LightMap::writeSamples(std::FILE* f, int64_t count, SaveCb* saveCb) {
  const uint32_t header[2] = {kVersion6, uint32_t(int32_t(count))};
  bool ok = std::fwrite(header, 4, 2, f) == 2;
  for (size_t b = 0; ok && b < samples_.blockCount(); ++b) {
    const LightMapSample* block = samples_.block(b);
    const size_t n = samples_.blockLength(b);
    if (!saveCb) {
      ok = std::fwrite(block, sizeof(LightMapSample), n, f) == n;
      continue;
    }
    for (size_t i = 0; ok && i < n; ++i) {
      if (saveCb->accept(block[i])) ok = std::fwrite(&block[i], sizeof(LightMapSample), 1, f) == 1;
    }
  }
  return ok;
}
