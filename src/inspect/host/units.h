#pragma once

#include <string>
#include <vector>

namespace valta::inspect {

/// `unit` with ".service" behind it if it names no kind of unit itself.
[[nodiscard]] std::string full_unit_name(const std::string& unit);

/// Whether `unit` is a template without an instance, as "a@".
[[nodiscard]] bool is_bare_template(const std::string& unit);

/// The files of `unit`, in the order of their precedence: in every directory that systemd reads,
/// those of generators too. For an instance without a file of its own those of its template. A link
/// that leads nowhere is none, as for systemd.
[[nodiscard]] std::vector<std::string> unit_files(const std::string& unit);

/// What the text of a unit file or of a drop-in makes of `refuses`, whether the unit refuses to be
/// stopped by hand.
[[nodiscard]] bool read_refusal(const std::string& text, bool refuses);

/// Whether `unit`, by its files, refuses to be stopped by hand.
[[nodiscard]] bool refuses_to_stop(const std::string& unit);

}  // namespace valta::inspect
