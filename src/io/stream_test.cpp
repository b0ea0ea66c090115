#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "io/stream.h"
#include "test_support/scratch_dir.h"

namespace {

using StreamTest = LUtils::testing::ScratchDirTest;
using LUtils::testing::readWholeFile;

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
  EXPECT_EQ(readWholeFile(path("s")), std::string("\0\0\5\0hello\4\0abcdtail", 19));

  PFileStream in;
  ASSERT_EQ(in.open(path("s").c_str(), PFileStream::kAccessRead, 1, 0), 0);
  char buf[16] = {};
  uint16_t len = 99;
  uint32_t got = 0;
  EXPECT_EQ(in.readString(buf, &len, &got), 0);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(in.readString(buf, &len, &got), 0);
  EXPECT_EQ(std::string(buf, len), "hello");
  EXPECT_EQ(got, 7u);
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

TEST_F(StreamTest, FileStreamReportsSystemErrorsAppendsAndTruncates) {
  PFileStream s;
  EXPECT_EQ(s.open(path("missing").c_str(), PFileStream::kAccessRead, 1, 0), ENOENT);
  EXPECT_EQ(s.fileSize(path("missing").c_str()), -1);
  EXPECT_EQ(s.close(), EBADF);
  EXPECT_EQ(s.tell(), -1);

  LUtils::testing::writeWholeFile(path("f"), "\1\2\3\4\5");
  ASSERT_EQ(s.openForWriting(path("f").c_str(), 1), 0);
  EXPECT_EQ(s.tell(), 5);
  uint32_t n = 0;
  EXPECT_EQ(s.write("\x06", 1, &n), 0);
  ASSERT_EQ(s.seek(2), 0);
  EXPECT_EQ(s.truncate(), 0);
  EXPECT_EQ(s.size(), 2);
  EXPECT_TRUE(s.eof());
  ASSERT_EQ(s.close(), 0);
  EXPECT_EQ(readWholeFile(path("f")), "\1\2");
}

// Random reads and seeks through buffers of every size, and through a memory view of the same
// bytes, return what the file itself returns, including short reads across the end.
TEST_F(StreamTest, BufferedReadingMatchesFileOnRandomSequences) {
  std::mt19937 rng(7);
  std::string data(5000, '\0');
  for (auto& b : data) b = static_cast<char>(rng());
  LUtils::testing::writeWholeFile(path("r"), data);

  for (uint32_t bufferSize : {1u, 7u, 64u, 4096u, 1u << 20}) {
    PFileStream plain, underlying;
    ASSERT_EQ(plain.open(path("r").c_str(), PFileStream::kAccessRead, 1, 0), 0);
    ASSERT_EQ(underlying.open(path("r").c_str(), PFileStream::kAccessRead, 1, 0), 0);
    PBufferedStream buffered(PBufferedStream::kReading, &underlying, bufferSize);
    PMemoryStream memory(data.data(), data.size());
    for (int step = 0; step < 400; ++step) {
      const int op = static_cast<int>(rng() % 4);
      if (op == 0) {
        const uint64_t to = rng() % 5200;
        ASSERT_EQ(buffered.seek(to), plain.seek(to));
        ASSERT_EQ(memory.seek(to), 0);
      } else if (op == 1) {
        const int64_t off = static_cast<int64_t>(rng() % 400) - 200;
        if (plain.tell() + off < 0) continue;
        ASSERT_EQ(buffered.seekRelative(off), plain.seekRelative(off));
        ASSERT_EQ(memory.seekRelative(off), 0);
      } else if (op == 2) {
        const int64_t off = -static_cast<int64_t>(rng() % 300);
        ASSERT_EQ(buffered.seekFromEnd(off), plain.seekFromEnd(off));
        ASSERT_EQ(memory.seekFromEnd(off), 0);
      } else {
        const uint32_t n = rng() % 700;
        std::vector<uint8_t> a(n), b(n), c(n);
        uint32_t ga = 0, gb = 0, gc = 0;
        ASSERT_EQ(buffered.read(a.data(), n, &ga), 0);
        ASSERT_EQ(plain.read(b.data(), n, &gb), 0);
        ASSERT_EQ(memory.read(c.data(), n, &gc), 0);
        ASSERT_EQ(ga, gb) << "buffer " << bufferSize << " step " << step;
        ASSERT_EQ(gc, gb) << "memory, step " << step;
        ASSERT_EQ(a, b);
        ASSERT_EQ(c, b);
      }
      ASSERT_EQ(buffered.tell(), plain.tell());
      ASSERT_EQ(buffered.eof(), plain.eof());
      ASSERT_EQ(memory.tell(), plain.tell());
      ASSERT_EQ(memory.eof(), plain.eof());
    }
    // A view is read-only, and a seek before the start fails and stays put.
    uint32_t written = 1;
    EXPECT_EQ(memory.write("x", 1, &written), -1);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(memory.truncate(), -1);
    ASSERT_EQ(memory.seek(3), 0);
    EXPECT_EQ(memory.seekRelative(-4), -1);
    EXPECT_EQ(memory.seekFromEnd(-5001), -1);
    EXPECT_EQ(memory.tell(), 3);
  }
}

// A pipe cannot seek: the buffer reads it in order, reaches a later position by reading on, and
// fails only a seek back before the block it holds.
TEST_F(StreamTest, BufferedReadingOfAPipeGoesForwardOnly) {
  std::string data(3000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 256);
  LUtils::testing::PipeFeeder feeder(path("fifo"), data);
  PFileStream pipe;
  ASSERT_EQ(pipe.open(path("fifo").c_str(), PFileStream::kAccessRead, 1, 0), 0);
  EXPECT_EQ(pipe.size(), -1);
  PBufferedStream in(PBufferedStream::kReading, &pipe, 256);
  auto readAt = [&](uint64_t at, uint32_t n) {
    std::string got(n, '\0');
    uint32_t count = 0;
    EXPECT_EQ(in.seek(at), 0);
    if (in.read(got.data(), n, &count) != 0) return std::string("error");
    got.resize(count);
    return got;
  };
  EXPECT_EQ(readAt(0, 100), data.substr(0, 100));
  EXPECT_EQ(readAt(1000, 300), data.substr(1000, 300));  // skips 900 bytes, across blocks
  EXPECT_EQ(readAt(1260, 50), data.substr(1260, 50));    // back, inside the block held
  EXPECT_EQ(readAt(500, 10), "error");                   // back, before it
  EXPECT_FALSE(in.eof());
  EXPECT_EQ(readAt(2990, 100), data.substr(2990));       // the end: a short read
}

// Random writes and seeks through a buffer, and into a memory stream, leave the same bytes as
// writing the file directly (a write past the end fills the gap with zeros).
TEST_F(StreamTest, BufferedWritingMatchesFileOnRandomSequences) {
  std::mt19937 rng(11);
  for (uint32_t bufferSize : {1u, 5u, 64u, 4096u}) {
    PFileStream plain, underlying;
    PMemoryStream memory;
    ASSERT_EQ(plain.openForWriting(path("a").c_str(), 0), 0);
    ASSERT_EQ(underlying.openForWriting(path("b").c_str(), 0), 0);
    {
      PBufferedStream buffered(PBufferedStream::kWriting, &underlying, bufferSize);
      for (int step = 0; step < 300; ++step) {
        const int op = static_cast<int>(rng() % 4);
        if (op == 0) {
          const uint64_t to = rng() % 3000;
          ASSERT_EQ(buffered.seek(to), plain.seek(to));
          ASSERT_EQ(memory.seek(to), 0);
        } else if (op == 1) {
          const int64_t off = static_cast<int64_t>(rng() % 200) - 100;
          if (plain.tell() + off < 0) continue;
          ASSERT_EQ(buffered.seekRelative(off), plain.seekRelative(off));
          ASSERT_EQ(memory.seekRelative(off), 0);
        } else {
          std::vector<uint8_t> bytes(rng() % 300);
          for (auto& b : bytes) b = static_cast<uint8_t>(rng());
          const auto n = static_cast<uint32_t>(bytes.size());
          uint32_t wa = 0, wb = 0;
          ASSERT_EQ(buffered.write(bytes.data(), n, &wa), 0);
          ASSERT_EQ(plain.write(bytes.data(), n, &wb), 0);
          ASSERT_EQ(wa, wb);
          ASSERT_EQ(memory.write(bytes.data(), n, &wa), 0);
          ASSERT_EQ(wa, wb);
          ASSERT_EQ(buffered.size(), plain.size());
        }
        ASSERT_EQ(buffered.tell(), plain.tell());
        ASSERT_EQ(memory.tell(), plain.tell());
      }
      ASSERT_EQ(buffered.close(), 0);
    }
    ASSERT_EQ(plain.close(), 0);
    ASSERT_EQ(readWholeFile(path("a")), readWholeFile(path("b"))) << "buffer " << bufferSize;
    const std::vector<uint8_t> bytes = memory.bytes();
    ASSERT_EQ(std::string(bytes.begin(), bytes.end()), readWholeFile(path("a")));
  }
}

}  // namespace
