#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "inspect/findings/looks.h"
#include "inspect/host/dkms.h"
#include "uninstall/dkms_config.h"
#include "uninstall/manifest.h"
#include "utils/shell.h"

namespace valta::inspect {
namespace fs = std::filesystem;

void look_at_trust(Report& report) {
  std::vector<fs::path> trusted = {kUninstallManifestPath, kFrameworkConf};
  for (const std::string& tree : dkms_trees()) {
    trusted.emplace_back(tree + "/valta");
  }
  std::vector<fs::path> seen;
  for (const fs::path& path : trusted) {
    for (fs::path part = path;; part = part.parent_path()) {
      struct stat status {};
      if (std::find(seen.begin(), seen.end(), part) == seen.end() &&
          stat(part.c_str(), &status) == 0 &&
          (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
        report.add(
            "trust",
            "Users other than root may write to " + part.string() +
                (S_ISDIR(status.st_mode) ? " and so replace a file that controls what root deletes."
                                         : ", which controls what root deletes."),
            part, shell_command("ls -ld %", {part.string()}));
      }
      seen.push_back(part);
      if (!part.has_relative_path()) {
        break;
      }
    }
  }
}

}  // namespace valta::inspect
