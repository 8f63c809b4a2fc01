// Feeds text to every reader of text from the host and checks what must hold of any text.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "installer/kernel_module.h"
#include "uninstall/dkms_config.h"
#include "uninstall/manifest.h"
#include "utils/host.h"
#include "utils/text.h"

namespace {

using namespace valta;

void check(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "Does not hold: %s\n", what);
    std::abort();
  }
}

#define CHECK(condition) check(condition, #condition)

std::size_t count_lines(std::string_view text) {
  const auto ends = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  return text.empty() || text.back() == '\n' ? ends : ends + 1;
}

bool is_within(std::string_view part, std::string_view whole) {
  return whole.find(part) != std::string_view::npos;
}

void split_and_join(const std::string& text) {
  for (const char delimiter : {':', '\n', ' '}) {
    std::string joined;
    for (const auto& field : split(text, delimiter)) {
      CHECK(field.find(delimiter) == std::string::npos);
      joined += field + delimiter;
    }
    if (!text.ends_with(delimiter) && !text.empty()) {
      joined.pop_back();
    }
    CHECK(joined == text);
  }
}

void load_manifest(const std::string& text) {
  const std::vector<ManifestEntry> entries = parse_manifest(text);
  CHECK(entries.size() == count_lines(text));
  FieldReader lines(text, '\n');
  for (const auto& entry : entries) {
    const std::string_view line = lines.next().value_or("");
    CHECK(line.starts_with(entry.type));
    for (const std::string& field : {entry.type, entry.path, entry.digest}) {
      CHECK(is_within(field, line) && field.find(' ') == std::string::npos);
    }
    // A complete line comes back as it was.
    if (const auto tokens = split(line, ' '); tokens.size() >= 3) {
      CHECK(entry.type == tokens[0] && entry.path == tokens[1] && entry.digest == tokens[2]);
    }
  }
}

/// A value comes from one line, from behind its key, without quotes.
void check_value(const std::string& value, const std::string& before, const std::string& text) {
  CHECK(value.find_first_of("\n\"") == std::string::npos);
  std::string unquoted = text;
  std::erase(unquoted, '"');
  CHECK(value == before || is_within("=" + value, unquoted));
}

void read_settings(const std::string& text) {
  const DkmsConfig defaults;
  DkmsConfig config;
  parse_framework_conf(text, config);
  check_value(config.dkms_tree, defaults.dkms_tree, text);
  check_value(config.source_tree, defaults.source_tree, text);
  check_value(config.install_tree, defaults.install_tree, text);
  OsRelease release{"before", "before"};
  parse_os_release(text, release);
  check_value(release.id, "before", text);
  check_value(release.version_id, "before", text);
  CHECK(is_within("ID=", text) || release.id + release.version_id == "beforebefore");
}

/// The module list, read without a regular expression.
ModuleStatus plain_module_status(const std::string& text, std::string_view name) {
  for (const std::string& line : split(text, '\n')) {
    std::string_view rest = line;
    const auto skip = [&rest](const char* characters) {
      const std::size_t count = std::min(rest.find_first_not_of(characters), rest.size());
      rest.remove_prefix(count);
      return count > 0;
    };
    if (!rest.starts_with(name)) {
      continue;
    }
    rest.remove_prefix(name.size());
    if (skip(" \t") && skip("0123456789") && skip(" \t") && !rest.empty() && rest[0] >= '0' &&
        rest[0] <= '9') {
      return rest[0] == '0' ? ModuleStatus::unreferenced : ModuleStatus::in_use;
    }
  }
  return ModuleStatus::not_loaded;
}

void look_modules_up(const std::string& text) {
  for (const char* const name : {"zephanor", "zvrfs"}) {
    CHECK(module_status_in(text, name) == plain_module_status(text, name));
  }
}

void find_container(const std::string& text) {
  CHECK(container_line(text).has_value() == is_within("docker", text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  split_and_join(text);
  load_manifest(text);
  read_settings(text);
  look_modules_up(text);
  find_container(text);
  return 0;
}
