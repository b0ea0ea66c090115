#include "io/file_errors.h"

namespace LUtils {

const char* fileErrorText(int code) {
  switch (code) {
    case kFileOk: return "No error";
    case kFileEmptyName: return "Empty file name";
    case kFileOpenError: return "Error opening file";
    case kFileFormatError: return "File format error";
    case kFileReadError: return "File read error";
    case kFileWriteError: return "File write error";
    default: return "Unknown error";
  }
}

}  // namespace LUtils
