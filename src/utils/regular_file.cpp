#include "utils/regular_file.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "utils/descriptor.h"
#include "utils/text.h"

namespace valta {
namespace {

constexpr std::size_t kBlock = 65536;

}  // namespace

bool read_regular_file(const std::string& path, std::string& text) {
  struct stat status {};
  const Descriptor file(
      has_nul(path) ? -1 : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.is_open() || fstat(file.get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return false;
  }
  std::string content;
  std::array<char, kBlock> buffer{};
  ssize_t count = 0;
  while ((count = read(file.get(), buffer.data(), buffer.size())) > 0) {
    content.append(buffer.data(), static_cast<std::size_t>(count));
  }
  if (count < 0) {
    return false;
  }
  text = std::move(content);
  return true;
}

}  // namespace valta
