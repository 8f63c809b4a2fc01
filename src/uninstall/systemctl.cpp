#include "uninstall/systemctl.h"

#include <cstdint>

#include "utils/command.h"

namespace valta::systemctl {
namespace {

void run_unchecked(const std::string& command) {
  std::string ignored;
  run_command_quiet_status(command, ignored);
}

}  // namespace

void disable_and_stop(const std::string& unit) {
  run_unchecked("systemctl disable " + unit + " 2>&1; systemctl stop " + unit + " 2>&1");
}

void forget_and_reload() { run_unchecked("systemctl reset-failed;systemctl daemon-reload"); }

bool knows(const std::string& unit) {
  CommandResult result;
  return !run_command("systemctl status " + unit + " 2>&1", result.output, result.status) ||
         result.status != std::uint32_t{kUnknown};
}

void stop_slice_of_template(const std::string& prefix) {
  run_unchecked("systemctl stop $(systemd-escape system/" + prefix + ".slice);");
}

}  // namespace valta::systemctl
