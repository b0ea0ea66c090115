// For the programs whose option loops are written by hand: a long option's value stands after '='
// ("--size=800x600") or is the next argument ("--size 800x600"), as with getopt_long.
#pragma once

#include <string>

namespace cvtool {

class OptionWord {
 public:
  // The word argv[i]; a long option's "=value" is split off.
  OptionWord(int& i, int argc, char** argv) : i_(i), argc_(argc), argv_(argv), name_(argv[i]) {
    if (const size_t eq = name_.find('='); name_.rfind("--", 0) == 0 && eq != std::string::npos) {
      attached_ = argv[i] + eq + 1;
      name_.resize(eq);
    }
  }
  // The word without its "=value".
  const std::string& name() const { return name_; }
  // The option's value: the attached one, else the next argument (which is then used up), else
  // null. The pointer lives as long as argv.
  const char* value() {
    const char* v = attached_ != nullptr ? attached_ : i_ + 1 < argc_ ? argv_[++i_] : nullptr;
    attached_ = nullptr;
    return v;
  }
  // A value was attached and nothing took it: the option takes none.
  bool unusedValue() const { return attached_ != nullptr; }

 private:
  int& i_;
  int argc_;
  char** argv_;
  std::string name_;
  const char* attached_ = nullptr;
};

}  // namespace cvtool
