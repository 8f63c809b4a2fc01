#include "inspect/dry_run/dry_run.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>

#include "inspect/dry_run/first_process.h"
#include "inspect/dry_run/namespaces.h"
#include "inspect/host/modules.h"
#include "utils/descriptor.h"
#include "utils/regular_file.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

/// A file outside the overlay for an output stream of the program.
class Stream {
 public:
  explicit Stream(const std::string& path)
      : path_(path), file_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
    if (!file_.is_open()) {
      fail_to("create " + path);
    }
  }

  [[nodiscard]] int descriptor() const { return file_.get(); }

  [[nodiscard]] std::uintmax_t size() const { return fs::file_size(path_); }

  [[nodiscard]] std::string text() const {
    std::string text;
    read_regular_file(path_, text);
    return text;
  }

 private:
  std::string path_;
  Descriptor file_;
};

std::string megabytes(std::uintmax_t bytes) { return std::to_string(bytes >> 20U) + " MB"; }

[[noreturn]] void refuse_memory(const Overlay& overlay, std::uintmax_t printed) {
  const Overlay::WrittenFile largest = overlay.largest_file();
  throw NotPossible("the run needs more memory than a dry run may use: " +
                    (printed > largest.size
                         ? "its output has " + megabytes(printed)
                         : "the file " + largest.path + " has " + megabytes(largest.size)));
}

void put_stubs_in(const std::string& directory) {
  const std::string copy = directory + "/valta-driver-inspect";
  fs::copy_file("/proc/self/exe", copy);
  for (const std::string& name : needed_stubs()) {
    fs::create_hard_link(copy, fs::path(directory) / name);
  }
  std::ofstream(directory + "/" + kModuleListFile) << loaded_modules();
}

}  // namespace

DryRun dry_run(const Overlay& overlay, const std::string& program, int timeout) {
  const std::string tools = overlay.root() + Overlay::kToolDirectory;
  put_stubs_in(tools);
  setenv("PATH", (std::string(Overlay::kToolDirectory) + ":" + std::getenv("PATH")).c_str(), 1);

  const Stream output(overlay.aside("output"));
  const Stream console(overlay.aside("console"));
  DryRun run;
  {
    const FirstProcess first(overlay, program, output.descriptor(), console.descriptor());
    run.status = first.wait(timeout, [&] { return overlay.is_full(); });
    if (!run.status) {
      run.hung_on = first.last_commands();
    }
  }
  if (overlay.is_full()) {
    refuse_memory(overlay, output.size() + console.size());
  }
  run.output = output.text();
  run.console = console.text();
  run.actions = read_actions(tools);
  read_regular_file(tools + "/" + kModuleListFile, run.modules);
  return run;
}

}  // namespace valta::inspect
