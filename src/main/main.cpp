#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <unistd.h>
#ifdef VALTA_STATIC
#include <nss.h>
#endif

#include "installer/driver_installer.h"
#include "installer/required_utilities.h"
#include "log/log.h"
#include "uninstall/install_root.h"
#include "uninstall/result_code.h"
#include "utils/host.h"
#include "utils/system_utilities.h"

namespace valta {
namespace {

constexpr int kNotRoot = -1;  // 255 to the caller
constexpr int kNotRootAnymore = 7;

DriverConfig make_config() {
  DriverConfig config;
  config.texts[DriverConfig::kToolkitPath] = default_install_root();
  return config;
}

bool refused_to_non_root() {
  if (getuid() == 0) {
    return false;
  }
  zvlogger::log(LogLevel::Print, "Permission denied.\n");
  return true;
}

void change_to_home() {
  const char* const home = std::getenv("HOME");
  // A run works from any directory, so a missing home is no error.
  [[maybe_unused]] const int ignored = chdir(home == nullptr ? "/" : home);
}

/// Nothing that `step` throws may end the process before its closing line.
template <typename Step>
ResultCode guarded(const Step& step) {
  try {
    return step();
  } catch (const std::exception& error) {
    zvlogger::log(LogLevel::Error, "%s\n", error.what());
    return ResultCode::failure;
  }
}

ResultCode run(const DriverConfig& config) {
  const DriverInstaller installer(config);
  auto utilities = kUninstallUtilities;
  if (!check_system_utilities(utilities.data(), static_cast<int>(utilities.size()))) {
    zvlogger::log(LogLevel::Error, "Check utils failed. please refer guide in log.\n");
    // A host without kernel tools has loaded no driver of its own. Scripts that call this program
    // on all their hosts count such a host as done.
    return ResultCode::success;
  }
  change_to_home();
  const ResultCode code = guarded([&] { return installer.uninstall(); });
  zvlogger::log(LogLevel::Print, code == ResultCode::success ? "Successfully uninstall driver.\n"
                                                             : "Driver uninstall failed.\n");
  return code;
}

/// Without them, a file that is opened gets the number of a closed stream, and its output.
void open_standard_streams() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) {
    close(descriptor);
  }
}

/// Makes the process independent of its caller's signals and standard streams.
void settle_process() {
  open_standard_streams();
#ifdef VALTA_STATIC
  // A host's name service belongs to its own C library and would crash a static program: the
  // "~user" of a DKMS tree is looked up in /etc/passwd alone.
  __nss_configure_lookup("passwd", "files");
#endif
  // If the caller ignores it, the exit codes of the commands are lost.
  std::signal(SIGCHLD, SIG_DFL);
  // A closed pipe must not end a run half done. A handler, unlike an ignored signal, is not
  // inherited by the commands.
  std::signal(SIGPIPE, [](int /*signal*/) {});
  // Keeps lines on standard output in order with those on standard error.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

}  // namespace
}  // namespace valta

int main() {
  using namespace valta;
  const DriverConfig config = make_config();
  if (refused_to_non_root()) {
    return kNotRoot;
  }
  settle_process();
  set_umask();
  zvlogger::init(kLogPath);
  // Everything below deletes, so the user is checked here again.
  if (refused_to_non_root()) {
    return kNotRootAnymore;
  }
  const ResultCode code = guarded([&] { return run(config); });
  zvlogger::log(LogLevel::Print, "Driver uninstall log is in %s\n", kLogPath);
  zvlogger::close();
  return static_cast<int>(code);
}
