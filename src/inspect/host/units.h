#pragma once

#include <string>
#include <vector>

namespace valta::inspect {

// What systemctl ends with: for a unit that it tells the status of, and for what it refuses.
inline constexpr int kActive = 0;
inline constexpr int kMisused = 1;
inline constexpr int kInactive = 3;
inline constexpr int kUnknown = 4;
inline constexpr int kNotLoaded = 5;

/// `unit` with ".service" behind it if it names no kind of unit itself.
[[nodiscard]] std::string full_unit_name(const std::string& unit);

/// Whether `unit` is a template without an instance, as "a@".
[[nodiscard]] bool is_bare_template(const std::string& unit);

/// The files of `unit`, in the order of their precedence: in every directory that systemd reads,
/// those of generators too. For an instance without a file of its own those of its template. A link
/// that leads nowhere is none, as for systemd.
[[nodiscard]] std::vector<std::string> unit_files(const std::string& unit);

/// Whether `unit`, by its files, refuses to be stopped by hand.
[[nodiscard]] bool refuses_to_stop(const std::string& unit);

}  // namespace valta::inspect
