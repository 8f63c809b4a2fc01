#include "installer/ofed.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <sys/utsname.h>

#include "log/log.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta {
namespace {

constexpr const char* kOfedSources = "/usr/src/ofa_kernel/default";

}  // namespace

bool ofed_present() {
  const std::string sources = kOfedSources;
  for (const auto& path :
       {sources, sources + "/include/rdma/peer_mem.h", sources + "/Module.symvers"}) {
    if (!path_exists(path)) {
      zvlogger::log(LogLevel::Debug, "OFED dir [%s] is not exist.\n", path.c_str());
      return false;
    }
  }
  if (!is_symlink(sources)) {
    return true;
  }
  const std::unique_ptr<char, void (*)(void*)> resolved(realpath(kOfedSources, nullptr),
                                                        &std::free);
  if (!resolved) {
    return false;
  }
  const std::string version = last_component(resolved.get());
  zvlogger::log(LogLevel::Debug, "Use OFED: %s, version: %s\n", resolved.get(), version.c_str());
  utsname kernel{};
  if (uname(&kernel) != 0) {
    zvlogger::log(LogLevel::Warning, "Get uname failed.\n");
    return false;
  }
  if (version != kernel.release) {
    zvlogger::log(LogLevel::Warning, "Version of OFED is %s, not the same as running kernel %s.\n",
                  version.c_str(), kernel.release);
  }
  return true;
}

}  // namespace valta
