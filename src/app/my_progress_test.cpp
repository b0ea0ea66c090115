#include "app/my_progress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

// Collects what a MyProgress prints.
class Capture {
 public:
  Capture() : file_(std::tmpfile()) {}
  ~Capture() { std::fclose(file_); }
  std::FILE* file() { return file_; }
  std::string text() {
    std::fflush(file_);
    std::string result;
    std::rewind(file_);
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file_)) > 0) result.append(buffer, n);
    return result;
  }

 private:
  std::FILE* file_;
};

// Drives the progress as a merge does: total, position 0, start, every position, done.
void runMerge(MyProgress& progress, const char* title, int total) {
  progress.setTitle(title);
  progress.setTotal(total);
  progress.setProgress(0);
  progress.start();
  for (int i = 1; i <= total; ++i) progress.setProgress(i);
  progress.done();
}

TEST(MyProgress, ZeroTotalPrintsOnlyTheTitleAndDone) {
  Capture out;
  MyProgress progress(out.file());
  runMerge(progress, "Adding samples", 0);
  progress.setProgress(12);
  EXPECT_EQ(out.text(), "Adding samples...\rAdding samples...done      \n");
  EXPECT_EQ(progress.getProgress(), 12);
}

TEST(MyProgress, BackwardsAndSmallAdvancesPrintNothing) {
  Capture out;
  MyProgress progress(out.file());
  progress.setTitle("T");
  progress.setTotal(100);
  progress.start();
  progress.setProgress(10);  // prints
  progress.setProgress(2);   // backwards
  progress.setProgress(14);  // only 4 percent past the last print
  progress.setProgress(15);  // 5 percent: prints
  progress.setProgress(97);
  progress.setProgress(100);  // 3 percent past 97: the closing line comes from done()
  EXPECT_EQ(out.text(), "T...\rT...10.00\rT...15.00\rT...97.00");
}

// The full line of a longer merge is checked end to end (tests/cli).
TEST(MyProgress, StartResetsTheCountersAndTheObjectCanBeReused) {
  Capture out;
  MyProgress progress(out.file());
  runMerge(progress, "First", 2);
  runMerge(progress, "Second", 1);
  EXPECT_EQ(out.text(),
            "First...\rFirst...50.00\rFirst...100.00\rFirst...done      \n"
            "Second...\rSecond...100.00\rSecond...done      \n");
  EXPECT_STREQ(progress.title(), "");
  EXPECT_EQ(progress.getProgress(), 1);
}

TEST(MyProgress, LargeTotalsAndLongTitles) {
  Capture out;
  MyProgress progress(out.file());
  const std::string longTitle(2000, 'x');
  progress.setTitle(longTitle.c_str());
  EXPECT_EQ(std::string(progress.title()), longTitle.substr(0, 1023));
  progress.setTitle("Big");
  // Counts whose percentage times 100 would overflow 32-bit integers still print correctly.
  progress.setTotal(2000000000);
  progress.start();
  progress.setProgress(100000000);
  EXPECT_EQ(out.text(), "Big...\rBig...5.00");
}

}  // namespace
