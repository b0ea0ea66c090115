// PMemoryStream: a stream over a read-only view of bytes or over a buffer of its own.
#include <algorithm>
#include <cstring>
#include <limits>

#include "io/stream.h"

PMemoryStream::PMemoryStream() = default;

PMemoryStream::PMemoryStream(const void* data, size_t size)
    : view_(static_cast<const uint8_t*>(data)), viewSize_(size) {
  // A null view of no bytes is still a view: it must refuse writes like any other.
  if (!view_) view_ = reinterpret_cast<const uint8_t*>("");
}

PMemoryStream::~PMemoryStream() = default;

int PMemoryStream::open() {
  position_ = 0;
  return 0;
}

int PMemoryStream::close() { return 0; }

int PMemoryStream::flush() { return 0; }

int PMemoryStream::write(const void* buffer, uint32_t count, uint32_t* written) {
  *written = 0;
  if (view_) return -1;
  if (count == 0) return 0;
  // A memory buffer cannot hold what a 64-bit offset can name; refuse rather than wrap.
  if (position_ > std::numeric_limits<size_t>::max() - count) return -1;
  const size_t end = static_cast<size_t>(position_) + count;
  if (end > owned_.size()) owned_.resize(end, 0);
  std::memcpy(owned_.data() + position_, buffer, count);
  position_ = end;
  *written = count;
  return 0;
}

int PMemoryStream::read(void* buffer, uint32_t count, uint32_t* bytesRead) {
  const uint64_t size = byteCount();
  const uint64_t available = position_ < size ? size - position_ : 0;
  const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(count, available));
  if (n > 0) std::memcpy(buffer, data() + position_, n);
  position_ += n;
  *bytesRead = n;
  return 0;
}

int PMemoryStream::seek(uint64_t offset) {
  if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return -1;
  position_ = offset;
  return 0;
}

int PMemoryStream::seekRelative(int64_t offset) {
  const int64_t at = static_cast<int64_t>(position_);
  if (offset < 0 ? offset < -at : offset > std::numeric_limits<int64_t>::max() - at) return -1;
  position_ = static_cast<uint64_t>(at + offset);
  return 0;
}

int PMemoryStream::seekFromEnd(int64_t offset) {
  const int64_t end = static_cast<int64_t>(byteCount());
  if (offset < 0 ? offset < -end : offset > std::numeric_limits<int64_t>::max() - end) return -1;
  position_ = static_cast<uint64_t>(end + offset);
  return 0;
}

int64_t PMemoryStream::size() { return static_cast<int64_t>(byteCount()); }

int PMemoryStream::truncate() {
  if (view_) return -1;
  if (position_ < owned_.size()) owned_.resize(static_cast<size_t>(position_));
  return 0;
}

int64_t PMemoryStream::tell() { return static_cast<int64_t>(position_); }

bool PMemoryStream::eof() { return position_ >= byteCount(); }

int PMemoryStream::isOpen() { return 1; }
