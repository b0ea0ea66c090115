// Byte streams: the abstract PStream, PFileStream on a POSIX file descriptor, PBufferedStream,
// which puts a fixed-size buffer in front of another stream, and PMemoryStream over bytes in
// memory. The map file code reads and writes through these; every operation returns a 32-bit
// status, 0 for success.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The abstract stream. The order of the virtual operations is part of the interface.
class PStream {
 public:
  virtual ~PStream();
  virtual int open() = 0;
  virtual int close() = 0;
  virtual int flush() = 0;
  virtual int write(const void* buffer, uint32_t count, uint32_t* written) = 0;
  // Writes the bytes of a zero-terminated text, without the terminator, through write().
  virtual int writeText(const char* text);
  // Length-prefixed strings: a 16-bit little-endian length, then that many bytes.
  virtual int writeString(const void* bytes, uint16_t length, uint32_t* written);
  virtual int read(void* buffer, uint32_t count, uint32_t* bytesRead) = 0;
  // Returns the length through `length`; `bytesRead` includes the two length bytes.
  virtual int readString(void* buffer, uint16_t* length, uint32_t* bytesRead);
  // Fails with -1, reading none of the text, unless the stored length is below *capacity; on
  // success stores a terminating zero and returns the length through *capacity.
  virtual int readStringZ(char* buffer, uint16_t* capacity, uint32_t* bytesRead);
  virtual int seek(uint64_t offset) = 0;
  virtual int seekRelative(int64_t offset) = 0;
  virtual int seekFromEnd(int64_t offset) = 0;
  virtual int64_t size() = 0;      // -1 when not known: an error, or a pipe
  virtual int truncate() = 0;      // cuts the file at the current position
  virtual int64_t tell() = 0;      // -1 on error
  virtual bool eof() = 0;          // tell() at or beyond a known size()
  virtual int isOpen() = 0;
};

// A stream over a file. Failures return the system's error code (errno).
class PFileStream : public PStream {
 public:
  // Access masks and creation modes, kept as the stored parameter values.
  static constexpr uint32_t kAccessRead = 0x80000000u;
  static constexpr uint32_t kAccessWrite = 0x40000000u;
  static constexpr uint32_t kAccessReadWrite = 0xC0000000u;
  static constexpr int kOpenAlways = 2;    // create when missing
  static constexpr int kCreateAlways = 3;  // create or truncate
  static constexpr int kOpenExisting = 0;  // any other value: the file must exist

  PFileStream();
  ~PFileStream() override;

  int open() override;
  int close() override;
  int flush() override;  // -1 on failure
  int write(const void* buffer, uint32_t count, uint32_t* written) override;
  int read(void* buffer, uint32_t count, uint32_t* bytesRead) override;
  int seek(uint64_t offset) override;
  int seekRelative(int64_t offset) override;
  int seekFromEnd(int64_t offset) override;
  int64_t size() override;
  int truncate() override;
  int64_t tell() override;
  bool eof() override;
  int isOpen() override;

  // Stores the parameters, then opens; returns open's status.
  virtual int open(const char* name, uint32_t access, uint32_t share, int creation);
  // Size of a named file without opening it; -1 when it does not exist.
  virtual int64_t fileSize(const char* name);
  virtual void setParameters(const char* name, uint32_t access, uint32_t share, int creation);
  // append = 1: read and write, created when missing, positioned at the end;
  // append = 0: created or truncated.
  virtual int openForWriting(const char* name, int append);

  int descriptor() const { return fd_; }
  const std::string& name() const { return name_; }

 private:
  int openCount_ = 0;
  std::string name_;
  uint32_t access_ = kAccessReadWrite;
  uint32_t share_ = 1;
  int creation_ = kOpenAlways;
  int fd_ = -1;
};

// A fixed-size buffer in front of another stream (not owned), in reading or writing mode. Its
// buffer is aligned to multiples of its size in the underlying stream. Without an underlying
// stream every operation returns -1.
class PBufferedStream : public PStream {
 public:
  enum Mode : int { kReading = 0, kWriting = 1 };

  PBufferedStream();
  PBufferedStream(int mode, PStream* stream, uint32_t bufferSize);
  ~PBufferedStream() override;
  PBufferedStream(const PBufferedStream&) = delete;
  PBufferedStream& operator=(const PBufferedStream&) = delete;

  // Sets up again; a different size frees and reallocates the buffer; positions are zeroed.
  void setup(int mode, PStream* stream, uint32_t bufferSize);

  int open() override;
  int close() override;
  int flush() override;
  int write(const void* buffer, uint32_t count, uint32_t* written) override;
  int read(void* buffer, uint32_t count, uint32_t* bytesRead) override;
  int seek(uint64_t offset) override;
  int seekRelative(int64_t offset) override;
  int seekFromEnd(int64_t offset) override;
  int64_t size() override;
  int truncate() override;
  int64_t tell() override;
  bool eof() override;
  int isOpen() override;

 private:
  int writeOutDirty();
  int moveUnderlyingTo(uint64_t& start, uint64_t absolute);

  uint8_t* buffer_ = nullptr;
  uint32_t bufferSize_ = 0;
  PStream* stream_ = nullptr;
  uint64_t bufferStart_ = 0;
  uint32_t position_ = 0;
  uint32_t valid_ = 0;
  bool loaded_ = false;
  bool dirty_ = false;
  int mode_ = kReading;
  // Reading: where the underlying stream stands after this stream's last read from it, counted
  // from where this stream was set up; what a stream that cannot seek is read on from.
  uint64_t underlying_ = 0;
};

// A stream over bytes in memory, behaving as a file of those bytes would: reads stop at the end
// (a read there succeeds with 0 bytes), a seek may go past the end, and a write past the end
// fills the gap with zeros. Either a read-only view of bytes the caller keeps alive (a write or
// truncate then fails with -1), or a buffer of its own that grows as it is written. Lets the map
// readers and writers run without a file, for tests and for fuzzing, where a file per input would
// cost more than the parsing.
class PMemoryStream : public PStream {
 public:
  PMemoryStream();                               // an empty, writable buffer
  PMemoryStream(const void* data, size_t size);  // a read-only view
  ~PMemoryStream() override;

  int open() override;   // back to position 0; the bytes stay
  int close() override;  // always succeeds; the bytes stay readable through bytes()
  int flush() override;
  int write(const void* buffer, uint32_t count, uint32_t* written) override;
  int read(void* buffer, uint32_t count, uint32_t* bytesRead) override;
  int seek(uint64_t offset) override;
  int seekRelative(int64_t offset) override;
  int seekFromEnd(int64_t offset) override;
  int64_t size() override;
  int truncate() override;
  int64_t tell() override;
  bool eof() override;
  int isOpen() override;

  // The bytes: the view, or what was written.
  const uint8_t* data() const { return view_ ? view_ : owned_.data(); }
  size_t byteCount() const { return view_ ? viewSize_ : owned_.size(); }
  std::vector<uint8_t> bytes() const { return {data(), data() + byteCount()}; }

 private:
  const uint8_t* view_ = nullptr;
  size_t viewSize_ = 0;
  std::vector<uint8_t> owned_;
  uint64_t position_ = 0;
};
