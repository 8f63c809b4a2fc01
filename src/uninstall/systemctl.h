#pragma once

#include <string>

namespace valta::systemctl {

// The exit statuses of `systemctl status`.
inline constexpr int kActive = 0;
inline constexpr int kInactive = 3;
inline constexpr int kUnknown = 4;  ///< there is no such unit

// The command lines for systemd's own tools. They pass unit names to the shell without quoting, and
// log nothing. Only `knows` checks how a command ended.

/// Disables `unit` and stops it.
void disable_and_stop(const std::string& unit);

/// Makes systemd forget failed units and read the unit files again.
void forget_and_reload();

/// Whether systemd still knows `unit`, running or not. True if systemctl cannot answer.
[[nodiscard]] bool knows(const std::string& unit);

/// Stops the slice that systemd made for the instances of the template called `prefix`.
void stop_slice_of_template(const std::string& prefix);

}  // namespace valta::systemctl
