#include "utils/search_path.h"

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

#include "utils/files.h"
#include "utils/text.h"

namespace valta {
namespace {

constexpr const char* kPathVariable = "PATH";
constexpr const char* kSystemPath = "/bin:/usr/bin:/sbin:/usr/sbin";

std::vector<std::string> search_directories() {
  const char* const path = std::getenv(kPathVariable);
  const std::string fields = path == nullptr ? kSystemPath : std::string(path) + ":" + kSystemPath;
  std::vector<std::string> directories;
  for (auto& directory : split(fields, ':')) {
    if (std::find(directories.begin(), directories.end(), directory) == directories.end()) {
      directories.push_back(std::move(directory));
    }
  }
  return directories;
}

}  // namespace

std::vector<std::string> path_fields() {
  const char* const path = std::getenv(kPathVariable);
  return split(path == nullptr ? "" : path, ':');
}

bool find_in_path_executable(const std::string& name) {
  const std::vector<std::string> directories = search_directories();
  setenv(kPathVariable, join(directories, ":").c_str(), 1);
  return std::any_of(directories.begin(), directories.end(), [&](const std::string& directory) {
    const std::string candidate = directory + "/" + name;
    return path_exists(candidate) && is_executable(candidate);
  });
}

std::string which(const std::string& name) {
  for (const auto& directory : path_fields()) {
    std::string candidate = directory + "/" + name;
    if (!directory.empty() && path_exists(candidate)) {
      return candidate;
    }
  }
  return "";
}

}  // namespace valta
