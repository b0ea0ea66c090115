#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "io/file_errors.h"
#include "io/stream.h"

namespace {

class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/cacheview-io-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string path(const char* name) const { return dir_ + "/" + name; }

  static std::vector<uint8_t> slurp(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  static void spit(const std::string& p, const std::vector<uint8_t>& bytes) {
    std::ofstream out(p, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  std::string dir_;
};

// Counts the calls that reach the file underneath a buffered stream.
class CountingStream : public PFileStream {
 public:
  int read(void* b, uint32_t n, uint32_t* r) override {
    ++reads;
    return PFileStream::read(b, n, r);
  }
  int seek(uint64_t o) override {
    ++seeks;
    return PFileStream::seek(o);
  }
  int reads = 0;
  int seeks = 0;
};

TEST(FileErrors, Texts) {
  EXPECT_STREQ(LUtils::fileErrorText(0), "No error");
  EXPECT_STREQ(LUtils::fileErrorText(-1), "Empty file name");
  EXPECT_STREQ(LUtils::fileErrorText(-2), "Error opening file");
  EXPECT_STREQ(LUtils::fileErrorText(-3), "File format error");
  EXPECT_STREQ(LUtils::fileErrorText(-4), "File read error");
  EXPECT_STREQ(LUtils::fileErrorText(-5), "File write error");
  EXPECT_STREQ(LUtils::fileErrorText(-6), "Unknown error");
  EXPECT_STREQ(LUtils::fileErrorText(7), "Unknown error");
}

TEST_F(StreamTest, StringsRoundTripWithLengthPrefix) {
  PFileStream out;
  ASSERT_EQ(out.openForWriting(path("s").c_str(), 0), 0);
  uint32_t written = 0;
  EXPECT_EQ(out.writeString("", 0, &written), 0);
  EXPECT_EQ(written, 2u);
  EXPECT_EQ(out.writeString("hello", 5, &written), 0);
  EXPECT_EQ(written, 7u);
  EXPECT_EQ(out.writeString("abcd", 4, &written), 0);
  EXPECT_EQ(out.writeText("tail"), 0);
  ASSERT_EQ(out.close(), 0);
  EXPECT_EQ(slurp(path("s")), (std::vector<uint8_t>{0, 0, 5, 0, 'h', 'e', 'l', 'l', 'o', 4, 0,
                                                    'a', 'b', 'c', 'd', 't', 'a', 'i', 'l'}));

  PFileStream in;
  ASSERT_EQ(in.open(path("s").c_str(), PFileStream::kAccessRead, 1, 0), 0);
  char buf[16] = {};
  uint16_t len = 99;
  uint32_t got = 0;
  EXPECT_EQ(in.readString(buf, &len, &got), 0);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(in.readString(buf, &len, &got), 0);
  EXPECT_EQ(len, 5);
  EXPECT_EQ(got, 7u);
  EXPECT_EQ(std::string(buf, 5), "hello");
  // A stored length equal to the capacity fails and reads none of the text.
  uint16_t capacity = 4;
  EXPECT_EQ(in.readStringZ(buf, &capacity, &got), -1);
  EXPECT_EQ(in.tell(), 11);
  ASSERT_EQ(in.seek(9), 0);
  capacity = 5;
  EXPECT_EQ(in.readStringZ(buf, &capacity, &got), 0);
  EXPECT_EQ(capacity, 4);
  EXPECT_STREQ(buf, "abcd");
}

TEST_F(StreamTest, FileStreamReportsSystemErrors) {
  PFileStream s;
  EXPECT_EQ(s.isOpen(), 0);
  EXPECT_EQ(s.open(path("missing").c_str(), PFileStream::kAccessRead, 1, 0), ENOENT);
  EXPECT_EQ(s.isOpen(), 0);
  EXPECT_EQ(s.fileSize(path("missing").c_str()), -1);
  EXPECT_EQ(s.close(), EBADF);
  EXPECT_EQ(s.size(), -1);
  EXPECT_EQ(s.tell(), -1);

  spit(path("f"), {1, 2, 3, 4, 5});
  EXPECT_EQ(s.fileSize(path("f").c_str()), 5);
  // Appending keeps the content and starts at the end; truncation cuts at the position.
  ASSERT_EQ(s.openForWriting(path("f").c_str(), 1), 0);
  EXPECT_EQ(s.tell(), 5);
  uint32_t n = 0;
  EXPECT_EQ(s.write("\x06", 1, &n), 0);
  ASSERT_EQ(s.seek(2), 0);
  EXPECT_EQ(s.truncate(), 0);
  EXPECT_EQ(s.size(), 2);
  EXPECT_TRUE(s.eof());
  EXPECT_EQ(s.flush(), 0);
  ASSERT_EQ(s.close(), 0);
  EXPECT_EQ(slurp(path("f")), (std::vector<uint8_t>{1, 2}));
  ASSERT_EQ(s.openForWriting(path("f").c_str(), 0), 0);
  EXPECT_EQ(s.size(), 0);
}

TEST_F(StreamTest, BufferedReadStopsAtEndAndSeeksLazily) {
  std::vector<uint8_t> data(1000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
  spit(path("r"), data);
  CountingStream file;
  ASSERT_EQ(file.open(path("r").c_str(), PFileStream::kAccessRead, 1, 0), 0);
  PBufferedStream in(PBufferedStream::kReading, &file, 64);

  uint8_t buf[2000];
  uint32_t got = 0;
  ASSERT_EQ(in.read(buf, 10, &got), 0);
  EXPECT_EQ(file.reads, 1);
  // Inside the loaded block only the position moves.
  EXPECT_EQ(in.seek(40), 0);
  EXPECT_EQ(in.seekRelative(-20), 0);
  ASSERT_EQ(in.read(buf, 4, &got), 0);
  EXPECT_EQ(buf[0], data[20]);
  EXPECT_EQ(file.reads, 1);
  // Outside it, nothing reaches the file until the next read.
  const int seeksBefore = file.seeks;
  EXPECT_EQ(in.seek(500), 0);
  EXPECT_EQ(file.seeks, seeksBefore);
  EXPECT_EQ(file.reads, 1);
  ASSERT_EQ(in.read(buf, 4, &got), 0);
  EXPECT_EQ(buf[0], data[500]);
  EXPECT_EQ(file.reads, 2);
  // Reading across the end gives fewer bytes and no error.
  EXPECT_EQ(in.seek(990), 0);
  EXPECT_EQ(in.read(buf, 100, &got), 0);
  EXPECT_EQ(got, 10u);
  EXPECT_TRUE(in.eof());
  EXPECT_EQ(in.read(buf, 100, &got), 0);
  EXPECT_EQ(got, 0u);
}

TEST(BufferedStream, WithoutUnderlyingStreamEverythingFails) {
  PBufferedStream s(PBufferedStream::kReading, nullptr, 16);
  uint8_t b[4];
  uint32_t n = 0;
  EXPECT_EQ(s.read(b, 4, &n), -1);
  EXPECT_EQ(s.write(b, 4, &n), -1);
  EXPECT_EQ(s.seek(1), -1);
  EXPECT_EQ(s.seekRelative(1), -1);
  EXPECT_EQ(s.seekFromEnd(0), -1);
  EXPECT_EQ(s.flush(), -1);
  EXPECT_EQ(s.close(), -1);
  EXPECT_EQ(s.truncate(), -1);
  EXPECT_EQ(s.isOpen(), 0);
}

// Random reads and seeks through a small buffer return what the file itself returns.
TEST_F(StreamTest, BufferedReadingMatchesFileOnRandomSequences) {
  std::mt19937 rng(7);
  std::vector<uint8_t> data(5000);
  for (auto& b : data) b = static_cast<uint8_t>(rng());
  spit(path("r"), data);

  for (uint32_t bufferSize : {1u, 7u, 64u, 4096u, 1u << 20}) {
    PFileStream plain, underlying;
    ASSERT_EQ(plain.open(path("r").c_str(), PFileStream::kAccessRead, 1, 0), 0);
    ASSERT_EQ(underlying.open(path("r").c_str(), PFileStream::kAccessRead, 1, 0), 0);
    PBufferedStream buffered(PBufferedStream::kReading, &underlying, bufferSize);
    for (int step = 0; step < 400; ++step) {
      const int op = static_cast<int>(rng() % 4);
      if (op == 0) {
        const uint64_t to = rng() % 5200;
        ASSERT_EQ(buffered.seek(to), plain.seek(to));
      } else if (op == 1) {
        const int64_t off = static_cast<int64_t>(rng() % 400) - 200;
        if (plain.tell() + off < 0) continue;
        ASSERT_EQ(buffered.seekRelative(off), plain.seekRelative(off));
      } else if (op == 2) {
        const int64_t off = -static_cast<int64_t>(rng() % 300);
        ASSERT_EQ(buffered.seekFromEnd(off), plain.seekFromEnd(off));
      } else {
        const uint32_t n = rng() % 700;
        std::vector<uint8_t> a(n), b(n);
        uint32_t ga = 0, gb = 0;
        ASSERT_EQ(buffered.read(a.data(), n, &ga), 0);
        ASSERT_EQ(plain.read(b.data(), n, &gb), 0);
        ASSERT_EQ(ga, gb) << "buffer " << bufferSize << " step " << step;
        ASSERT_EQ(a, b);
      }
      ASSERT_EQ(buffered.tell(), plain.tell());
      ASSERT_EQ(buffered.eof(), plain.eof());
    }
  }
}

// Random writes and seeks through a small buffer leave the same bytes as writing the file
// directly.
TEST_F(StreamTest, BufferedWritingMatchesFileOnRandomSequences) {
  std::mt19937 rng(11);
  for (uint32_t bufferSize : {1u, 5u, 64u, 4096u}) {
    PFileStream plain, underlying;
    ASSERT_EQ(plain.openForWriting(path("a").c_str(), 0), 0);
    ASSERT_EQ(underlying.openForWriting(path("b").c_str(), 0), 0);
    {
      PBufferedStream buffered(PBufferedStream::kWriting, &underlying, bufferSize);
      for (int step = 0; step < 300; ++step) {
        const int op = static_cast<int>(rng() % 5);
        if (op == 0) {
          const uint64_t to = rng() % 3000;
          ASSERT_EQ(buffered.seek(to), plain.seek(to));
        } else if (op == 1) {
          const int64_t off = static_cast<int64_t>(rng() % 200) - 100;
          if (plain.tell() + off < 0) continue;
          ASSERT_EQ(buffered.seekRelative(off), plain.seekRelative(off));
        } else if (op == 2) {
          ASSERT_EQ(buffered.size(), plain.size());
        } else {
          std::vector<uint8_t> bytes(rng() % 300);
          for (auto& b : bytes) b = static_cast<uint8_t>(rng());
          uint32_t wa = 0, wb = 0;
          ASSERT_EQ(buffered.write(bytes.data(), static_cast<uint32_t>(bytes.size()), &wa), 0);
          ASSERT_EQ(plain.write(bytes.data(), static_cast<uint32_t>(bytes.size()), &wb), 0);
          ASSERT_EQ(wa, wb);
        }
        ASSERT_EQ(buffered.tell(), plain.tell());
      }
      ASSERT_EQ(buffered.close(), 0);
    }
    ASSERT_EQ(plain.close(), 0);
    ASSERT_EQ(slurp(path("a")), slurp(path("b"))) << "buffer " << bufferSize;
  }
}

}  // namespace
