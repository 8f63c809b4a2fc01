#pragma once

#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace valta::inspect {

/// The character devices of a module.
struct Devices {
  std::set<dev_t> numbers;
  std::set<unsigned> majors;

  [[nodiscard]] bool holds(dev_t number) const;
};

/// The numbers of the devices in `text`, in the format of /proc/devices and /proc/misc, whose name
/// begins with `name`.
[[nodiscard]] std::vector<unsigned> numbers_of(const std::string& name, const std::string& text);

/// The devices of `module`: for hardware, those that the kernel links to the module; for others,
/// those whose name begins with that of the module.
[[nodiscard]] Devices devices_of(const std::string& module);

}  // namespace valta::inspect
