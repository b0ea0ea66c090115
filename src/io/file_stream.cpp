// PFileStream on a POSIX file descriptor. Failures return errno; system calls interrupted by a
// signal are retried.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "io/stream.h"

namespace {

int errnoOr(int fallback) { return errno != 0 ? errno : fallback; }

int openFlags(uint32_t access, int creation) {
  int flags = O_CLOEXEC;
  const bool wantRead = (access & PFileStream::kAccessRead) != 0;
  const bool wantWrite = (access & PFileStream::kAccessWrite) != 0;
  if (wantRead && wantWrite) {
    flags |= O_RDWR;
  } else if (wantWrite) {
    flags |= O_WRONLY;
  } else {
    flags |= O_RDONLY;
  }
  if (creation == PFileStream::kOpenAlways) flags |= O_CREAT;
  if (creation == PFileStream::kCreateAlways) flags |= O_CREAT | O_TRUNC;
  return flags;
}

int openRetrying(const char* name, int flags) {
  int fd;
  do {
    fd = ::open(name, flags, 0666);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

PFileStream::PFileStream() = default;

PFileStream::~PFileStream() {
  if (fd_ >= 0) close();
}

int PFileStream::open() {
  if (fd_ >= 0) close();
  fd_ = openRetrying(name_.c_str(), openFlags(access_, creation_));
  if (fd_ < 0) return errnoOr(EIO);
  posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
  ++openCount_;
  return 0;
}

int PFileStream::open(const char* name, uint32_t access, uint32_t share, int creation) {
  setParameters(name, access, share, creation);
  return open();
}

void PFileStream::setParameters(const char* name, uint32_t access, uint32_t share, int creation) {
  name_ = name ? name : "";
  access_ = access;
  share_ = share;  // kept for callers; POSIX has no sharing modes
  creation_ = creation;
}

int PFileStream::openForWriting(const char* name, int append) {
  if (fd_ >= 0) close();
  name_ = name ? name : "";
  if (append == 1) {
    access_ = kAccessReadWrite;
    share_ = 1;
    creation_ = kOpenAlways;
  } else {
    access_ = kAccessWrite;
    creation_ = kCreateAlways;
  }
  fd_ = openRetrying(name_.c_str(), openFlags(access_, creation_));
  if (fd_ < 0) return errnoOr(EIO);
  if (append == 1 && ::lseek(fd_, 0, SEEK_END) < 0) {
    const int error = errnoOr(EIO);
    ::close(fd_);
    fd_ = -1;
    return error;
  }
  ++openCount_;
  return 0;
}

int64_t PFileStream::fileSize(const char* name) {
  struct stat st;
  if (!name || ::stat(name, &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

int PFileStream::close() {
  if (fd_ < 0) return EBADF;
  if (::close(fd_) != 0 && errno != EINTR) return errnoOr(EIO);
  fd_ = -1;
  --openCount_;
  return 0;
}

int PFileStream::flush() {
  if (fd_ < 0) return -1;
  if (::fsync(fd_) == 0) return 0;
  // Pipes, terminals and some devices cannot be synchronised; there is nothing to flush there.
  if (errno == EINVAL || errno == EROFS || errno == ENOTSUP) return 0;
  return -1;
}

int PFileStream::write(const void* buffer, uint32_t count, uint32_t* written) {
  *written = 0;
  if (fd_ < 0) return EBADF;
  const char* p = static_cast<const char*>(buffer);
  while (*written < count) {
    const ssize_t n = ::write(fd_, p + *written, count - *written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errnoOr(EIO);
    }
    if (n == 0) return ENOSPC;
    *written += static_cast<uint32_t>(n);
  }
  return 0;
}

int PFileStream::read(void* buffer, uint32_t count, uint32_t* bytesRead) {
  *bytesRead = 0;
  if (fd_ < 0) return EBADF;
  char* p = static_cast<char*>(buffer);
  while (*bytesRead < count) {
    const ssize_t n = ::read(fd_, p + *bytesRead, count - *bytesRead);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errnoOr(EIO);
    }
    if (n == 0) break;  // end of file: a short read, not an error
    *bytesRead += static_cast<uint32_t>(n);
  }
  return 0;
}

int PFileStream::seek(uint64_t offset) {
  if (fd_ < 0) return EBADF;
  return ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0 ? errnoOr(EIO) : 0;
}

int PFileStream::seekRelative(int64_t offset) {
  if (fd_ < 0) return EBADF;
  return ::lseek(fd_, static_cast<off_t>(offset), SEEK_CUR) < 0 ? errnoOr(EIO) : 0;
}

int PFileStream::seekFromEnd(int64_t offset) {
  if (fd_ < 0) return EBADF;
  return ::lseek(fd_, static_cast<off_t>(offset), SEEK_END) < 0 ? errnoOr(EIO) : 0;
}

// Only a regular file has a size: a pipe, a terminal or a device says -1 (not known).
int64_t PFileStream::size() {
  struct stat st;
  if (fd_ < 0 || ::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<int64_t>(st.st_size);
}

int PFileStream::truncate() {
  if (fd_ < 0) return EBADF;
  const off_t here = ::lseek(fd_, 0, SEEK_CUR);
  if (here < 0) return errnoOr(EIO);
  int result;
  do {
    result = ::ftruncate(fd_, here);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? 0 : errnoOr(EIO);
}

int64_t PFileStream::tell() {
  if (fd_ < 0) return -1;
  return static_cast<int64_t>(::lseek(fd_, 0, SEEK_CUR));
}

bool PFileStream::eof() {
  const int64_t at = tell(), end = size();
  return at >= 0 && end >= 0 && at >= end;
}

int PFileStream::isOpen() { return fd_ >= 0 ? 1 : 0; }
