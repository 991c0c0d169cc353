// Where the console drops the policies that make the file-audit filter wanted.
#include "fileaudit/core/policy_paths.h"

namespace korva::fileaudit {

std::string PolicyFilePath(std::string_view base, std::string_view file) {
  std::string path(base);
  if (!path.empty() && path.back() != '\\') path += '\\';
  path += "data\\policy\\";
  path += file;
  return path;
}

}  // namespace korva::fileaudit
