#include "render/png_writer.h"

#include <png.h>
#include <zlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <vector>

#include "threads/thread_manager.h"

namespace LUtils {

namespace {

// libpng reports errors through this callback and then unwinds to the setjmp in writeChunks():
// the message is kept for the caller.
void onPngError(png_structp png, png_const_charp message) {
  auto* error = static_cast<std::string*>(png_get_error_ptr(png));
  if (error != nullptr) *error = message;
  png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

// The rows are compressed in bands of kBandRows, each a deflate stream of its own that ends on a
// byte boundary (a sync flush; the last band finishes the stream), so that the bands joined make
// one zlib stream whose adler-32 checksum combines theirs. The bands may be compressed at once on
// several threads, and the file is the same whatever the number of threads. Starting a band
// afresh costs a little compression at its first rows; bands of 64 rows of a frame 800 pixels
// wide lose a few per cent.
constexpr int kBandRows = 64;
// Unfiltered rows at zlib level 3: pictures of discs are noisy from one pixel to the next, so row
// filters make them larger, not smaller, and choosing a filter per row costs more than the
// compression itself.
constexpr int kLevel = 3;

struct Band {
  std::vector<uint8_t> data;  // deflate output
  uLong adler = 1;            // adler-32 of the band's raw rows
  size_t rawBytes = 0;
  bool ok = false;
};

// Compresses rows [y0, y1): each a filter byte (0, none) and the pixels' R, G and B.
void compressBand(const uint32_t* pixels, int width, int y0, int y1, bool last, Band& band) {
  const size_t rowBytes = 1 + 3 * static_cast<size_t>(width);
  std::vector<uint8_t> raw(rowBytes * static_cast<size_t>(y1 - y0));
  uint8_t* out = raw.data();
  for (int y = y0; y < y1; ++y) {
    const uint32_t* row = pixels + static_cast<size_t>(y) * static_cast<size_t>(width);
    *out++ = 0;
    for (int x = 0; x < width; ++x) {
      const uint32_t p = row[x];
      out[0] = static_cast<uint8_t>(p);
      out[1] = static_cast<uint8_t>(p >> 8);
      out[2] = static_cast<uint8_t>(p >> 16);
      out += 3;
    }
  }
  band.rawBytes = raw.size();
  band.adler = adler32(adler32(0, nullptr, 0), raw.data(), static_cast<uInt>(raw.size()));
  z_stream z{};
  if (deflateInit2(&z, kLevel, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK) return;
  band.data.resize(deflateBound(&z, raw.size()) + 64);
  z.next_in = raw.data();
  z.avail_in = static_cast<uInt>(raw.size());
  const int flush = last ? Z_FINISH : Z_SYNC_FLUSH;
  int status = Z_OK;
  for (;;) {
    z.next_out = band.data.data() + z.total_out;
    z.avail_out = static_cast<uInt>(band.data.size() - z.total_out);
    status = deflate(&z, flush);
    if (z.avail_out > 0 || status == Z_STREAM_END || status < 0) break;
    band.data.resize(2 * band.data.size());  // no room left: more may come
  }
  band.data.resize(z.total_out);
  band.ok = last ? status == Z_STREAM_END : status == Z_OK && z.avail_in == 0;
  deflateEnd(&z);
}

// Compresses the bands that its threads take, one at a time.
class BandTask final : public MultiThreaded {
 public:
  BandTask(const uint32_t* pixels, int width, int height, std::vector<Band>& bands)
      : pixels_(pixels), width_(width), height_(height), bands_(bands) {}
  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
    for (;;) {
      const size_t b = next_.fetch_add(1, std::memory_order_relaxed);
      if (b >= bands_.size()) return;
      const int y0 = static_cast<int>(b) * kBandRows;
      compressBand(pixels_, width_, y0, std::min(height_, y0 + kBandRows), b + 1 == bands_.size(),
                   bands_[b]);
    }
  }
  const char* threadName() override { return "png_thread"; }

 private:
  const uint32_t* pixels_;
  int width_, height_;
  std::vector<Band>& bands_;
  std::atomic<size_t> next_{0};
};

// The zlib stream of the picture's rows, kept in its pieces (a header, the bands, the combined
// checksum) and written out piece by piece, never joined in memory.
struct RowStream {
  std::vector<Band> bands;
  uint8_t header[2] = {0x78, 0x5E};  // deflate, 32K window, a fast level; (0x785E % 31) == 0
  uint8_t checksum[4] = {};
  size_t bytes() const {
    size_t n = sizeof header + sizeof checksum;
    for (const Band& band : bands) n += band.data.size();
    return n;
  }
};

bool compressRows(const uint32_t* pixels, int width, int height, ThreadManager* threads,
                  int threadCount, RowStream& stream) {
  std::vector<Band>& bands = stream.bands;
  bands.resize(static_cast<size_t>((height + kBandRows - 1) / kBandRows));
  BandTask task(pixels, width, height, bands);
  // A manager of one thread would hand the bands to a worker and wait: the calling thread does
  // them itself, as with threadCount 1.
  if (threads && threadCount <= 0) threadCount = threads->threadCount();
  if (threads && threadCount != 1 && bands.size() > 1) {
    threads->run(threadCount, &task, nullptr, false);
  } else {
    std::atomic<int32_t> progress{0};
    task.run(&task.result, &progress, 0, 1);
  }
  uLong adler = adler32(0, nullptr, 0);
  for (const Band& band : bands) {
    if (!band.ok) return false;
    adler = adler32_combine(adler, band.adler, static_cast<z_off_t>(band.rawBytes));
  }
  for (int k = 0; k < 4; ++k) stream.checksum[k] = static_cast<uint8_t>(adler >> (24 - 8 * k));
  return true;
}

// The rows' stream as one IDAT chunk of `length` bytes.
void writeRows(png_structp png, const RowStream& rows, png_uint_32 length) {
  png_write_chunk_start(png, reinterpret_cast<png_const_bytep>("IDAT"), length);
  png_write_chunk_data(png, rows.header, sizeof rows.header);
  for (const Band& band : rows.bands) png_write_chunk_data(png, band.data.data(), band.data.size());
  png_write_chunk_data(png, rows.checksum, sizeof rows.checksum);
  png_write_chunk_end(png);
}

// Everything that may longjmp lives in this function, which owns no C++ objects with
// destructors: the compressed rows are the caller's.
bool writeChunks(std::FILE* file, int width, int height, const RowStream& rows,
                 png_uint_32 rowBytes, std::string* message) {
  png_structp png =
      png_create_write_struct(PNG_LIBPNG_VER_STRING, message, onPngError, onPngWarning);
  if (png == nullptr) return false;
  png_infop info = png_create_info_struct(png);
  if (info == nullptr || setjmp(png_jmpbuf(png)) != 0) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
               PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  // The rows were compressed here: libpng writes them as they are, in one IDAT chunk.
  writeRows(png, rows, rowBytes);
  png_write_chunk(png, reinterpret_cast<png_const_bytep>("IEND"), nullptr, 0);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

bool writePng(const std::string& path, const uint32_t* pixels, int width, int height,
              std::string* error, ThreadManager* threads, int threadCount) {
  static_assert(std::endian::native == std::endian::little,
                "pixels are read as bytes R, G, B, A");
  std::string message;
  if (width < 1 || height < 1) {
    if (error != nullptr) *error = "empty picture";
    return false;
  }
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) {
    if (error != nullptr) *error = "cannot create \"" + path + "\": " + std::strerror(errno);
    return false;
  }
  struct stat status {};
  const bool regular = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
  RowStream rows;
  bool written = compressRows(pixels, width, height, threads, threadCount, rows);
  const size_t rowBytes = written ? rows.bytes() : 0;
  if (!written) {
    message = "cannot compress the picture";
  } else if (rowBytes > PNG_UINT_31_MAX) {  // the most a PNG chunk holds
    message = "the compressed picture is larger than a PNG chunk can hold";
    written = false;
  }
  written = written && writeChunks(file, width, height, rows,
                                   static_cast<png_uint_32>(rowBytes), &message);
  const bool closed = std::fclose(file) == 0;
  if (!(written && closed)) {
    if (regular) std::remove(path.c_str());  // never a device or a pipe
    if (error != nullptr) {
      *error = "cannot write \"" + path + "\"" + (message.empty() ? "" : ": " + message);
    }
    return false;
  }
  return true;
}

}  // namespace LUtils
