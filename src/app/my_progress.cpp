#include "app/my_progress.h"

#include <cstdarg>
#include <cstring>

void MyProgress::print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(out_, format, args);
  va_end(args);
  std::fflush(out_);
}

void MyProgress::setTitle(const char* title) {
  if (!title) title = "";
  std::strncpy(title_, title, sizeof title_ - 1);
  title_[sizeof title_ - 1] = '\0';
}

void MyProgress::start() {
  print("%s...", title_);
  progress_ = 0;
  lastPrinted_ = 0;
}

void MyProgress::setProgress(int32_t done) {
  progress_ = done;
  if (total_ == 0) return;
  // The advance is measured in single precision, the printed value in double precision.
  const float total = static_cast<float>(total_);
  const float advance = static_cast<float>(done) * 100.0f / total -
                        static_cast<float>(lastPrinted_) * 100.0f / total;
  if (advance >= step_) {
    print("\r%s...%.2f", title_, static_cast<double>(done) * 100.0 / total_);
    lastPrinted_ = done;
  }
}

void MyProgress::done() {
  print("\r%s...done      \n", title_);
  title_[0] = '\0';
}
