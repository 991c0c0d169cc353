// Where the console drops the agent's policies.
#include "shared/core/policy_paths.h"

namespace korva {

std::string PolicyFilePath(std::string_view base, std::string_view file) {
  std::string path(base);
  if (!path.empty() && path.back() != '\\') path += '\\';
  path += "data\\policy\\";
  path += file;
  return path;
}

}  // namespace korva
