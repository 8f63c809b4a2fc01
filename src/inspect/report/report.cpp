#include "inspect/report/report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "uninstall/install_root.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

constexpr int kSchema = 1;
constexpr std::size_t kWidth = 80;
constexpr std::size_t kShown = 5;  ///< findings of a kind, before "and 3 more"

/// In the order of `Outcome`.
constexpr std::array<const char*, 9> kOutcomeNames = {
    "done", "clean", "kept", "shared", "busy", "failed", "nothing-done", "unfinished", "unknown"};

const char* name_of(Severity severity) {
  switch (severity) {
    case Severity::blocks:
      return "blocks";
    case Severity::keeps:
      return "keeps";
    default:
      return "note";
  }
}

bool is_before(const Report& report) { return report.verb == std::string_view("before"); }

bool succeeds(Outcome outcome) { return outcome <= Outcome::shared; }

// The objects of the JSON, each in the order in which a reader wants its fields.
using Json = nlohmann::ordered_json;

Json states(const std::vector<State>& list, const char* what) {
  Json array = Json::array();
  for (const State& item : list) {
    array.push_back({{what, item.name}, {"state", item.state}});
  }
  return array;
}

std::vector<std::string> words_of(const std::vector<State>& list) {
  std::vector<std::string> words;
  words.reserve(list.size());
  for (const State& item : list) {
    words.push_back(item.name + " " + item.state);
  }
  return words;
}

std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
  return text;
}

/// Prints to standard output, for people.
class Page {
 public:
  explicit Page(bool verbose)
      : verbose_(verbose),
        bold_(isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr) {}

  [[nodiscard]] bool verbose() const { return verbose_; }

  void heading(const std::string& text) const {
    std::printf(bold_ ? "\033[1m%s\033[0m\n" : "%s\n", printable(text).c_str());
  }

  void section(const char* title) const {
    std::puts("");
    heading(title);
  }

  /// `text` in lines of 80 columns, `indent` blanks in front. A word that is longer has its own.
  void paragraph(const std::string& text, std::size_t indent) const {
    std::string line;
    for (const std::string& word : split(printable(text), ' ')) {
      if (!line.empty() && indent + line.size() + 1 + word.size() > kWidth) {
        std::printf("%*s%s\n", static_cast<int>(indent), "", line.c_str());
        line.clear();
      }
      line += (line.empty() ? "" : " ") + word;
    }
    std::printf("%*s%s\n", static_cast<int>(indent), "", line.c_str());
  }

  /// A command is one line, however long: it is there to be copied.
  static void command(const std::string& text) {
    std::printf("      %s\n", printable(text).c_str());
  }

  void list(const char* title, const std::vector<std::string>& lines) const {
    if (!verbose_ || lines.empty()) {
      return;
    }
    section(title);
    for (const std::string& line : lines) {
      std::printf("  %s\n", printable(line).c_str());
    }
  }

 private:
  bool verbose_;
  bool bold_;
};

std::string headline(const Report& report) {
  const bool before = is_before(report);
  const std::string run = before ? "a run now" : "the last run";
  const std::string status = report.status ? " with status " + std::to_string(*report.status) : "";
  const std::string ends = run + (before ? " would end" : " ended") + status;
  switch (report.outcome) {
    case Outcome::done:
      return ends + (report.kept.empty() ? ", with nothing left of the manifest"
                                         : ", with all gone that it can remove");
    case Outcome::clean:
      return ends + ", with nothing there to remove";
    case Outcome::kept:
      return ends + ", and changed files stay";
    case Outcome::shared:
      return ends + ", and shared files stay";
    case Outcome::busy:
      return ends + ", as a module is in use";
    case Outcome::failed:
      return ends + (report.status == 0 ? ", yet something stays that had to go" : "");
    case Outcome::nothing_done:
      return ends + ", having done nothing";
    case Outcome::unfinished:
      return run + (before ? " would not come to its end" : " did not come to its end");
    case Outcome::unknown:
      break;
  }
  if (before && report.status) {
    return ends + ", without a log of it";
  }
  return before ? "a run cannot be rehearsed here" : "what the last run did cannot be told";
}

void print_findings(const Page& page, const Report& report, Severity severity, const char* title) {
  const auto all = std::count_if(report.findings.begin(), report.findings.end(),
                                 [&](const Finding& f) { return f.severity == severity; });
  std::string_view last;
  std::size_t repeated = 0;
  bool titled = false;
  const auto close_group = [&] {
    if (repeated > kShown && !page.verbose()) {
      page.paragraph("... and " + std::to_string(repeated - kShown) + " more (--verbose)", 2);
    }
  };
  for (const Finding& finding : report.findings) {
    if (finding.severity != severity) {
      continue;
    }
    if (!std::exchange(titled, true)) {
      page.section((std::string(title) + ": " + std::to_string(all)).c_str());
    }
    if (finding.id != last) {
      close_group();
      last = finding.id;
      repeated = 0;
    }
    if (++repeated > kShown && !page.verbose()) {
      continue;
    }
    const bool says_where =
        finding.where.empty() || finding.text.find(finding.where) != std::string::npos;
    page.paragraph(finding.text + (says_where ? "" : " (" + finding.where + ")"), 2);
    if (!finding.command.empty()) {
      Page::command(finding.command);
    }
  }
  close_group();
}

/// The kinds of what is removed, and their words.
constexpr std::array<std::pair<const char*, const char*>, 4> kKinds = {
    {{"file", "file"}, {"link", "link"}, {"directory", "directory"}, {"other", "path"}}};

std::string totals(const Report& report) {
  const auto of_kind = [&](std::string_view kind) {
    return static_cast<std::size_t>(
        std::count_if(report.removed.begin(), report.removed.end(),
                      [&](const Removal& removal) { return removal.kind == kind; }));
  };
  std::string text;
  for (const auto& [kind, thing] : kKinds) {
    if (const auto count = of_kind(kind); count > 0) {
      text += (text.empty() ? "" : ", ") + counted(count, thing);
    }
  }
  const char* const would = is_before(report) ? "would be " : "";
  text = (text.empty() ? "Nothing " : text + " ") + would + "removed; " +
         counted(report.kept.size(), "path") + " of the manifest " +
         (is_before(report) ? "would stay" : "left");
  for (const std::string& module : report.unloaded) {
    text += (&module == report.unloaded.data() ? "; modules unloaded: " : ", ") + module;
  }
  return text + ".";
}

}  // namespace

std::string counted(std::size_t count, const std::string& thing) {
  const bool ends_in_y = thing.ends_with('y');
  const std::string many = ends_in_y ? thing.substr(0, thing.size() - 1) + "ies" : thing + "s";
  return std::to_string(count) + " " + (count == 1 ? thing : many);
}

const char* name_of(Outcome outcome) {
  const char* const name = kOutcomeNames[static_cast<std::size_t>(outcome)];
  return name;
}

void Report::add(const char* id, Severity severity, std::string text, std::string where,
                 std::string command) {
  findings.push_back({id, severity, std::move(text), std::move(where), std::move(command)});
}

int exit_status(const Report& report) {
  if (report.outcome == Outcome::unknown) {
    return 3;
  }
  if (!succeeds(report.outcome)) {
    return 2;
  }
  const bool all_gone = report.outcome == Outcome::done || report.outcome == Outcome::clean;
  if (!is_before(report)) {
    return all_gone ? 0 : 1;
  }
  const bool stays = std::any_of(report.findings.begin(), report.findings.end(),
                                 [](const auto& f) { return f.severity != Severity::note; });
  return all_gone && !stays ? 0 : 1;
}

void print_json(const Report& report) {
  Json removed = Json::array();
  for (const Removal& removal : report.removed) {
    removed.push_back({{"path", removal.path}, {"kind", removal.kind}});
  }
  Json kept = Json::array();
  for (const Kept& path : report.kept) {
    kept.push_back({{"path", path.path}, {"reason", path.reason}});
  }
  Json findings = Json::array();
  for (const Finding& finding : report.findings) {
    findings.push_back({{"id", finding.id},
                        {"severity", name_of(finding.severity)},
                        {"text", finding.text},
                        {"where", finding.where},
                        {"do", finding.command}});
  }
  const Json object = {
      {"schema", kSchema},
      {"verb", report.verb},
      {"version", kStackVersion},
      {"outcome", name_of(report.outcome)},
      {"reason", report.reason},
      {"status", report.status ? Json(*report.status) : Json(nullptr)},
      {"console", report.console},
      {"output", report.output},
      {"log", report.log},
      {"removed", removed},
      {"written", report.written},
      {"kept", kept},
      {"unloaded", report.unloaded},
      {"services", states(report.services, "unit")},
      {"dkms", states(report.dkms, "version")},
      {"findings", findings},
      {"seconds", report.seconds},
  };
  std::puts(object.dump(2, ' ', true, Json::error_handler_t::replace).c_str());
}

void print_text(const Report& report, bool verbose) {
  const Page page(verbose);
  page.heading(std::string(name_of(report.outcome)) + ": " + headline(report));
  if (!report.reason.empty()) {
    page.paragraph(report.reason, 2);
  }
  print_findings(page, report, Severity::blocks, "In the way of a good run");
  print_findings(page, report, Severity::keeps,
                 is_before(report) ? "What would stay" : "What stays");
  print_findings(page, report, Severity::note, "Good to know");
  if (succeeds(report.outcome) || report.outcome == Outcome::failed) {
    std::puts("");
    page.paragraph(totals(report), 0);
  }
  std::vector<std::string> removed;
  for (const Removal& removal : report.removed) {
    removed.push_back(removal.path);
  }
  std::vector<std::string> kept;
  for (const Kept& path : report.kept) {
    kept.push_back(path.path + " (" + path.reason + ")");
  }
  page.list("Removed", removed);
  page.list("Written", report.written);
  page.list("Kept", kept);
  page.list("Services", words_of(report.services));
  page.list("DKMS", words_of(report.dkms));
  page.list("Standard output", split(report.output, '\n'));
  page.list("Console", split(report.console, '\n'));
  page.list("Log", split(report.log, '\n'));
}

}  // namespace valta::inspect
