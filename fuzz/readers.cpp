// Feeds text to the readers of text from the host and checks what must hold of any text.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
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
  for (const char* const name : {"zephanor", "zvrfs"}) {
    CHECK(!is_loaded(module_status_in(text, name)) || text.find(name) != std::string::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  split_and_join(text);
  load_manifest(text);
  read_settings(text);
  look_modules_up(text);
  return 0;
}
