// Test support shared by every test program: a scratch directory per test and whole-file
// helpers. Directories live under the build's test-tmp directory; a failed test keeps its
// directory for a look, a passed one removes it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

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

}  // namespace LUtils::testing
