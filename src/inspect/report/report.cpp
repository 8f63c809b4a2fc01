#include "inspect/report/report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace valta::inspect {
namespace {

// Each in the order of its enumeration.
constexpr std::array<const char*, 2> kCommands = {"before", "after"};
constexpr std::array<const char*, 9> kOutcomes = {
    "done", "clean", "kept", "shared", "busy", "failed", "nothing-done", "unfinished", "unknown"};
constexpr std::array<const char*, 3> kSeverities = {"blocks", "keeps", "note"};
constexpr std::array<const char*, 3> kStepKinds = {"look", "mend", "decide"};
constexpr std::array<const char*, 4> kFileKinds = {"file", "link", "directory", "other"};
constexpr std::array<const char*, 6> kKeptReasons = {"changed",      "toolkit",   "program",
                                                     "not-compared", "not-empty", "left"};
constexpr std::array<const char*, 7> kUnitStates = {"disabled", "stopped", "refused", "active",
                                                    "known",    "unknown", "untold"};
constexpr std::array<const char*, 2> kDkmsStates = {"registered", "sources"};

template <typename Names, typename Value>
const char* name_in(const Names& names, Value value) {
  return names.at(static_cast<std::size_t>(value));
}

}  // namespace

const char* name_of(Command command) { return name_in(kCommands, command); }
const char* name_of(Outcome outcome) { return name_in(kOutcomes, outcome); }
const char* name_of(Severity severity) { return name_in(kSeverities, severity); }
const char* name_of(StepKind kind) { return name_in(kStepKinds, kind); }
const char* name_of(FileKind kind) { return name_in(kFileKinds, kind); }
const char* name_of(KeptReason reason) { return name_in(kKeptReasons, reason); }
const char* name_of(UnitState state) { return name_in(kUnitStates, state); }
const char* name_of(DkmsState state) { return name_in(kDkmsStates, state); }

void Report::add(FindingId id, std::string text, std::string where, std::string next) {
  add(id, id.row().severity, std::move(text), std::move(where), std::move(next));
}

void Report::add(FindingId id, Severity severity, std::string text, std::string where,
                 std::string next) {
  const bool is_told = std::any_of(findings.begin(), findings.end(), [&](const Finding& finding) {
    return finding.id == id && finding.where == where && finding.text == text;
  });
  if (!is_told) {
    findings.push_back({id, severity, std::move(text), std::move(where), std::move(next)});
  }
}

bool has_finding(const Report& report, FindingId id) {
  return std::any_of(report.findings.begin(), report.findings.end(),
                     [id](const Finding& finding) { return finding.id == id; });
}

bool succeeds(Outcome outcome) { return outcome <= Outcome::shared; }

int exit_status(const Report& report) {
  if (report.outcome == Outcome::unknown) {
    return 3;
  }
  if (!succeeds(report.outcome)) {
    return 2;
  }
  const bool all_gone = report.outcome == Outcome::done || report.outcome == Outcome::clean;
  const bool all_well =
      report.command == Command::after ||
      std::all_of(report.findings.begin(), report.findings.end(),
                  [](const Finding& finding) { return finding.severity == Severity::note; });
  return all_gone && all_well ? 0 : 1;
}

}  // namespace valta::inspect
