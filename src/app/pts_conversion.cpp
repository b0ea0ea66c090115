#include "app/pts_conversion.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "io/stream.h"
#include "irradiance/irradiance_map.h"

namespace pts {
namespace {

// "00" to "99", for writing two digits at a time.
constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

int digitCount(uint64_t value) {
  int digits = 1;
  for (;;) {
    if (value < 10) return digits;
    if (value < 100) return digits + 1;
    if (value < 1000) return digits + 2;
    if (value < 10000) return digits + 3;
    value /= 10000;
    digits += 4;
  }
}

// Writes the decimal digits of `value` in place, from the last one backwards.
char* writeUnsigned(char* out, uint64_t value) {
  char* const end = out + digitCount(value);
  char* p = end;
  while (value >= 100) {
    const unsigned pair = static_cast<unsigned>(value % 100) * 2;
    value /= 100;
    p -= 2;
    p[0] = kDigitPairs[pair];
    p[1] = kDigitPairs[pair + 1];
  }
  if (value >= 10) {
    p[-2] = kDigitPairs[value * 2];
    p[-1] = kDigitPairs[value * 2 + 1];
  } else {
    p[-1] = static_cast<char>('0' + value);
  }
  return end;
}

// Writes 1 to 4 digits of a value below 10000.
inline char* writeBelow10000(char* out, uint32_t value) {
  if (value < 10) {
    *out = static_cast<char>('0' + value);
    return out + 1;
  }
  if (value < 100) {
    std::memcpy(out, kDigitPairs + value * 2, 2);
    return out + 2;
  }
  const uint32_t high = value / 100, low = value % 100;
  if (value < 1000) {
    *out = static_cast<char>('0' + high);
    std::memcpy(out + 1, kDigitPairs + low * 2, 2);
    return out + 3;
  }
  std::memcpy(out, kDigitPairs + high * 2, 2);
  std::memcpy(out + 2, kDigitPairs + low * 2, 2);
  return out + 4;
}

// " %d" of every signed byte, padded to eight bytes so that it is copied in one move.
struct ByteText {
  char text[7];
  uint8_t length;
};
struct ByteTexts {
  ByteText entries[256];
};
constexpr ByteTexts makeByteTexts() {
  ByteTexts table{};
  for (int byte = 0; byte < 256; ++byte) {
    const int value = byte < 128 ? byte : byte - 256;
    ByteText& entry = table.entries[byte];
    int n = 0;
    entry.text[n++] = ' ';
    if (value < 0) entry.text[n++] = '-';
    const int magnitude = value < 0 ? -value : value;
    if (magnitude >= 100) entry.text[n++] = static_cast<char>('0' + magnitude / 100);
    if (magnitude >= 10) entry.text[n++] = static_cast<char>('0' + magnitude / 10 % 10);
    entry.text[n++] = static_cast<char>('0' + magnitude % 10);
    entry.length = static_cast<uint8_t>(n);
  }
  return table;
}
constexpr ByteTexts kByteTexts = makeByteTexts();

// Values below this magnitude take the integer path: scaled by 10000 they stay below 2^52.
constexpr double kIntegerPathLimit = 1.0e11;
constexpr double kTwoPow52 = 4503599627370496.0;

}  // namespace

char* formatFixed4(char* out, float single) {
  const double value = single;
  if (!std::isfinite(value)) {
    if (std::signbit(value)) *out++ = '-';
    std::memcpy(out, std::isnan(value) ? "nan" : "inf", 3);
    return out + 3;
  }
  const double magnitude = std::fabs(value);
  if (magnitude < kIntegerPathLimit) {
    // A float times 10000 is exact in a double (24 + 14 significant bits), so rounding it to an
    // integer in the current rounding mode is what printf does with the exact decimal
    // expansion: ties go to even, and a negative value that rounds to zero keeps its sign.
    // Adding and removing 2^52 rounds a smaller non-negative double to an integer in that mode.
    const double scaled = magnitude * 10000.0;
    const uint64_t units = static_cast<uint64_t>((scaled + kTwoPow52) - kTwoPow52);
    if (std::signbit(value)) *out++ = '-';
    uint32_t fraction;
    if (units < 100000000u) {  // below 10000: 32-bit arithmetic, at most four integer digits
      const uint32_t small = static_cast<uint32_t>(units);
      const uint32_t whole = small / 10000;
      fraction = small - whole * 10000;
      out = writeBelow10000(out, whole);
    } else {
      fraction = static_cast<uint32_t>(units % 10000);
      out = writeUnsigned(out, units / 10000);
    }
    *out++ = '.';
    std::memcpy(out, kDigitPairs + (fraction / 100) * 2, 2);
    std::memcpy(out + 2, kDigitPairs + (fraction % 100) * 2, 2);
    return out + 4;
  }
  // Huge values: the library's exact fixed-precision conversion.
  return std::to_chars(out, out + 64, value, std::chars_format::fixed, 4).ptr;
}

char* formatInt(char* out, int value) {
  if (value < 0) {
    *out++ = '-';
    return writeUnsigned(out, static_cast<uint64_t>(-static_cast<int64_t>(value)));
  }
  return writeUnsigned(out, static_cast<uint64_t>(value));
}

char* formatLine(char* out, const LUtils::IrradSample& sample, int mode) {
  if (mode != kPtsPositions && mode != kPtsPositionsAndColours) return out;
  *out++ = 'v';
  for (int axis = 0; axis < 3; ++axis) {
    *out++ = ' ';
    out = formatFixed4(out, sample.position[axis]);
  }
  if (mode == kPtsPositionsAndColours) {
    // The colour mantissas are signed bytes: 255 prints as -1, on purpose.
    for (int channel = 0; channel < 3; ++channel) {
      const ByteText& text = kByteTexts.entries[static_cast<uint8_t>(sample.colour[channel])];
      std::memcpy(out, text.text, sizeof text.text);
      out += text.length;
    }
  }
  *out++ = '\r';
  *out++ = '\n';
  return out;
}

}  // namespace pts

namespace {

// Formats one line per sample and writes the lines to the stream. Lines are gathered in a large
// buffer and written in batches, which gives the same bytes as writing each line by itself.
class ConvertSamplesCallback final : public LUtils::EnumIrradianceSamplesCallback {
 public:
  ConvertSamplesCallback(PStream* stream, int mode)
      : stream_(stream), mode_(mode), batch_(kBatchSize) {}

  int process(LUtils::IrradSample& sample) override {
    if (mode_ != kPtsPositions && mode_ != kPtsPositionsAndColours) return 0;
    if (batch_.size() - used_ < static_cast<size_t>(pts::kLineCapacity)) flush();
    char* end = pts::formatLine(batch_.data() + used_, sample, mode_);
    used_ = static_cast<size_t>(end - batch_.data());
    return 1;
  }

  // Write errors are not reported: the conversion has already announced its success.
  void flush() {
    if (used_ == 0) return;
    uint32_t written = 0;
    stream_->write(batch_.data(), static_cast<uint32_t>(used_), &written);
    used_ = 0;
  }

 private:
  static constexpr size_t kBatchSize = 1u << 20;

  PStream* stream_;
  int mode_;
  std::vector<char> batch_;
  size_t used_ = 0;
};

}  // namespace

int convertIrradianceMap(const char* from, const char* to, int mode) {
  LUtils::IrradianceMap* map = LUtils::newIrradianceMap();
  if (map->loadFromFile(from, 0, 0.0f) != 0) {
    LUtils::deleteIrradianceMap(map);
    std::printf("Error opening file \"%s\"\n", from);
    std::fflush(stdout);
    return 3;
  }

  auto stream = std::make_unique<PFileStream>();
  if (stream->openForWriting(to, 0) != 0) {
    std::printf("Error creating file \"%s\"\n", to);
    std::fflush(stdout);
    LUtils::deleteIrradianceMap(map);
    return 3;
  }

  // Announced once both files are open, before any sample is written.
  std::printf("Conversion completed successfully.\n");
  std::fflush(stdout);

  {
    ConvertSamplesCallback callback(stream.get(), mode);
    map->enumerateSamples(0, &callback);
    callback.flush();
  }
  stream.reset();  // closes the file
  LUtils::deleteIrradianceMap(map);
  return 0;
}
