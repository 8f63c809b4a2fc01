#include "inspect/dry_run/confinement.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <linux/capability.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "inspect/dry_run/namespaces.h"
#include "utils/listing.h"

namespace valta::inspect {
namespace {

/// The capabilities for deleting and writing files.
constexpr std::array<int, 4> kFileCapabilities = {CAP_CHOWN, CAP_DAC_OVERRIDE, CAP_FOWNER,
                                                  CAP_FSETID};

void drop_privileges() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> data{};
  for (const int capability : kFileCapabilities) {
    data[0].permitted |= 1U << static_cast<unsigned>(capability);
  }
  data[0].effective = data[0].permitted;
  for (int capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; ++capability) {
    if (capability > 31 || (data[0].permitted & (1U << static_cast<unsigned>(capability))) == 0) {
      prctl(PR_CAPBSET_DROP, capability);
    }
  }
  if (syscall(SYS_capset, &header, data.data()) != 0 ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    fail_to("drop privileges");
  }
}

void cut_ties() {
  for (const std::string& name : names_in("/proc/self/fd")) {
    if (const int descriptor = std::atoi(name.c_str()); descriptor > STDERR_FILENO) {
      fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
  }
  if (setsid() < 0) {
    fail_to("leave the terminal");
  }
  const rlimit no_dump = {1, 1};     // with 0, the kernel still pipes a dump to a program
  setrlimit(RLIMIT_CORE, &no_dump);  // may not be raised from 0 in a container
}

}  // namespace

void confine() {
  cut_ties();
  drop_privileges();
}

}  // namespace valta::inspect
