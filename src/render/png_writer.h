// Writes pictures as compressed PNG files (8-bit RGB) through libpng.
#pragma once

#include <cstdint>
#include <string>

namespace LUtils {

// Writes the width x height picture, top row first, pixels 0xAABBGGRR (alpha dropped), to
// `path`. False with `error` set when the picture is empty or the file cannot be created or
// written; a file left part-written is removed.
bool writePng(const std::string& path, const uint32_t* pixels, int width, int height,
              std::string* error = nullptr);

}  // namespace LUtils
