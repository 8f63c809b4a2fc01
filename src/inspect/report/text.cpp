#include "inspect/report/text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "utils/shell.h"
#include "utils/text.h"
#include "utils/wording.h"

namespace valta::inspect {
namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kShown = 5;  ///< findings of a kind, before "and 3 more"

/// Prints to standard output, for people.
class Page {
 public:
  explicit Page(bool verbose)
      : verbose_(verbose),
        bold_(isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr) {}

  [[nodiscard]] bool verbose() const { return verbose_; }

  void heading(const std::string& text) const {
    std::printf(bold_ ? "\033[1m%s\033[0m\n" : "%s\n", escaped(text).c_str());
  }

  void section(const std::string& title) const {
    std::puts("");
    heading(title);
  }

  /// `text` in lines of 80 columns, indented by `indent` spaces. A longer word has a line of its
  /// own.
  void paragraph(const std::string& text, std::size_t indent) const {
    std::string line;
    for (const std::string& word : split(escaped(text), ' ')) {
      if (!line.empty() && indent + line.size() + 1 + word.size() > kWidth) {
        std::printf("%*s%s\n", static_cast<int>(indent), "", line.c_str());
        line.clear();
      }
      line += (line.empty() ? "" : " ") + word;
    }
    std::printf("%*s%s\n", static_cast<int>(indent), "", line.c_str());
  }

  /// A command is one line of any length, so that it can be copied.
  static void command(const std::string& text, StepKind kind) {
    std::printf("      %s  # %s\n", text.c_str(), name_of(kind));
  }

  void list(const char* title, const std::vector<std::string>& lines) const {
    if (!verbose_ || lines.empty()) {
      return;
    }
    section(title);
    for (const std::string& line : lines) {
      std::printf("  %s\n", escaped(line).c_str());
    }
  }

 private:
  bool verbose_;
  bool bold_;
};

/// What a successful run does, for "a run would ..." or "the run ...". Empty for other runs.
std::string effect_of(const Report& report) {
  const bool before = report.command == Command::before;
  const bool has_changed =
      std::any_of(report.kept.begin(), report.kept.end(),
                  [](const Kept& kept) { return kept.reason == KeptReason::changed; });
  const std::string keeps = before ? "keep " : "kept ";
  switch (report.outcome) {
    case Outcome::done:
      return std::string(before ? "remove " : "removed ") + (report.kept.empty()
                                                                 ? "all of the manifest"
                                                             : before ? "everything that it can"
                                                                      : "everything that it could");
    case Outcome::clean:
      return before ? "find nothing to remove" : "found nothing to remove";
    case Outcome::kept:
      return keeps + (has_changed ? "changed files" : "files that it cannot compare");
    case Outcome::shared:
      return keeps + "shared files";
    default:
      return "";
  }
}

std::string headline(const Report& report) {
  const bool before = report.command == Command::before;
  const std::string run = before ? "a run now" : "the last run";
  const std::string status = report.status ? " with status " + std::to_string(*report.status) : "";
  const std::string ends = run + (before ? " would end" : " ended") + status;
  if (const std::string effect = effect_of(report); !effect.empty()) {
    return before || report.status ? ends + " and " + effect : run + " " + effect;
  }
  switch (report.outcome) {
    case Outcome::busy:
      return ends + " because a module is in use";
    case Outcome::failed:
      return !report.status       ? run + " failed"
             : report.status != 0 ? ends
             : before             ? ends + ", but part of its work would fail"
                                  : ends + ", but part of its work failed";
    case Outcome::nothing_done:
      return ends + " without doing anything";
    case Outcome::unfinished:
      return run + (!before         ? " did not finish"
                    : report.status ? " would leave no complete log"
                                    : " would not finish");
    default:
      break;
  }
  if (before && report.status) {
    return ends + " without a log";
  }
  return before ? "a run cannot be predicted here" : "the result of the last run is unknown";
}

void print_finding(const Page& page, const Finding& finding) {
  const bool says_where =
      finding.where.empty() || finding.text.find(finding.where) != std::string::npos;
  page.paragraph(finding.text + (says_where ? "" : " (" + finding.where + ")"), 2);
  if (!finding.next.empty()) {
    Page::command(finding.next, finding.id.row().kind);
  }
}

/// The findings of one severity; of many in a row with the same id the first few.
void print_findings(const Page& page, const Report& report, Severity severity,
                    const std::string& title) {
  std::vector<Finding> findings;
  std::copy_if(report.findings.begin(), report.findings.end(), std::back_inserter(findings),
               [&](const Finding& finding) { return finding.severity == severity; });
  if (findings.empty()) {
    return;
  }
  page.section(title + ": " + counted(findings.size(), "finding"));
  for (auto group = findings.begin(); group != findings.end();) {
    const auto end = std::find_if(group, findings.end(),
                                  [&](const Finding& finding) { return finding.id != group->id; });
    const auto size = static_cast<std::size_t>(end - group);
    const std::size_t shown = page.verbose() ? size : std::min(size, kShown);
    for (std::size_t number = 0; number < shown; ++number, ++group) {
      print_finding(page, *group);
    }
    if (group != end) {
      page.paragraph("... and " + std::to_string(size - shown) + " more (--verbose)", 2);
    }
    group = end;
  }
}

/// The words for a number of removed objects, in the order of `FileKind`.
constexpr std::array<const char*, 4> kThings = {"file", "link", "directory", "path"};

std::string totals(const Report& report) {
  const bool before = report.command == Command::before;
  std::array<std::size_t, kThings.size()> counts{};
  std::size_t others = 0;
  for (const Removal& removal : report.removed) {
    ++(removal.is_listed ? counts.at(static_cast<std::size_t>(removal.kind)) : others);
  }
  std::vector<std::string> removed;
  for (std::size_t kind = 0; kind < counts.size(); ++kind) {
    if (counts.at(kind) > 0) {
      removed.push_back(counted(counts.at(kind), kThings.at(kind)));
    }
  }
  return (before ? "Would be removed: " : "Removed: ") +
         (removed.empty() ? "nothing" : join(removed, ", ")) + " of the manifest" +
         (others > 0 ? ", and " + counted(others, "path") + " that the manifest does not list"
                     : "") +
         (before ? ". Would be kept or left: " : ". Kept or left: ") +
         counted(report.kept.size(), "path") + " of the manifest." +
         (before ? "" : " The log does not list all removed paths.") +
         (report.unloaded.empty()
              ? ""
              : (before ? " Modules that would be unloaded: " : " Drivers unloaded: ") +
                    join(report.unloaded, ", ") + ".");
}

template <typename Items, typename Line>
std::vector<std::string> lines_of(const Items& items, const Line& line) {
  std::vector<std::string> lines;
  std::transform(items.begin(), items.end(), std::back_inserter(lines), line);
  return lines;
}

}  // namespace

void print_text(const Report& report, bool verbose) {
  const Page page(verbose);
  const bool before = report.command == Command::before;
  page.heading(std::string(name_of(report.outcome)) + ": " + headline(report));
  if (!report.reason.empty()) {
    page.paragraph(report.reason, 2);
  }
  print_findings(page, report, Severity::blocks, "Problems that block a run");
  print_findings(page, report, Severity::keeps, before ? "Would be kept or left" : "Kept or left");
  print_findings(page, report, Severity::note, "Notes");
  if ((succeeds(report.outcome) && report.outcome != Outcome::clean) ||
      report.outcome == Outcome::failed) {
    std::puts("");
    page.paragraph(totals(report), 0);
  }
  page.list("Removed", lines_of(report.removed, [](const Removal& item) { return item.path; }));
  page.list("Written", report.written);
  page.list("Kept", lines_of(report.kept, [](const Kept& item) {
              return item.path + " (" + name_of(item.reason) + ")";
            }));
  page.list("Services", lines_of(report.services, [](const Service& item) {
              return item.unit + " " + name_of(item.state);
            }));
  page.list("DKMS", lines_of(report.dkms, [](const DkmsVersion& item) {
              return item.version + " " + name_of(item.state);
            }));
  page.list("Standard output", split(report.output, '\n'));
  page.list("Standard error", split(report.console, '\n'));
  page.list("Log", split(report.log, '\n'));
}

}  // namespace valta::inspect
