#include "render/png_writer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace LUtils {

namespace {

const std::array<uint32_t, 256>& crcTable() {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1u) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[n] = c;
    }
    return t;
  }();
  return table;
}

uint32_t crc32(const uint8_t* data, size_t size, uint32_t crc = 0) {
  const auto& table = crcTable();
  crc = ~crc;
  for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFFu] ^ (crc >> 8);
  return ~crc;
}

void putBigEndian(std::vector<uint8_t>& out, uint32_t v) {
  out.push_back(static_cast<uint8_t>(v >> 24));
  out.push_back(static_cast<uint8_t>(v >> 16));
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

void putChunk(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& data) {
  putBigEndian(out, static_cast<uint32_t>(data.size()));
  const size_t typeAt = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data.begin(), data.end());
  putBigEndian(out, crc32(&out[typeAt], out.size() - typeAt));
}

// A zlib stream of stored (uncompressed) deflate blocks.
std::vector<uint8_t> zlibStored(const std::vector<uint8_t>& raw) {
  std::vector<uint8_t> out;
  out.reserve(raw.size() + raw.size() / 65535 * 5 + 16);
  out.push_back(0x78);
  out.push_back(0x01);
  size_t pos = 0;
  do {
    const size_t len = std::min<size_t>(65535, raw.size() - pos);
    const bool last = pos + len == raw.size();
    out.push_back(last ? 1 : 0);
    out.push_back(static_cast<uint8_t>(len));
    out.push_back(static_cast<uint8_t>(len >> 8));
    out.push_back(static_cast<uint8_t>(~len));
    out.push_back(static_cast<uint8_t>(~len >> 8));
    out.insert(out.end(), raw.begin() + static_cast<std::ptrdiff_t>(pos),
               raw.begin() + static_cast<std::ptrdiff_t>(pos + len));
    pos += len;
  } while (pos < raw.size());
  uint32_t a = 1, b = 0;  // Adler-32
  for (uint8_t byte : raw) {
    a = (a + byte) % 65521u;
    b = (b + a) % 65521u;
  }
  putBigEndian(out, (b << 16) | a);
  return out;
}

}  // namespace

std::vector<uint8_t> encodePng(const uint32_t* pixels, int width, int height) {
  static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<uint8_t> png(kSignature, kSignature + 8);

  std::vector<uint8_t> header;
  putBigEndian(header, static_cast<uint32_t>(width));
  putBigEndian(header, static_cast<uint32_t>(height));
  header.insert(header.end(), {8, 2, 0, 0, 0});  // 8-bit RGB, no interlace
  putChunk(png, "IHDR", header);

  std::vector<uint8_t> raw;
  raw.reserve(static_cast<size_t>(height) * (static_cast<size_t>(width) * 3 + 1));
  for (int y = 0; y < height; ++y) {
    raw.push_back(0);  // filter: none
    const uint32_t* row = pixels + static_cast<size_t>(y) * static_cast<size_t>(width);
    for (int x = 0; x < width; ++x) {
      raw.push_back(static_cast<uint8_t>(row[x]));
      raw.push_back(static_cast<uint8_t>(row[x] >> 8));
      raw.push_back(static_cast<uint8_t>(row[x] >> 16));
    }
  }
  putChunk(png, "IDAT", zlibStored(raw));
  putChunk(png, "IEND", {});
  return png;
}

bool writePng(const std::string& path, const uint32_t* pixels, int width, int height,
              std::string* error) {
  if (width < 1 || height < 1) {
    if (error != nullptr) *error = "empty picture";
    return false;
  }
  const std::vector<uint8_t> png = encodePng(pixels, width, height);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    if (error != nullptr) *error = "cannot create \"" + path + "\": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(png.data(), 1, png.size(), file) == png.size();
  const bool closed = std::fclose(file) == 0;
  if (!(written && closed)) {
    if (error != nullptr) *error = "cannot write \"" + path + "\"";
    return false;
  }
  return true;
}

}  // namespace LUtils
