#include "synth/map_output.h"

#include <cerrno>
#include <cstring>

#include "io/file_errors.h"
#include "io/safe_file.h"
#include "io/stream.h"
#include "irradiance/irradiance_file.h"

namespace synth {

namespace {

class MapSink : public SampleSink {
 public:
  explicit MapSink(LUtils::DefIrradianceMap& map) : map_(map) {}
  bool append(const LUtils::IrradSample* samples, size_t count) override {
    for (size_t i = 0; i < count; ++i) {
      if (!map_.appendSample(samples[i])) return false;
    }
    return true;
  }

 private:
  LUtils::DefIrradianceMap& map_;
};

constexpr uint32_t kWriteBuffer = 0x100000;

}  // namespace

int64_t generate(const Params& params, LUtils::DefIrradianceMap& map) {
  if (!checkParams(params).empty()) return -1;
  MapSink sink(map);
  const int64_t n = generate(params, sink);
  if (n != static_cast<int64_t>(params.count)) return -1;
  map.setHeader(makeHeader(params));
  return n;
}

bool isWritableVersion(uint32_t version) {
  return version >= IrradFormat::kVersionMin && version <= IrradFormat::kVersionCurrent &&
         (version & 0xFFFFu) == 0;
}

int writeMapFile(const char* path, uint32_t version, const Params& params, std::string& message) {
  message.clear();
  if (!isWritableVersion(version)) {
    message = "unsupported version (use 0x10000, 0x20000, ... 0xD0000)";
    return -1;
  }
  message = checkParams(params);
  if (!message.empty()) return -1;

  LUtils::DefIrradianceMap map;
  if (generate(params, map) < 0) {
    message = "out of memory while generating the samples";
    return -1;
  }

  LUtils::SafeFileReplace replace;
  PFileStream file;
  if (replace.begin(path) != 0 || file.openForWriting(replace.writePath().c_str(), 0) != 0) {
    message = std::string("cannot open \"") + path + "\" for writing: " + std::strerror(errno);
    return LUtils::kFileOpenError;
  }
  int result;
  {
    PBufferedStream out(PBufferedStream::kWriting, &file, kWriteBuffer);
    result = IrradFormat::writeMapFile(out, version, *map.header(), map, nullptr);
    // Closing writes out the buffer and closes the file. No fsync: these are test data.
    if (out.close() != 0 && result == LUtils::kFileOk) result = LUtils::kFileWriteError;
  }
  if (result == LUtils::kFileOk) result = replace.commit();
  if (result != LUtils::kFileOk) {
    replace.abandon();
    message = std::string("cannot write \"") + path + "\": " + LUtils::fileErrorText(result);
  }
  return result;
}

}  // namespace synth
