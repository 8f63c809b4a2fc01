#include "inspect/host/program.h"

#include <filesystem>

#include "utils/files.h"

namespace valta::inspect {
namespace fs = std::filesystem;
namespace {

constexpr const char* kName = "valta-driver-uninstaller";

}  // namespace

std::string program_beside() {
  std::error_code error;
  fs::path own = fs::read_symlink("/proc/self/exe", error);
  return error ? "" : own.replace_filename(kName).string();
}

std::string program_to_run(const Installation& installation) {
  for (const std::string& program : {program_beside(), installed_program(installation)}) {
    if (is_executable(program)) {
      return program;
    }
  }
  return kName;
}

}  // namespace valta::inspect
