#include "io/safe_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "io/file_errors.h"

namespace LUtils {
namespace {

std::string directoryOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string baseNameOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Follows symbolic links, dangling ones included, to the path that a write would land on.
std::string resolveLinks(const std::string& path) {
  std::string current = path;
  for (int depth = 0; depth < 40; ++depth) {
    struct stat st;
    if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return current;
    char target[PATH_MAX];
    const ssize_t n = ::readlink(current.c_str(), target, sizeof(target) - 1);
    if (n < 0) return current;
    target[n] = '\0';
    if (target[0] == '/') {
      current = target;
    } else {
      current = directoryOf(current) + "/" + target;
    }
  }
  return current;
}

void syncDirectory(const std::string& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

std::atomic<unsigned> gTemporaryCounter{0};

}  // namespace

SafeFileReplace::~SafeFileReplace() { abandon(); }

int SafeFileReplace::begin(const char* target) {
  abandon();
  if (!target || !*target) return kFileOpenError;
  target_ = resolveLinks(target);

  struct stat st;
  const bool exists = ::stat(target_.c_str(), &st) == 0;
  if (exists && !S_ISREG(st.st_mode)) {
    // Devices, FIFOs and the like cannot be replaced by a rename: write them in place.
    inPlace_ = true;
    writePath_ = target;
    active_ = true;
    return kFileOk;
  }

  inPlace_ = false;
  const std::string dir = directoryOf(target_);
  const std::string base = baseNameOf(target_);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string candidate = dir + "/." + base + ".tmp-" + std::to_string(::getpid()) + "-" +
                                  std::to_string(gTemporaryCounter.fetch_add(1));
    // A new file gets the permissions the umask allows; a replaced one keeps its own.
    const int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                          exists ? 0600 : 0666);
    if (fd < 0) {
      if (errno == EEXIST || errno == EINTR) continue;
      return kFileOpenError;
    }
    if (exists) ::fchmod(fd, st.st_mode & 07777);
    ::close(fd);
    writePath_ = candidate;
    active_ = true;
    return kFileOk;
  }
  return kFileOpenError;
}

int SafeFileReplace::commit() {
  if (!active_) return kFileWriteError;
  active_ = false;
  if (inPlace_) return kFileOk;
  if (::rename(writePath_.c_str(), target_.c_str()) != 0) {
    ::unlink(writePath_.c_str());
    return kFileWriteError;
  }
  syncDirectory(directoryOf(target_));
  return kFileOk;
}

void SafeFileReplace::abandon() {
  if (active_ && !inPlace_) ::unlink(writePath_.c_str());
  active_ = false;
}

}  // namespace LUtils
