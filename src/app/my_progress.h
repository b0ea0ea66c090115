// MyProgress: the console progress reporter. It prints a title and a percentage on one console
// line, rewrites the line in place with a carriage return as the work advances, and finishes it
// with "done".
#pragma once

#include <cstdint>
#include <cstdio>

#include "threads/progress_callback.h"

class MyProgress final : public LUtils::ProgressCallback {
 public:
  // Prints to `out` (standard output unless a test gives another stream), flushing after every
  // print so that the line shows while the work runs.
  explicit MyProgress(std::FILE* out = stdout) : out_(out) {}
  MyProgress(const MyProgress&) = delete;
  MyProgress& operator=(const MyProgress&) = delete;
  virtual ~MyProgress() = default;

  void setTotal(int32_t total) override { total_ = total; }
  int32_t getTotal() override { return total_; }
  // Stores the value; prints the percentage when it has advanced by at least `step` percent
  // since the last print.
  void setProgress(int32_t done) override;
  int32_t getProgress() override { return progress_; }
  // Keeps at most 1023 characters of the title.
  void setTitle(const char* title) override;
  // Prints the title and "..." and restarts the counters.
  void start() override;
  // Rewrites the line as title, "...done" and six blanks, ends it, and empties the title.
  void done() override;

  const char* title() const { return title_; }

 private:
  void print(const char* format, ...) __attribute__((format(printf, 2, 3)));

  char title_[1024] = {};
  int32_t progress_ = 0;
  int32_t total_ = 1;
  int32_t lastPrinted_ = 0;
  float step_ = 5.0f;
  std::FILE* out_;
};
