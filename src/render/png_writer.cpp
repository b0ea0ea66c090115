#include "render/png_writer.h"

#include <png.h>
#include <sys/stat.h>

#include <bit>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>

namespace LUtils {

namespace {

// libpng reports errors through this callback and then unwinds to the setjmp in writeRows():
// the message is kept for the caller.
void onPngError(png_structp png, png_const_charp message) {
  auto* error = static_cast<std::string*>(png_get_error_ptr(png));
  if (error != nullptr) *error = message;
  png_longjmp(png, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

// Everything that may longjmp lives in this function, which owns no C++ objects with
// destructors: the rows are plain pointers into the caller's picture.
bool writeRows(std::FILE* file, const uint32_t* pixels, int width, int height,
               std::string* message) {
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
  // Pictures of discs are noisy from one pixel to the next: row filters make them larger, not
  // smaller, and libpng's adaptive choice of filter costs more than the compression itself.
  // Unfiltered rows at zlib level 3 write them smaller than libpng's defaults, in a fraction of
  // the time.
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_NONE);
  png_set_compression_level(png, 3);
  png_write_info(png, info);
  // Each pixel is four bytes R, G, B, A in memory; libpng drops the fourth.
  png_set_filler(png, 0, PNG_FILLER_AFTER);
  for (int y = 0; y < height; ++y) {
    const uint32_t* row = pixels + static_cast<size_t>(y) * static_cast<size_t>(width);
    png_write_row(png, reinterpret_cast<png_const_bytep>(row));
  }
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

bool writePng(const std::string& path, const uint32_t* pixels, int width, int height,
              std::string* error) {
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
  const bool written = writeRows(file, pixels, width, height, &message);
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
