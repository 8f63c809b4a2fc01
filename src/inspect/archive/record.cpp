#include "inspect/archive/record.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>

#include "inspect/host/modules.h"
#include "utils/regular_file.h"
#include "utils/spawn.h"
#include "utils/text.h"

namespace valta::inspect {

std::vector<std::string> texts(const Record& record, const char* name) {
  const auto found = record.find(name);
  return found == record.end() ? std::vector<std::string>() : found->second;
}

std::string format_record(const Record& record) {
  std::string text;
  for (const auto& [name, fields] : record) {
    for (const std::string& field : fields) {
      text += name + ' ' + field + '\0';
    }
  }
  return text;
}

Record read_record(const std::string& file) {
  std::string text;
  if (!read_regular_file(file, text)) {
    throw ArchiveError("cannot read " + file + ": " + std::strerror(errno));
  }
  Record record;
  for (const std::string& field : split(text, '\0')) {
    const std::size_t blank = field.find(' ');
    record[field.substr(0, blank)].push_back(field.substr(blank + 1));
  }
  return record;
}

std::string state_of(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    return "";
  }
  std::ostringstream text;
  text << std::oct << status.st_mode << std::dec << ' ' << status.st_uid << ':' << status.st_gid
       << ' ' << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec;
  if (S_ISREG(status.st_mode)) {
    text << ' ' << status.st_size;
  } else if (S_ISLNK(status.st_mode)) {
    std::error_code ignored;
    text << ' ' << std::filesystem::read_symlink(path, ignored).string();
  }
  return text.str();
}

bool is_of_directory(const std::string& state) { return state.starts_with('4'); }

bool is_of_file(const std::string& state) {
  return state.starts_with("10") && state.find(' ') == std::strlen("100644");
}

std::string field_for(const std::string& path, const std::string& state) {
  return std::to_string(state.size()) + " " + state + " " + path;
}

std::map<std::string, std::string> saved_states(const Record& record) {
  std::map<std::string, std::string> states;
  for (const std::string& field : texts(record, kSaved)) {
    const std::size_t blank = field.find(' ');
    const std::size_t size = std::stoul(field.substr(0, blank));
    states[field.substr(blank + size + 2)] = field.substr(blank + 1, size);
  }
  return states;
}

std::string machine_id() {
  std::string id;
  read_regular_file("/etc/machine-id", id);
  return id.substr(0, id.find('\n'));
}

bool is_enabled(const std::string& unit) {
  std::string answer;
  return output_of({"systemctl", "is-enabled", unit}, "/dev/null", answer) &&
         answer.starts_with("enabled");
}

bool is_active(const std::string& unit) {
  return exit_status_of({"systemctl", "is-active", unit}, Printing::silent) == 0;
}

bool is_loaded(const std::string& module) {
  return find_module(parse_modules(loaded_modules()), module) != nullptr;
}

std::vector<std::string> dkms_status() {
  std::string versions;
  static_cast<void>(output_of({"dkms", "status"}, "/dev/null", versions));
  return split(versions, '\n');
}

}  // namespace valta::inspect
