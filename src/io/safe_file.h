// Replacing a file without ever destroying the good copy: a save writes a temporary file in the
// target's directory and renames it over the target only once everything was written, flushed
// and closed. Targets that are not regular files (devices, FIFOs) are written in place, and a
// symbolic link is followed so that the file it points to is the one replaced.
//
// A process that is ended part way through a save leaves nothing behind where it can help it:
// while a temporary exists its path is registered where a signal handler can reach it without
// allocating, and SIGINT, SIGTERM and SIGHUP (when the program has not chosen its own handling
// for them) remove the registered temporaries before the process ends with the signal's usual
// status. A process killed outright (SIGKILL, a crash, a lost node) cannot clean up; its
// temporaries carry the host name and process id in their names,
//   .<target name>.tmp-<host>-<pid>-<n>
// and the next save of the same target removes those of this host whose process is gone.
#pragma once

#include <string>

namespace LUtils {

class SafeFileReplace {
 public:
  SafeFileReplace() = default;
  ~SafeFileReplace();  // abandons an uncommitted temporary
  SafeFileReplace(const SafeFileReplace&) = delete;
  SafeFileReplace& operator=(const SafeFileReplace&) = delete;

  // Decides where to write for `target` and, for a regular or missing target, removes the stale
  // temporaries of that target and creates its own (empty, with the permissions the target has
  // or a new file would get). Returns 0, or -2 when no temporary can be created (unwritable
  // directory; errno says why).
  int begin(const char* target);

  // The path to open for writing: the temporary, or the target itself when written in place.
  const std::string& writePath() const { return writePath_; }
  bool inPlace() const { return inPlace_; }

  // After the writer has flushed and closed writePath(): renames the temporary over the target.
  // Returns 0, or -5 when the rename fails (the temporary is removed, the target untouched).
  int commit();

  // Removes the temporary (nothing to do in place). Safe to call more than once.
  void abandon();

 private:
  std::string target_;
  std::string writePath_;
  bool inPlace_ = false;
  bool active_ = false;
  int slot_ = -1;  // the signal-cleanup registration of the temporary, -1 for none
};

// Removes the temporaries that earlier saves of `target` left on this host and whose process no
// longer exists; returns how many. begin() does this itself.
int removeStaleTemporaries(const char* target);

}  // namespace LUtils
