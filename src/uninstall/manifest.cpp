#include "uninstall/manifest.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include "log/log.h"
#include "utils/files.h"
#include "utils/text.h"

namespace valta {
namespace {

/// Each token also fills the fields after its own, for short lines.
ManifestEntry parse_line(std::string_view line) {
  ManifestEntry entry;
  FieldReader tokens(line, ' ');
  if (const auto token = tokens.next()) {
    entry.type = entry.path = entry.digest = *token;
  }
  if (const auto token = tokens.next()) {
    entry.path = entry.digest = *token;
  }
  if (const auto token = tokens.next()) {
    entry.digest = *token;
  }
  return entry;
}

bool write_lines(const std::vector<std::string>& lines, const std::string& path) {
  const std::string directory = std::filesystem::path(path).parent_path();
  if (!directory.empty() && !is_directory(directory)) {
    std::error_code ignored;  // shows up when the file is opened
    std::filesystem::create_directories(directory, ignored);
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  for (const auto& line : lines) {
    file << line << '\n';
  }
  file.close();
  return static_cast<bool>(file);
}

}  // namespace

std::vector<ManifestEntry> LoadUninstallManifests(const std::string& path) {
  if (!path_exists(path)) {
    zvlogger::log(LogLevel::Warning, "Uninstall manifests not found at location: '%s'.\n",
                  path.c_str());
    return {};
  }
  std::string text;
  read_file(path, text);
  return parse_manifest(text);
}

std::vector<ManifestEntry> parse_manifest(std::string_view text) {
  std::vector<ManifestEntry> entries;
  FieldReader lines(text, '\n');
  while (const auto line = lines.next()) {
    entries.push_back(parse_line(*line));
  }
  return entries;
}

bool WriteUninstallManifest(const std::vector<std::string>& lines, const std::string& path) {
  const bool written = !has_nul(path) && write_lines(lines, path);
  if (!written) {
    zvlogger::log(LogLevel::Error, "Unable to write the uninstall manifest '%s'.\n", path.c_str());
  }
  return written;
}

}  // namespace valta
