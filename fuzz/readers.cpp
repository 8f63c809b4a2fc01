// Feeds text to the parsers of the host's files, and checks properties that every text must have.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/host/devices.h"
#include "inspect/host/modules.h"
#include "inspect/host/mounts.h"
#include "inspect/host/units.h"
#include "inspect/report/json.h"
#include "inspect/report/run_check.h"
#include "inspect/report/text.h"
#include "installer/kernel_module.h"
#include "uninstall/dkms_config.h"
#include "uninstall/manifest.h"
#include "utils/host.h"
#include "utils/shell.h"
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

/// The last token of a short line fills the fields that it lacks.
void load_manifest(const std::string& text) {
  const std::vector<ManifestEntry> entries = parse_manifest(text);
  const std::vector<std::string> lines = split(text, '\n');
  CHECK(entries.size() == lines.size());
  for (std::size_t i = 0; i < entries.size(); ++i) {
    std::vector<std::string> tokens = split(lines[i], ' ');
    tokens.resize(3, tokens.empty() ? "" : tokens.back());
    CHECK(entries[i].type == tokens[0]);
    CHECK(entries[i].path == tokens[1]);
    CHECK(entries[i].digest == tokens[2]);
  }
}

/// A value comes from one line and has no quotes.
void read_settings(const std::string& text) {
  DkmsConfig config;
  parse_framework_conf(text, config);
  OsRelease release;
  parse_os_release(text, release);
  for (const std::string& value : {config.dkms_tree, config.source_tree, config.install_tree,
                                   release.id, release.version_id}) {
    CHECK(value.find_first_of("\n\"") == std::string::npos);
  }
}

void look_modules_up(const std::string& text) {
  for (const std::string name : {"zephanor", "zvrfs"}) {
    if (text.find(name) != std::string::npos) {  // making the expression takes milliseconds
      static_cast<void>(module_status_in(text, name));
    }
  }
}

/// A list that was written has as many modules as it was read from, and one less after each that is
/// unloaded.
void unload_modules(const std::string& text) {
  std::vector<inspect::Module> modules = inspect::parse_modules(text);
  CHECK(inspect::parse_modules(inspect::format_modules(modules)).size() == modules.size());
  for (const inspect::Module& module : inspect::parse_modules(text)) {
    const std::size_t before = modules.size();
    const bool unloaded = !inspect::unload_module(modules, module.name);
    CHECK(modules.size() == before - (unloaded ? 1 : 0));
  }
}

/// The search for a mount point ends even for a table that no kernel prints.
void read_mount_table(const std::string& text) {
  const std::vector<inspect::Mount> mounts = inspect::parse_mountinfo(text);
  const inspect::MountTree tree(mounts);
  for (const inspect::Mount& mount : mounts) {
    static_cast<void>(tree.showing(mount.point));
  }
}

void check_a_run(const std::string& text) {
  for (const int status : {0, 5, 43, 255}) {
    inspect::Report report;
    inspect::check_run({status, text, text, text, {}}, report);
    CHECK(inspect::exit_status(report) <= 3);
  }
}

/// No line has more than one number, and only a setting changes another one.
void read_devices_and_units(const std::string& text) {
  CHECK(inspect::numbers_of("zephanor", text).size() <= split(text, '\n').size());
  CHECK(inspect::read_refusal(text, true) || text.find('=') != std::string::npos);
}

/// Whatever a host's names hold, a report of them can be printed.
void print_report(const std::string& text) {
  static std::FILE* const nowhere = std::freopen("/dev/null", "w", stdout);
  CHECK(nowhere != nullptr);
  inspect::Report report;
  inspect::check_run({0, text, text, text, {}}, report);
  report.reason = text;
  report.kept = {{text, inspect::KeptReason::changed}};
  report.add("file-changed", text, text, text);
  inspect::print_text(report, true);
  CHECK(!inspect::json_of(report).empty());
}

/// Printed text has no control characters, nor has a word for the shell.
void quote(const std::string& text) {
  const auto has_control = [](const std::string& shown) {
    return std::any_of(shown.begin(), shown.end(), [](unsigned char c) { return c < ' '; });
  };
  CHECK(!has_control(escaped(text)));
  CHECK(!has_control(shell_quoted(text).value_or("")));
  CHECK(container_line(text).value_or("").find('\n') == std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  split_and_join(text);
  load_manifest(text);
  read_settings(text);
  look_modules_up(text);
  unload_modules(text);
  read_mount_table(text);
  check_a_run(text);
  read_devices_and_units(text);
  print_report(text);
  quote(text);
  return 0;
}
