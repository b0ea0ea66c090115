// Test support shared by every test program: a scratch directory per test and whole-file
// helpers. Directories live under the build's test-tmp directory; a failed test keeps its
// directory for a look, a passed one removes it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace LUtils::testing {

inline std::string readWholeFile(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeWholeFile(const std::string& p, const std::string& bytes) {
  std::ofstream(p, std::ios::binary) << bytes;
}

// A file name in the build's test-tmp directory, for pictures and files a person may look at
// after the run.
inline std::string testTmpPath(const std::string& name) {
  std::filesystem::create_directories(CACHEVIEW_TEST_TMPDIR);
  return std::string(CACHEVIEW_TEST_TMPDIR) + "/" + name;
}

// Gives each test an empty directory of its own, named after `prefix`.
class ScratchDirTest : public ::testing::Test {
 protected:
  explicit ScratchDirTest(std::string prefix = "test") : prefix_(std::move(prefix)) {}
  void SetUp() override {
    std::string pattern = testTmpPath(prefix_ + "-XXXXXX");
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ec;
    if (!HasFailure()) std::filesystem::remove_all(dir_, ec);
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  int entries() const {
    int n = 0;
    for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(dir_)) ++n;
    return n;
  }

  std::string prefix_;
  std::string dir_;
};

// A named pipe at `path` that a thread fills with `bytes` once a reader opens it, as a shell's
// `<(zcat map.gz)` hands a file to a program. A reader that stops early only ends the writing.
class PipeFeeder {
 public:
  PipeFeeder(const std::string& path, std::string bytes) : path_(path) {
    signal(SIGPIPE, SIG_IGN);
    if (mkfifo(path.c_str(), 0600) != 0) ADD_FAILURE() << "mkfifo " << path;
    writer_ = std::thread([this, bytes = std::move(bytes)] {
      const int fd = open(path_.c_str(), O_WRONLY);
      opened_ = true;
      if (fd < 0) return;
      for (size_t at = 0; at < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + at, bytes.size() - at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        at += static_cast<size_t>(n);
      }
      close(fd);
    });
  }
  ~PipeFeeder() {
    // A reader that never came: open the other end so that the writer's open returns.
    while (!opened_) {
      const int fd = open(path_.c_str(), O_RDONLY | O_NONBLOCK);
      if (fd >= 0) close(fd);
      std::this_thread::yield();
    }
    writer_.join();
    unlink(path_.c_str());
  }
  PipeFeeder(const PipeFeeder&) = delete;
  PipeFeeder& operator=(const PipeFeeder&) = delete;

 private:
  std::string path_;
  std::atomic<bool> opened_{false};
  std::thread writer_;
};

}  // namespace LUtils::testing
