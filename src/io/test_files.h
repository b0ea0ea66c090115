// Test support shared by the file tests: a scratch directory per test and whole-file helpers.
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

// Gives each test an empty directory under /tmp, removed afterwards.
class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/cacheview-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  int entries() const {
    int n = 0;
    for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator(dir_)) ++n;
    return n;
  }

  std::string dir_;
};

}  // namespace LUtils::testing
