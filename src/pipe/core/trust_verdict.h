// The answer of each check of the pipe's server: trusted, or why not.
#pragma once

#include <string>

namespace korva::pipe {

struct TrustVerdict {
  bool trusted = false;
  std::string reason;  // why not, when not
};

}  // namespace korva::pipe
