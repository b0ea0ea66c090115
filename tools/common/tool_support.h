// What the companion programs share beyond the libraries: a JSON text builder, a stopwatch, and
// the progress reporter that suits where its output goes (a live line on a terminal, a plain line
// per tenth of the work in a log).
#pragma once

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

#include "app/map_files.h"
#include "threads/progress_callback.h"

namespace cvtool {

class Stopwatch {
 public:
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

inline bool isTerminal(std::FILE* out) { return ::isatty(::fileno(out)) == 1; }

// Builds one JSON document. Values are added in order; the caller opens and closes objects and
// arrays and gives keys inside objects. Non-finite numbers are written as null.
class Json {
 public:
  Json& beginObject(const char* key = nullptr) { return open(key, '{'); }
  Json& endObject() { return close('}'); }
  Json& beginArray(const char* key = nullptr) { return open(key, '['); }
  Json& endArray() { return close(']'); }

  Json& string(const char* key, const std::string& value) {
    prefix(key);
    quote(value);
    return *this;
  }
  Json& integer(const char* key, int64_t value) {
    prefix(key);
    text_ += std::to_string(value);
    return *this;
  }
  Json& number(const char* key, double value) {
    prefix(key);
    if (!std::isfinite(value)) {
      text_ += "null";
    } else {
      char buffer[32];
      std::snprintf(buffer, sizeof buffer, "%.9g", value);
      text_ += buffer;
    }
    return *this;
  }
  Json& boolean(const char* key, bool value) {
    prefix(key);
    text_ += value ? "true" : "false";
    return *this;
  }
  Json& null(const char* key) {
    prefix(key);
    text_ += "null";
    return *this;
  }
  const std::string& text() const { return text_; }

 private:
  Json& open(const char* key, char bracket) {
    prefix(key);
    text_ += bracket;
    first_ = true;
    ++depth_;
    return *this;
  }
  Json& close(char bracket) {
    --depth_;
    if (!first_) newline();
    text_ += bracket;
    first_ = false;
    if (depth_ == 0) text_ += '\n';
    return *this;
  }
  void newline() {
    text_ += '\n';
    text_.append(static_cast<size_t>(2 * depth_), ' ');
  }
  void prefix(const char* key) {
    if (depth_ > 0) {
      if (!first_) text_ += ',';
      newline();
    }
    first_ = false;
    if (key) {
      quote(key);
      text_ += ": ";
    }
  }
  void quote(const std::string& s) {
    text_ += '"';
    for (const char c : s) {
      const auto u = static_cast<unsigned char>(c);
      if (c == '"' || c == '\\') {
        text_ += '\\';
        text_ += c;
      } else if (u < 0x20) {
        char buffer[8];
        std::snprintf(buffer, sizeof buffer, "\\u%04x", u);
        text_ += buffer;
      } else {
        text_ += c;
      }
    }
    text_ += '"';
  }

  std::string text_;
  int depth_ = 0;
  bool first_ = true;
};

// Progress of one long step over a number of samples. On a terminal it keeps one live line up to
// date and clears it when the step is done; elsewhere (a log file, a pipe) it prints one plain
// line per tenth of the work with the counts and the time since the step began, so that a log
// gets at most ten short lines per step.
class StepProgress final : public LUtils::ProgressCallback {
 public:
  StepProgress(std::FILE* out, bool live, std::string label)
      : out_(out), live_(live), label_(std::move(label)) {}

  void setTotal(int32_t total) override { total_ = total > 0 ? total : 0; }
  int32_t getTotal() override { return total_; }
  void setTitle(const char* title) override { title_ = title ? title : ""; }
  int32_t getProgress() override { return done_; }
  void start() override {
    done_ = 0;
    nextTenth_ = 1;
    nextLive_ = 0;
    lastLive_ = 0.0;
    clock_ = Stopwatch();
  }
  void setProgress(int32_t done) override {
    done_ = done;
    if (!out_ || total_ == 0) return;
    if (live_) {
      if (done < nextLive_) return;
      nextLive_ = done + std::max<int32_t>(1, total_ / 200);
      // At most ten updates a second: a slow terminal or a remote session is not flooded.
      const double now = clock_.seconds();
      if (shown_ && now - lastLive_ < 0.1 && done < total_) return;
      lastLive_ = now;
      std::fprintf(out_, "\r%s: %s %3d%% (%s of %s samples)\033[K", label_.c_str(),
                   title_.c_str(), percent(done), groupedCount(done).c_str(),
                   groupedCount(total_).c_str());
      std::fflush(out_);
      shown_ = true;
      return;
    }
    while (nextTenth_ <= 10 && int64_t{done} * 10 >= int64_t{total_} * nextTenth_) {
      std::fprintf(out_, "%s: %s %d%% (%s of %s samples, %.1f s)\n", label_.c_str(),
                   title_.c_str(), 10 * nextTenth_,
                   groupedCount(int64_t{total_} * nextTenth_ / 10).c_str(),
                   groupedCount(total_).c_str(), clock_.seconds());
      std::fflush(out_);
      ++nextTenth_;
    }
  }
  void done() override {
    if (out_ && live_ && shown_) {
      std::fputs("\r\033[K", out_);
      std::fflush(out_);
    }
    shown_ = false;
  }

 private:
  int percent(int32_t done) const { return static_cast<int>(int64_t{done} * 100 / total_); }

  std::FILE* out_;
  bool live_;
  std::string label_;
  std::string title_;
  int32_t total_ = 0;
  int32_t done_ = 0;
  int nextTenth_ = 1;
  int32_t nextLive_ = 0;
  bool shown_ = false;
  double lastLive_ = 0.0;
  Stopwatch clock_;
};

}  // namespace cvtool
