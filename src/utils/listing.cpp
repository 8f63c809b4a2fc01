#include "utils/listing.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

#include "utils/text.h"

namespace valta {
namespace fs = std::filesystem;

bool lexists(const std::string& path) {
  struct stat status {};
  return !has_nul(path) && lstat(path.c_str(), &status) == 0;
}

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(directory, ignored)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> paths_below(const std::string& directory) {
  std::vector<std::string> paths;
  std::error_code error;
  const auto options = fs::directory_options::skip_permission_denied;
  fs::recursive_directory_iterator entry(directory, options, error);
  while (!error && entry != fs::recursive_directory_iterator()) {
    paths.push_back(entry->path());
    entry.increment(error);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace valta
