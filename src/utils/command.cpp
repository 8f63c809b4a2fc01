#include "utils/command.h"

#include <array>
#include <cstdio>

#include "utils/text.h"

namespace valta {
bool run_command(const std::string& command, std::string& output, std::uint32_t& status) {
  return run_command_redirect(command, output, status, true);
}

bool run_command_quiet_status(const std::string& command, std::string& output) {
  std::uint32_t dropped = 0;
  return run_command(command, output, dropped);
}

bool run_command_redirect(const std::string& command, std::string& output, std::uint32_t& status,
                          bool merge_stderr) {
  output.clear();
  if (has_nul(command)) {
    return false;
  }
  std::FILE* const pipe = popen((merge_stderr ? command + " 2>&1" : command).c_str(), "r");
  if (pipe == nullptr) {
    return false;
  }
  std::array<char, 1024> buffer{};
  std::size_t count = 0;
  do {
    count = std::fread(buffer.data(), 1, buffer.size(), pipe);
    output.append(buffer.data(), count);
  } while (count == buffer.size());
  const auto wait_status = static_cast<std::uint32_t>(pclose(pipe));
  status = (wait_status >> 8U) & 0xFFU;
  return true;
}

bool succeeds(const std::string& command, CommandResult& result) {
  return run_command(command, result.output, result.status) && result.status == 0;
}

}  // namespace valta
