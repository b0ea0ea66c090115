// Writes pictures as PNG files (8-bit RGB, stored deflate blocks: no compression library needed).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace LUtils {

// The PNG bytes of a width x height picture, top row first, pixels 0xAABBGGRR (alpha ignored).
std::vector<uint8_t> encodePng(const uint32_t* pixels, int width, int height);

// Writes the picture to `path`; false with `error` set when the file cannot be written.
bool writePng(const std::string& path, const uint32_t* pixels, int width, int height,
              std::string* error = nullptr);

}  // namespace LUtils
