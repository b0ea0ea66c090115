#include "io/safe_file.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include "io/file_errors.h"

namespace {

class SafeFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/cacheview-safe-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  static std::string read(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  static void write(const std::string& p, const std::string& text) {
    std::ofstream(p, std::ios::binary) << text;
  }
  int entries() const {
    int n = 0;
    DIR* d = opendir(dir_.c_str());
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.' || (e->d_name[1] && e->d_name[1] != '.');
    closedir(d);
    return n;
  }

  std::string dir_;
};

TEST_F(SafeFileTest, ReplacesOnlyOnCommitAndKeepsPermissions) {
  write(path("map"), "old");
  chmod(path("map").c_str(), 0640);
  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin(path("map").c_str()), LUtils::kFileOk);
  EXPECT_FALSE(replace.inPlace());
  EXPECT_NE(replace.writePath(), path("map"));
  write(replace.writePath(), "new");
  EXPECT_EQ(read(path("map")), "old");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  EXPECT_EQ(read(path("map")), "new");
  struct stat st;
  ASSERT_EQ(stat(path("map").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(entries(), 1);
}

TEST_F(SafeFileTest, AbandonLeavesTargetAndNoTemporary) {
  write(path("map"), "old");
  {
    LUtils::SafeFileReplace replace;
    ASSERT_EQ(replace.begin(path("map").c_str()), LUtils::kFileOk);
    write(replace.writePath(), "half");
  }  // destroyed without commit
  EXPECT_EQ(read(path("map")), "old");
  EXPECT_EQ(entries(), 1);
}

TEST_F(SafeFileTest, FollowsLinksAndCreatesMissingTargets) {
  write(path("real"), "old");
  ASSERT_EQ(symlink("real", path("link").c_str()), 0);
  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin(path("link").c_str()), LUtils::kFileOk);
  write(replace.writePath(), "new");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  struct stat st;
  ASSERT_EQ(lstat(path("link").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(read(path("real")), "new");

  // A dangling link creates the file it points to.
  ASSERT_EQ(symlink("fresh", path("dangling").c_str()), 0);
  ASSERT_EQ(replace.begin(path("dangling").c_str()), LUtils::kFileOk);
  write(replace.writePath(), "x");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  EXPECT_EQ(read(path("fresh")), "x");
}

TEST_F(SafeFileTest, NonRegularTargetsAreWrittenInPlace) {
  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin("/dev/null"), LUtils::kFileOk);
  EXPECT_TRUE(replace.inPlace());
  EXPECT_EQ(replace.writePath(), "/dev/null");
  EXPECT_EQ(replace.commit(), LUtils::kFileOk);
  struct stat st;
  ASSERT_EQ(stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
}

TEST_F(SafeFileTest, UncreatableTemporaryIsAnOpenError) {
  LUtils::SafeFileReplace replace;
  EXPECT_EQ(replace.begin(path("no/such/dir/map").c_str()), LUtils::kFileOpenError);
  EXPECT_EQ(replace.begin(""), LUtils::kFileOpenError);
  EXPECT_EQ(replace.begin(nullptr), LUtils::kFileOpenError);
}

}  // namespace
