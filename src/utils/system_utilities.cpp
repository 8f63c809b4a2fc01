#include "utils/system_utilities.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "log/log.h"
#include "utils/search_path.h"

namespace valta {
namespace {

constexpr int kMaxRows = std::numeric_limits<std::uint8_t>::max();

}  // namespace

bool check_system_utilities(RequiredUtility* table, int count) {
  if (table == nullptr) {
    return false;
  }
  if (count > kMaxRows) {
    zvlogger::log(LogLevel::Error, "Unable to check %d system utilities; the limit is %d.\n", count,
                  kMaxRows);
    return false;
  }
  const auto rows = static_cast<std::uint8_t>(std::max(count, 0));
  bool all_found = true;
  for (std::uint8_t row = 0; row < rows; ++row) {
    RequiredUtility& utility = table[row];
    utility.found = find_in_path_executable(utility.name);
    if (utility.found) {
      zvlogger::log(LogLevel::Debug, "found system utility '%s'\n", utility.name);
      continue;
    }
    all_found = false;
    zvlogger::log(LogLevel::Error,
                  "Unable to find the system utility '%s'; please make sure you have the package "
                  "'%s' installed.  If you do have '%s' installed, then please check that '%s' is "
                  "in your PATH.\n",
                  utility.name, utility.package, utility.package, utility.name);
  }
  return all_found;
}

}  // namespace valta
