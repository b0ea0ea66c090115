#include "io/safe_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
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

// --- Removal of the temporaries when a signal ends the process.
//
// Each save in progress holds one slot: its temporary's path in a fixed buffer, published by the
// slot's state. The handler reads only these, calls only unlink, sigaction, pthread_sigmask and
// raise, and so is safe whatever the interrupted code was doing.
constexpr int kSlots = 32;
constexpr int kFree = 0, kClaimed = 1, kArmed = 2;
struct Slot {
  std::atomic<int> state{kFree};
  char path[PATH_MAX];
};
Slot gSlots[kSlots];
constexpr int kCleanedSignals[] = {SIGINT, SIGTERM, SIGHUP};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler reads the slot states");

extern "C" void removeTemporariesAndDie(int sig) {
  for (Slot& slot : gSlots) {
    if (slot.state.load(std::memory_order_acquire) == kArmed) ::unlink(slot.path);
  }
  // End the process the way the signal would have without this handler.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  ::sigaction(sig, &dfl, nullptr);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  ::raise(sig);
}

// Installs the handler once, for each signal whose disposition is still the default: a program
// that ignores a signal or handles it itself keeps its choice.
void installSignalCleanup() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (const int sig : kCleanedSignals) {
      struct sigaction old {};
      if (::sigaction(sig, nullptr, &old) != 0) continue;
      if ((old.sa_flags & SA_SIGINFO) != 0 || old.sa_handler != SIG_DFL) continue;
      struct sigaction act {};
      act.sa_handler = removeTemporariesAndDie;
      sigemptyset(&act.sa_mask);
      for (const int other : kCleanedSignals) sigaddset(&act.sa_mask, other);
      act.sa_flags = SA_RESTART;
      ::sigaction(sig, &act, nullptr);
    }
  });
}

// Registers a temporary's path; -1 when every slot is taken or the path does not fit (the save
// goes on, only without cleanup on a signal).
int registerTemporary(const std::string& path) {
  if (path.size() >= PATH_MAX) return -1;
  installSignalCleanup();
  for (int i = 0; i < kSlots; ++i) {
    int expected = kFree;
    if (!gSlots[i].state.compare_exchange_strong(expected, kClaimed)) continue;
    std::memcpy(gSlots[i].path, path.c_str(), path.size() + 1);
    gSlots[i].state.store(kArmed, std::memory_order_release);
    return i;
  }
  return -1;
}

void unregisterTemporary(int& slot) {
  if (slot >= 0) gSlots[slot].state.store(kFree, std::memory_order_release);
  slot = -1;
}

// --- Names of temporaries and the removal of stale ones.

const std::string& hostName() {
  static const std::string name = [] {
    char buffer[256] = {};
    if (::gethostname(buffer, sizeof buffer - 1) != 0) return std::string("localhost");
    std::string host = buffer;
    for (char& c : host) {
      if (c == '/') c = '_';
    }
    return host.empty() ? std::string("localhost") : host;
  }();
  return name;
}

std::string temporaryPrefix(const std::string& base) { return "." + base + ".tmp-"; }

bool allDigits(const std::string& s) {
  if (s.empty() || s.size() > 10) return false;
  for (const char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// The process that owns a temporary named `rest` after its prefix ("<host>-<pid>-<n>", or
// "<pid>-<n>" from older builds, which count as this host's); 0 when the name is not one of ours
// or names another host.
pid_t ownerOf(const std::string& rest) {
  const size_t last = rest.rfind('-');
  if (last == std::string::npos || !allDigits(rest.substr(last + 1))) return 0;
  const std::string front = rest.substr(0, last);
  const size_t dash = front.rfind('-');
  const std::string pidText = dash == std::string::npos ? front : front.substr(dash + 1);
  const std::string host = dash == std::string::npos ? std::string() : front.substr(0, dash);
  if (!allDigits(pidText) || (!host.empty() && host != hostName())) return 0;
  const long pid = std::strtol(pidText.c_str(), nullptr, 10);
  return pid > 0 && pid <= INT_MAX ? static_cast<pid_t>(pid) : 0;
}

}  // namespace

int removeStaleTemporaries(const char* target) {
  if (!target || !*target) return 0;
  const std::string resolved = resolveLinks(target);
  const std::string dir = directoryOf(resolved);
  const std::string prefix = temporaryPrefix(baseNameOf(resolved));
  DIR* listing = ::opendir(dir.c_str());
  if (!listing) return 0;
  int removed = 0;
  const int savedErrno = errno;
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name.compare(0, prefix.size(), prefix) != 0) continue;
    const pid_t owner = ownerOf(name.substr(prefix.size()));
    // Our own temporaries belong to saves still running in this process.
    if (owner == 0 || owner == ::getpid()) continue;
    if (::kill(owner, 0) == 0 || errno != ESRCH) continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (::unlink(path.c_str()) == 0) ++removed;
  }
  ::closedir(listing);
  errno = savedErrno;
  return removed;
}

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
  removeStaleTemporaries(target_.c_str());
  const std::string dir = directoryOf(target_);
  const std::string base = baseNameOf(target_);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string candidate = dir + "/" + temporaryPrefix(base) + hostName() + "-" +
                                  std::to_string(::getpid()) + "-" +
                                  std::to_string(gTemporaryCounter.fetch_add(1));
    // A new file gets the permissions the umask allows; a replaced one keeps its own.
    const int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                          exists ? 0600 : 0666);
    if (fd < 0) {
      if (errno == EEXIST || errno == EINTR) continue;
      return kFileOpenError;
    }
    // Registered before anything is written to it, so that a signal from here on removes it.
    slot_ = registerTemporary(candidate);
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
    const int error = errno;
    ::unlink(writePath_.c_str());
    unregisterTemporary(slot_);
    errno = error;
    return kFileWriteError;
  }
  // Released only after the rename: a signal in between unlinks a name that is gone, harmlessly.
  unregisterTemporary(slot_);
  syncDirectory(directoryOf(target_));
  return kFileOk;
}

void SafeFileReplace::abandon() {
  if (active_ && !inPlace_) {
    const int error = errno;  // the caller may still report why the save failed
    ::unlink(writePath_.c_str());
    errno = error;
  }
  unregisterTemporary(slot_);
  active_ = false;
}

}  // namespace LUtils
