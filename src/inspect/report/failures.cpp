#include "inspect/report/failures.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "inspect/report/log_lines.h"
#include "inspect/report/run_messages.h"
#include "utils/text.h"

namespace valta::inspect {
using namespace messages;

namespace {

/// A message with the failed object between its two pieces.
struct FailureMessage {
  FailureKind kind;
  std::string_view before;
  std::string_view after;
};

/// The messages before that of a failed removal.
constexpr std::array<FailureMessage, 4> kEndOfRun = {{
    {FailureKind::removal, kUninstall, kNotRemoved},
    {FailureKind::unit, kServiceRemains, kServiceRemainsEnd},
    {FailureKind::dkms, kDkmsRemove, kDkmsRemoveEnd},
    {FailureKind::dkms_sources, kSourcesRemain, kSourcesRemainEnd},
}};

/// The failures that do not end the pass through the manifest.
constexpr std::array<FailureMessage, 4> kOnTheWay = {{
    {FailureKind::configuration, kConfigurationRemains, kConfigurationRemainsEnd},
    {FailureKind::removal, kRmdir, ""},
    {FailureKind::module, kNotUnloaded, "."},
    {FailureKind::depmod, kDepmodFailed, ":"},
}};

std::optional<Failure> match(const std::string& line, const FailureMessage& message) {
  if (auto object = text_between(line, message.before, message.after)) {
    return Failure{message.kind, *std::move(object), ""};
  }
  return std::nullopt;
}

/// The output of dkms, which is not logged.
std::string words_of_dkms(const std::string& output) {
  const auto start = output.find(kDkmsFailed);
  const auto end_of_line = start == std::string::npos ? start : output.find('\n', start);
  return end_of_line == std::string::npos ? "" : output.substr(end_of_line + 1);
}

/// The line that `words` begin with, of those that have any.
std::string first_words(const std::string& words) {
  for (const std::string& line : split(words, '\n')) {
    if (line.find_first_not_of(' ') != std::string::npos) {
      return line;
    }
  }
  return "";
}

/// The failure that ended the pass through the manifest, from the line `last` before its message.
Failure end_of_pass(const std::string& last, const std::string& output) {
  for (const std::string& line : split(output, '\n')) {
    if (auto type = text_between(line, kTypeOf, kUnknownType)) {
      return {FailureKind::entry_type, *std::move(type), ""};
    }
  }
  for (const FailureMessage& message : kEndOfRun) {
    if (auto failure = match(last, message)) {
      failure->words = failure->kind == FailureKind::dkms ? first_words(words_of_dkms(output)) : "";
      return *std::move(failure);
    }
  }
  // The path follows the words of the library.
  if (auto words = text_between(last, kError, " ["); words && last.ends_with(']')) {
    return {FailureKind::directory, *text_between(last, " [", "]"), *std::move(words)};
  }
  return {FailureKind::manifest, "", ""};
}

}  // namespace

std::string describe(const Failure& failure) {
  const std::string words = failure.words.empty() ? "" : ": " + failure.words;
  switch (failure.kind) {
    case FailureKind::removal:
    case FailureKind::configuration:
      return failure.object + " could not be deleted";
    case FailureKind::directory:
      return failure.object + " is not a directory" + words;
    case FailureKind::unit:
      return "systemd still knows the service " + failure.object;
    case FailureKind::dkms:
      return "dkms could not remove valta/" + failure.object + words;
    case FailureKind::dkms_sources:
      return "the DKMS sources of valta/" + failure.object + " could not be deleted";
    case FailureKind::entry_type:
      return "the manifest has an entry of the unknown type " + failure.object;
    case FailureKind::module:
      return "rmmod could not unload " + failure.object + words;
    case FailureKind::depmod:
      return "depmod failed" + words;
    case FailureKind::manifest:
      break;
  }
  return "an entry of the manifest stopped it";
}

std::vector<Failure> failures_of(const std::vector<std::string>& lines, const std::string& output) {
  std::vector<Failure> failures;
  for (std::size_t number = 0; number < lines.size(); ++number) {
    if (contains(lines[number], kRemovalFailed) && number > 0) {
      failures.insert(failures.begin(), end_of_pass(lines[number - 1], output));
    }
    for (const FailureMessage& message : kOnTheWay) {
      if (auto failure = match(lines[number], message)) {
        const bool says_more =
            failure->kind == FailureKind::module || failure->kind == FailureKind::depmod;
        failure->words = says_more && number + 1 < lines.size() ? lines[number + 1] : "";
        failures.push_back(*std::move(failure));
      }
    }
  }
  return failures;
}

}  // namespace valta::inspect
