#include "inspect/host/digest.h"

#include "utils/spawn.h"

namespace valta::inspect {
namespace {

constexpr std::size_t kDigits = 32;

}  // namespace

bool is_md5(const std::string& digest) {
  return digest.size() == kDigits &&
         digest.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string md5_of(const std::string& path) {
  std::string output;
  const bool ran = output_of({"md5sum"}, path, output);
  const std::string digest = output.substr(0, output.find(' '));
  return ran && is_md5(digest) ? digest : "";
}

std::string complaint_of_md5sum(const std::string& path) {
  std::string output;
  static_cast<void>(output_of({"sh", "-c", "md5sum 2>&1 >/dev/null"}, path, output));
  return output.substr(0, output.find('\n'));
}

}  // namespace valta::inspect
