// Writes pictures as compressed PNG files (8-bit RGB): the rows compressed with zlib in bands,
// on several threads when given, and the chunks written by libpng.
#pragma once

#include <cstdint>
#include <string>

namespace LUtils {

class ThreadManager;

// Writes the width x height picture, top row first, pixels 0xAABBGGRR (alpha dropped), to
// `path`. False with `error` set when the picture is empty or the file cannot be created or
// written; a file left part-written is removed. With `threads`, the rows are compressed on
// `threadCount` of its threads (0: its own count; 1: the calling thread); the file is the same
// byte for byte whatever the number of threads.
bool writePng(const std::string& path, const uint32_t* pixels, int width, int height,
              std::string* error = nullptr, ThreadManager* threads = nullptr,
              int threadCount = 0);

}  // namespace LUtils
