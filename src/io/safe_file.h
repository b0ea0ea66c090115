// Replacing a file without ever destroying the good copy: a save writes a temporary file in the
// target's directory and renames it over the target only once everything was written, flushed
// and closed. Targets that are not regular files (devices, FIFOs) are written in place, and a
// symbolic link is followed so that the file it points to is the one replaced.
#pragma once

#include <string>

namespace LUtils {

class SafeFileReplace {
 public:
  SafeFileReplace() = default;
  ~SafeFileReplace();  // abandons an uncommitted temporary
  SafeFileReplace(const SafeFileReplace&) = delete;
  SafeFileReplace& operator=(const SafeFileReplace&) = delete;

  // Decides where to write for `target` and, for a regular or missing target, creates the
  // temporary file (empty, with the permissions the target has or a new file would get).
  // Returns 0, or -2 when no temporary can be created (unwritable directory).
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
};

}  // namespace LUtils
