#include "ply_export.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

#include "render/draw_options.h"
#include "render/sample_drawing.h"

namespace ply {

namespace {

// The properties of one kind of map, in record order.
struct Property {
  const char* type;
  const char* name;
};

constexpr Property kCommon[] = {
    {"float", "x"},          {"float", "y"},          {"float", "z"},
    {"float", "nx"},         {"float", "ny"},         {"float", "nz"},
    {"float", "scalar_colour_r"}, {"float", "scalar_colour_g"}, {"float", "scalar_colour_b"},
    {"uchar", "red"},        {"uchar", "green"},      {"uchar", "blue"},
    {"float", "scalar_radius"}};
constexpr Property kIrradiance[] = {
    {"int", "scalar_render_id"}, {"float", "scalar_time"}, {"uint", "scalar_flags"}};
constexpr Property kLight[] = {{"uint", "scalar_id"}};

// Formats records into a buffer and writes it out whenever it fills: the map is never copied.
class RecordWriter {
 public:
  RecordWriter(std::FILE* out, Encoding encoding, float brightness)
      : out_(out), ascii_(encoding == Encoding::Ascii), brightness_(brightness),
        buffer_(kBufferSize) {}

  // Starts a record; the widest ASCII record fits in kRecordRoom bytes.
  void begin() {
    if (buffer_.size() - used_ < kRecordRoom) flush();
    first_ = true;
  }
  void end() {
    if (ascii_) buffer_[used_++] = '\n';
    ++records_;
  }

  void putFloat(float v) {
    if (!ascii_) return putRaw(&v, 4);
    separate();
    // The shortest text that reads back as the same float; non-finite values as nan / inf.
    char* p = buffer_.data() + used_;
    used_ = static_cast<size_t>(std::to_chars(p, p + 32, v).ptr - buffer_.data());
  }
  void putInt(int32_t v) {
    if (!ascii_) return putRaw(&v, 4);
    putText(v);
  }
  void putUint(uint32_t v) {
    if (!ascii_) return putRaw(&v, 4);
    putText(v);
  }
  void putByte(uint8_t v) {
    if (!ascii_) return putRaw(&v, 1);
    putText(unsigned{v});
  }

  // The common part of every record.
  void putDrawn(const LUtils::DrawnSample& s) {
    putFloat(s.position.x);
    putFloat(s.position.y);
    putFloat(s.position.z);
    putFloat(s.normal.x);
    putFloat(s.normal.y);
    putFloat(s.normal.z);
    putFloat(s.colour.r);
    putFloat(s.colour.g);
    putFloat(s.colour.b);
    putByte(colourByte(s.colour.r * brightness_));
    putByte(colourByte(s.colour.g * brightness_));
    putByte(colourByte(s.colour.b * brightness_));
    putFloat(s.radius);
  }

  bool flush() {
    if (used_ > 0 && std::fwrite(buffer_.data(), 1, used_, out_) != used_) failed_ = true;
    used_ = 0;
    return !failed_;
  }
  bool failed() const { return failed_; }
  int64_t records() const { return records_; }

 private:
  static constexpr size_t kBufferSize = size_t{1} << 20;
  static constexpr size_t kRecordRoom = 20 * 32;

  void putRaw(const void* bytes, size_t n) {
    static_assert(std::endian::native == std::endian::little, "records are little-endian");
    std::memcpy(buffer_.data() + used_, bytes, n);
    used_ += n;
  }
  template <class T>
  void putText(T v) {
    separate();
    char* p = buffer_.data() + used_;
    used_ = static_cast<size_t>(std::to_chars(p, p + 16, v).ptr - buffer_.data());
  }
  void separate() {
    if (!first_) buffer_[used_++] = ' ';
    first_ = false;
  }

  std::FILE* out_;
  bool ascii_;
  float brightness_;
  std::vector<char> buffer_;
  size_t used_ = 0;
  bool first_ = true;
  bool failed_ = false;
  int64_t records_ = 0;
};

class IrradianceRecords final : public LUtils::EnumIrradianceSamplesCallback {
 public:
  explicit IrradianceRecords(RecordWriter& writer) : writer_(writer) {}
  int process(LUtils::IrradSample& s) override {
    writer_.begin();
    writer_.putDrawn(LUtils::IrradianceSampleSource::drawn(s));
    writer_.putInt(s.renderId);
    writer_.putFloat(s.time);
    writer_.putUint(s.flags);
    writer_.end();
    return writer_.failed() ? 0 : 1;
  }

 private:
  RecordWriter& writer_;
};

std::string header(const LUtils::DrawnMap& map, const ExportOptions& options, size_t count) {
  std::string h = "ply\nformat ";
  h += options.encoding == Encoding::Ascii ? "ascii 1.0\n" : "binary_little_endian 1.0\n";
  if (!options.comment.empty()) {
    std::string comment = options.comment;
    for (char& c : comment) {
      if (c == '\n' || c == '\r') c = ' ';
    }
    h += "comment " + comment + "\n";
  }
  h += "element vertex " + std::to_string(count) + "\n";
  auto add = [&h](const auto& properties) {
    for (const Property& p : properties) h += std::string("property ") + p.type + " " + p.name + "\n";
  };
  add(kCommon);
  if (map.light != nullptr) {
    add(kLight);
  } else {
    add(kIrradiance);
  }
  return h + "end_header\n";
}

}  // namespace

uint8_t colourByte(float scaled) {
  if (!(scaled > 0.0f)) return 0;
  if (scaled >= 1.0f) return 255;
  return static_cast<uint8_t>(std::lrint(scaled * 255.0f));
}

float exportBrightness(const LUtils::DrawnMap& map, const ExportOptions& options) {
  if (!std::isnan(options.brightness)) return options.brightness;
  LUtils::DrawOptions drawOptions;
  LUtils::automaticBrightness(map, drawOptions);
  return drawOptions.brightness();
}

int64_t writePly(std::FILE* out, const LUtils::DrawnMap& map, const ExportOptions& options) {
  size_t count = 0;
  if (map.light != nullptr) {
    count = map.light->sampleCount();
  } else if (map.irradiance != nullptr) {
    count = static_cast<size_t>(map.irradiance->numSamples());
  }
  const std::string text = header(map, options, count);
  if (std::fwrite(text.data(), 1, text.size(), out) != text.size()) return -1;

  RecordWriter writer(out, options.encoding, exportBrightness(map, options));
  if (map.light != nullptr) {
    map.light->samples().forEach(0, [&writer](const LightMapSample& s) {
      writer.begin();
      writer.putDrawn(LUtils::LightSampleSource::drawn(s));
      writer.putUint(s.id);
      writer.end();
      return !writer.failed();
    });
  } else if (map.irradiance != nullptr) {
    IrradianceRecords records(writer);
    map.irradiance->enumerateSamples(0, &records);
  }
  if (!writer.flush() || static_cast<size_t>(writer.records()) != count) return -1;
  return writer.records();
}

}  // namespace ply
