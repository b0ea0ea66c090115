// The file error codes shared by the map load and save operations, and their texts.
#pragma once

namespace LUtils {

enum FileError : int {
  kFileOk = 0,
  kFileEmptyName = -1,
  kFileOpenError = -2,
  kFileFormatError = -3,
  kFileReadError = -4,
  kFileWriteError = -5,
};

// "No error", "Empty file name", ... ; "Unknown error" for any other code.
const char* fileErrorText(int code);

}  // namespace LUtils
