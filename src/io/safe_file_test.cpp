#include "io/safe_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "io/file_errors.h"
#include "test_support/scratch_dir.h"

namespace {

using SafeFileTest = LUtils::testing::ScratchDirTest;
using LUtils::testing::readWholeFile;
using LUtils::testing::writeWholeFile;

TEST_F(SafeFileTest, ReplacesOnlyOnCommitAndKeepsPermissions) {
  writeWholeFile(path("map"), "old");
  chmod(path("map").c_str(), 0640);
  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin(path("map").c_str()), LUtils::kFileOk);
  EXPECT_FALSE(replace.inPlace());
  writeWholeFile(replace.writePath(), "new");
  EXPECT_EQ(readWholeFile(path("map")), "old");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  EXPECT_EQ(readWholeFile(path("map")), "new");
  struct stat st;
  ASSERT_EQ(stat(path("map").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(entries(), 1);

  // Abandoned without commit: the target keeps its bytes and no temporary is left.
  {
    LUtils::SafeFileReplace abandoned;
    ASSERT_EQ(abandoned.begin(path("map").c_str()), LUtils::kFileOk);
    writeWholeFile(abandoned.writePath(), "half");
  }
  EXPECT_EQ(readWholeFile(path("map")), "new");
  EXPECT_EQ(entries(), 1);
}

TEST_F(SafeFileTest, FollowsLinksAndCreatesMissingTargets) {
  writeWholeFile(path("real"), "old");
  ASSERT_EQ(symlink("real", path("link").c_str()), 0);
  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin(path("link").c_str()), LUtils::kFileOk);
  writeWholeFile(replace.writePath(), "new");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  struct stat st;
  ASSERT_EQ(lstat(path("link").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(readWholeFile(path("real")), "new");

  // A dangling link creates the file it points to.
  ASSERT_EQ(symlink("fresh", path("dangling").c_str()), 0);
  ASSERT_EQ(replace.begin(path("dangling").c_str()), LUtils::kFileOk);
  writeWholeFile(replace.writePath(), "x");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  EXPECT_EQ(readWholeFile(path("fresh")), "x");
}

TEST_F(SafeFileTest, DevicesAreWrittenInPlaceAndBadPathsFailToOpen) {
  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin("/dev/null"), LUtils::kFileOk);
  EXPECT_TRUE(replace.inPlace());
  EXPECT_EQ(replace.writePath(), "/dev/null");
  EXPECT_EQ(replace.commit(), LUtils::kFileOk);
  struct stat st;
  ASSERT_EQ(stat("/dev/null", &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));

  EXPECT_EQ(replace.begin(path("no/such/dir/map").c_str()), LUtils::kFileOpenError);
  EXPECT_EQ(replace.begin(""), LUtils::kFileOpenError);
  EXPECT_EQ(replace.begin(nullptr), LUtils::kFileOpenError);
}

// A terminating signal during a save removes the temporary and still ends the process with that
// signal; a temporary whose process died without cleaning up goes with the next save of the same
// target, while those of live processes, of other hosts and of other targets stay.
TEST_F(SafeFileTest, SignalsRemoveTheTemporaryAndStaleOnesGoWithTheNextSave) {
  writeWholeFile(path("map"), "old");
  for (const int sig : {SIGTERM, SIGINT, SIGHUP}) {
    const pid_t child = fork();
    if (child == 0) {
      LUtils::SafeFileReplace replace;
      if (replace.begin(path("map").c_str()) != 0) _exit(10);
      writeWholeFile(replace.writePath(), "half written");
      raise(sig);
      _exit(11);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "signal " << sig << ", status " << status;
    EXPECT_EQ(WTERMSIG(status), sig);
    EXPECT_EQ(entries(), 1) << "signal " << sig;
  }
  EXPECT_EQ(readWholeFile(path("map")), "old");

  // A process that is gone: a child already reaped.
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  const std::string mine = std::string(host) + "-" + std::to_string(gone) + "-3";
  writeWholeFile(path(".map.tmp-" + mine), "stale");
  writeWholeFile(path(".map.tmp-" + std::to_string(gone) + "-0"), "stale, older naming");
  const std::string live = ".map.tmp-" + std::string(host) + "-" + std::to_string(getppid()) + "-1";
  writeWholeFile(path(live), "a save in progress");
  const std::string remote = ".map.tmp-farm-node-17-" + std::to_string(gone) + "-1";
  writeWholeFile(path(remote), "another host's");
  writeWholeFile(path(".other.tmp-" + mine), "another target's");

  LUtils::SafeFileReplace replace;
  ASSERT_EQ(replace.begin(path("map").c_str()), LUtils::kFileOk);
  writeWholeFile(replace.writePath(), "new");
  ASSERT_EQ(replace.commit(), LUtils::kFileOk);
  EXPECT_EQ(readWholeFile(path("map")), "new");
  EXPECT_FALSE(std::filesystem::exists(path(".map.tmp-" + mine)));
  EXPECT_FALSE(std::filesystem::exists(path(".map.tmp-" + std::to_string(gone) + "-0")));
  EXPECT_TRUE(std::filesystem::exists(path(live)));
  EXPECT_TRUE(std::filesystem::exists(path(remote)));
  EXPECT_TRUE(std::filesystem::exists(path(".other.tmp-" + mine)));
}

}  // namespace
