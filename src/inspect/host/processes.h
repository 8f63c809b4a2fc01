#pragma once

#include <string>
#include <vector>

#include "inspect/host/devices.h"

namespace valta::inspect {

/// A process that has a device open or mapped.
struct Holder {
  std::string pid;
  std::string command;
  std::string device;
  std::string service;  ///< that the process belongs to; empty for none
  int uses = 0;         ///< its open files of the device
};

/// The processes that have one of `devices` open or mapped, as far as this user may see it.
[[nodiscard]] std::vector<Holder> processes_with(const Devices& devices);

/// The numbers of the processes of this host, not of a container on it, whose program is called
/// `name`.
[[nodiscard]] std::vector<std::string> processes_called(const std::string& name);

}  // namespace valta::inspect
