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

void store_search_path(const std::vector<std::string>& directories) {
  std::string joined;
  for (const auto& directory : directories) {
    joined += directory + ":";
  }
  joined.pop_back();
  setenv(kPathVariable, joined.c_str(), 1);
}

}  // namespace

bool find_in_path_executable(const std::string& name) {
  const std::vector<std::string> directories = search_directories();
  store_search_path(directories);
  return std::any_of(directories.begin(), directories.end(), [&](const std::string& directory) {
    const std::string candidate = directory + "/" + name;
    return path_exists(candidate) && is_executable(candidate);
  });
}

std::string which(const std::string& name) {
  const char* const path = std::getenv(kPathVariable);
  for (const auto& directory : split(path == nullptr ? "" : path, ':')) {
    std::string candidate = directory + "/" + name;
    if (!directory.empty() && path_exists(candidate)) {
      return candidate;
    }
  }
  return "";
}

}  // namespace valta
