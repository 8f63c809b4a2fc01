#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace valta::inspect {

/// Says what cannot be saved or put back, and why.
class ArchiveError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The content of the file beside an archive: for each name, texts of any bytes except NUL.
using Record = std::map<std::string, std::vector<std::string>>;

inline constexpr const char* kActive = "active";    ///< units of the manifest
inline constexpr const char* kDkms = "dkms";        ///< lines of `dkms status`
inline constexpr const char* kEnabled = "enabled";  ///< units of the manifest
inline constexpr const char* kKernel = "kernel";    ///< whose modules a run removes
inline constexpr const char* kLoss = "loss";        ///< why something is not in the archive
inline constexpr const char* kMachine = "machine";  ///< the machine-id
inline constexpr const char* kMade = "made";        ///< a path that the run creates
inline constexpr const char* kModule = "module";    ///< of the stack, loaded
inline constexpr const char* kReport = "report";    ///< of the dry run, as JSON
inline constexpr const char* kSaved = "saved";      ///< a path in the archive, after its state
inline constexpr const char* kSum = "sum";          ///< the archive's, by sha256sum

/// The texts of `record` under `name`.
[[nodiscard]] std::vector<std::string> texts(const Record& record, const char* name);

/// `record` as a text. Each field is its name, a space, its text and a NUL byte.
[[nodiscard]] std::string format_record(const Record& record);

/// The record in `file`. Throws `ArchiveError` if it cannot be read.
[[nodiscard]] Record read_record(const std::string& file);

/// What is at `path` itself: its type and mode, owners, time of the last change in nanoseconds, and
/// the size of a file or the target of a link. Empty when nothing is there.
[[nodiscard]] std::string state_of(const std::string& path);

/// Whether this is the state of a directory, or of a regular file.
[[nodiscard]] bool is_of_directory(const std::string& state);
[[nodiscard]] bool is_of_file(const std::string& state);

/// The field `kSaved` for `path` in the state `state`, and those of `record` by their paths.
[[nodiscard]] std::string field_for(const std::string& path, const std::string& state);
[[nodiscard]] std::map<std::string, std::string> saved_states(const Record& record);

[[nodiscard]] std::string machine_id();
[[nodiscard]] bool is_enabled(const std::string& unit);
[[nodiscard]] bool is_active(const std::string& unit);
[[nodiscard]] bool is_loaded(const std::string& module);
[[nodiscard]] std::vector<std::string> dkms_status();

}  // namespace valta::inspect
