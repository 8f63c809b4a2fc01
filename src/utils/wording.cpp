#include "utils/wording.h"

#include <algorithm>

#include "utils/text.h"

namespace valta {
namespace {

constexpr std::size_t kNamesShown = 3;

}  // namespace

std::string counted(std::size_t count, const std::string& thing) {
  const bool ends_in_y = thing.ends_with('y');
  const std::string many = ends_in_y ? thing.substr(0, thing.size() - 1) + "ies" : thing + "s";
  return std::to_string(count) + " " + (count == 1 ? thing : many);
}

std::string some_of(const std::vector<std::string>& names) {
  const std::size_t shown = std::min(names.size(), kNamesShown);
  const std::string text = join({names.data(), names.data() + shown}, ", ");
  return names.size() == shown ? text
                               : text + " and " + std::to_string(names.size() - shown) + " more";
}

}  // namespace valta
