#pragma once

#include <string>
#include <vector>

namespace valta::inspect {

/// `unit`, with ".service" appended if it has no suffix of a unit type.
[[nodiscard]] std::string full_unit_name(const std::string& unit);

/// Whether `unit` is a template without an instance, such as "a@".
[[nodiscard]] bool is_bare_template(const std::string& unit);

/// The files of `unit`, in the order of their precedence: in every directory that systemd reads,
/// including those of generators. An instance without files of its own has those of its template. A
/// dangling link does not count, as in systemd.
[[nodiscard]] std::vector<std::string> unit_files(const std::string& unit);

/// What the text of a unit file or of a drop-in makes of `refuses`, whether the unit refuses to be
/// stopped by hand.
[[nodiscard]] bool read_refusal(const std::string& text, bool refuses);

/// The full names of the units that are active, in whatever control group.
[[nodiscard]] std::vector<std::string> active_units();

/// Whether `unit` is active and, by its files, refuses to be stopped by hand.
[[nodiscard]] bool refuses_to_stop(const std::string& unit);

}  // namespace valta::inspect
