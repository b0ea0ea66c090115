// PBufferedStream: one buffer of a fixed size in front of another stream.
//
// Reading mode: the buffer holds the aligned block of the underlying stream that contains the
// current position; seeks inside it only move the position, seeks outside drop it and the next
// read loads the block around the new position.
//
// Writing mode: the buffer collects bytes written at bufferStart_ + position_; it is written out
// when full, before a seek elsewhere and on flush, close, size and truncate. The underlying
// stream is kept positioned at bufferStart_, so sequential writing never seeks it (pipes and
// devices can be written through it).
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "io/stream.h"

PBufferedStream::PBufferedStream() = default;

PBufferedStream::PBufferedStream(int mode, PStream* stream, uint32_t bufferSize) {
  setup(mode, stream, bufferSize);
}

PBufferedStream::~PBufferedStream() { std::free(buffer_); }

void PBufferedStream::setup(int mode, PStream* stream, uint32_t bufferSize) {
  if (bufferSize == 0) bufferSize = 1;
  if (bufferSize != bufferSize_ || !buffer_) {
    std::free(buffer_);
    buffer_ = static_cast<uint8_t*>(std::malloc(bufferSize));
    bufferSize_ = buffer_ ? bufferSize : 0;
  }
  stream_ = stream;
  mode_ = mode;
  bufferStart_ = 0;
  position_ = 0;
  valid_ = 0;
  loaded_ = false;
  dirty_ = false;
  underlying_ = 0;
}

// Writes the dirty bytes out and leaves an empty buffer starting at the current position.
int PBufferedStream::writeOutDirty() {
  int status = 0;
  if (mode_ == kWriting && dirty_ && loaded_ && valid_ > 0) {
    uint32_t written = 0;
    status = stream_->write(buffer_, valid_, &written);
    if (status == 0 && written < valid_) status = -1;
    if (status == 0 && position_ != valid_) status = stream_->seek(bufferStart_ + position_);
  }
  if (mode_ == kWriting) {
    bufferStart_ += position_;
    position_ = 0;
    valid_ = 0;
    loaded_ = false;
  }
  dirty_ = false;
  return status;
}

int PBufferedStream::open() {
  if (!stream_) return -1;
  const int status = stream_->open();
  setup(mode_, stream_, bufferSize_);
  return status;
}

int PBufferedStream::close() {
  if (!stream_) return -1;
  const int writeStatus = writeOutDirty();
  const int status = stream_->close();
  if (status != 0) return status;
  return writeStatus != 0 ? -1 : 0;
}

int PBufferedStream::flush() {
  if (!stream_) return -1;
  const int writeStatus = writeOutDirty();
  const int status = stream_->flush();
  if (status != 0) return status;
  return writeStatus != 0 ? -1 : 0;
}

// A stream that cannot seek (a pipe, a terminal) is read on from where it is: a block then
// starts at the position wanted rather than at its aligned start, and a position further on is
// reached by reading and dropping the bytes before it. Only going back fails there.
int PBufferedStream::moveUnderlyingTo(uint64_t& start, uint64_t absolute) {
  const int status = stream_->seek(start);
  if (status != ESPIPE) return status;
  if (absolute < underlying_) return status;
  while (underlying_ < absolute) {
    uint32_t got = 0;
    const auto skip = static_cast<uint32_t>(std::min<uint64_t>(bufferSize_, absolute - underlying_));
    const int readStatus = stream_->read(buffer_, skip, &got);
    underlying_ += got;
    if (readStatus != 0) return readStatus;
    if (got < skip) break;  // the end: the read there finds nothing
  }
  start = underlying_;
  return 0;
}

int PBufferedStream::read(void* buffer, uint32_t count, uint32_t* bytesRead) {
  *bytesRead = 0;
  if (!stream_ || !buffer_) return -1;
  uint8_t* out = static_cast<uint8_t*>(buffer);
  int status = 0;
  while (*bytesRead < count) {
    if (!loaded_ || position_ >= valid_) {
      if (mode_ == kReading) {
        const uint64_t absolute = bufferStart_ + position_;
        uint64_t start = absolute - absolute % bufferSize_;
        status = moveUnderlyingTo(start, absolute);
        if (status != 0) break;
        uint32_t got = 0;
        status = stream_->read(buffer_, bufferSize_, &got);
        valid_ = got;
        bufferStart_ = start;
        underlying_ = start + got;
        position_ = static_cast<uint32_t>(absolute - start);
        loaded_ = true;
        if (status != 0) break;
      } else {
        // Nothing written past the valid bytes can be read back.
        loaded_ = true;
      }
    }
    const uint32_t available = position_ < valid_ ? valid_ - position_ : 0;
    const uint32_t n = std::min(available, count - *bytesRead);
    if (n == 0) break;
    std::memcpy(out + *bytesRead, buffer_ + position_, n);
    position_ += n;
    *bytesRead += n;
  }
  return status;
}

int PBufferedStream::write(const void* buffer, uint32_t count, uint32_t* written) {
  *written = 0;
  if (!stream_ || !buffer_) return -1;
  if (mode_ == kReading) {
    // A reading stream writes straight through at the current position and forgets its buffer.
    const uint64_t absolute = bufferStart_ + position_;
    int status = stream_->seek(absolute);
    if (status == 0) status = stream_->write(buffer, count, written);
    bufferStart_ = underlying_ = absolute + *written;
    position_ = valid_ = 0;
    loaded_ = false;
    return status;
  }
  const uint8_t* in = static_cast<const uint8_t*>(buffer);
  while (*written < count) {
    if (position_ >= bufferSize_) {
      const int status = writeOutDirty();
      if (status != 0) return status;
    }
    loaded_ = true;
    const uint32_t n = std::min(bufferSize_ - position_, count - *written);
    std::memcpy(buffer_ + position_, in + *written, n);
    position_ += n;
    valid_ = std::max(valid_, position_);
    dirty_ = true;
    *written += n;
  }
  return 0;
}

int PBufferedStream::seek(uint64_t offset) {
  if (!stream_) return -1;
  if (mode_ == kWriting) {
    const int writeStatus = writeOutDirty();
    const int status = stream_->seek(offset);
    bufferStart_ = offset;
    position_ = valid_ = 0;
    loaded_ = false;
    return writeStatus != 0 ? writeStatus : status;
  }
  if (loaded_ && offset >= bufferStart_ && offset - bufferStart_ < valid_) {
    position_ = static_cast<uint32_t>(offset - bufferStart_);
    return 0;
  }
  bufferStart_ = offset;
  position_ = valid_ = 0;
  loaded_ = false;
  return 0;
}

int PBufferedStream::seekRelative(int64_t offset) {
  if (!stream_) return -1;
  const int64_t target = static_cast<int64_t>(position_) + offset;
  if (target >= 0 && target < static_cast<int64_t>(valid_)) {
    position_ = static_cast<uint32_t>(target);
    return 0;
  }
  const int64_t absolute = static_cast<int64_t>(bufferStart_ + position_) + offset;
  if (absolute < 0) return -1;
  return seek(static_cast<uint64_t>(absolute));
}

int PBufferedStream::seekFromEnd(int64_t offset) {
  if (!stream_) return -1;
  const int writeStatus = writeOutDirty();
  int status = stream_->seekFromEnd(offset);
  const int64_t here = stream_->tell();
  if (status == 0 && here < 0) status = -1;
  bufferStart_ = here < 0 ? 0 : static_cast<uint64_t>(here);
  position_ = valid_ = 0;
  loaded_ = false;
  return writeStatus != 0 ? writeStatus : status;
}

int64_t PBufferedStream::size() {
  if (!stream_) return -1;
  if (mode_ == kWriting && dirty_) writeOutDirty();
  return stream_->size();
}

int PBufferedStream::truncate() {
  if (!stream_) return -1;
  const uint64_t here = bufferStart_ + position_;
  const int writeStatus = writeOutDirty();
  int status = stream_->seek(here);
  if (status == 0) status = stream_->truncate();
  bufferStart_ = here;
  position_ = valid_ = 0;
  loaded_ = false;
  return writeStatus != 0 ? writeStatus : status;
}

int64_t PBufferedStream::tell() { return static_cast<int64_t>(bufferStart_ + position_); }

bool PBufferedStream::eof() {
  const int64_t end = size();
  return end >= 0 && tell() >= end;
}

int PBufferedStream::isOpen() { return stream_ ? stream_->isOpen() : 0; }
