#pragma once

#include <set>
#include <string>
#include <sys/types.h>

namespace valta::inspect {

/// The character devices of a module.
struct Devices {
  std::set<dev_t> numbers;
  std::set<unsigned> majors;

  [[nodiscard]] bool holds(dev_t number) const;
};

/// The devices of `module`: those that the kernel says belong to it, where hardware is behind them,
/// and of others those whose name begins with that of the module.
[[nodiscard]] Devices devices_of(const std::string& module);

}  // namespace valta::inspect
