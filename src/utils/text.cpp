#include "utils/text.h"

#include <algorithm>

namespace valta {

bool has_nul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

std::optional<std::string_view> FieldReader::next() {
  if (rest_.empty()) {
    return std::nullopt;
  }
  const std::string_view field = rest_.substr(0, rest_.find(delimiter_));
  rest_.remove_prefix(std::min(field.size() + 1, rest_.size()));
  return field;
}

std::vector<std::string> split(std::string_view text, char delimiter) {
  std::vector<std::string> fields;
  FieldReader reader(text, delimiter);
  while (const auto field = reader.next()) {
    fields.emplace_back(*field);
  }
  return fields;
}

std::string join(const std::vector<std::string>& fields, std::string_view separator) {
  std::string text;
  for (const std::string& field : fields) {
    text += (&field == fields.data() ? "" : std::string(separator)) + field;
  }
  return text;
}

std::optional<std::string> value_after(std::string_view line, std::string_view key) {
  const std::size_t at = line.find(key);
  if (at == std::string_view::npos) {
    return std::nullopt;
  }
  std::string value(line.substr(at + key.size()));
  std::erase(value, '"');
  return value;
}

std::string last_component(std::string_view path) {
  while (path.ends_with('/')) {
    path.remove_suffix(1);
  }
  return std::string(path.substr(path.rfind('/') + 1));
}

std::string lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

}  // namespace valta
