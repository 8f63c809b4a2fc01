#pragma once

#include <string>

namespace valta::systemctl {

// What `systemctl status` exits with.
inline constexpr int kActive = 0;
inline constexpr int kInactive = 3;
inline constexpr int kUnknown = 4;  ///< there is no such unit

// The command lines for systemd's own tools. Unit names go to the shell as they stand; nothing is
// logged. Only `knows` looks at how a command ended.

/// Disables `unit` and stops it.
void disable_and_stop(const std::string& unit);

/// Makes systemd forget failed units and read the unit files anew.
void forget_and_reload();

/// Whether systemd still knows `unit`, running or not. Where it cannot be asked, it may.
[[nodiscard]] bool knows(const std::string& unit);

/// Stops the slice that systemd made for the instances of the template called `prefix`.
void stop_slice_of_template(const std::string& prefix);

}  // namespace valta::systemctl
