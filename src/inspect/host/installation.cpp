#include "inspect/host/installation.h"

#include "inspect/host/dkms.h"
#include "uninstall/install_root.h"
#include "uninstall/manifest_handlers.h"
#include "uninstall/shared_path.h"
#include "utils/files.h"
#include "utils/host.h"
#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {

Installation read_installation() {
  Installation installation;
  installation.root = default_install_root();
  std::string text;
  read_regular_file(kUninstallManifestPath, text);
  installation.lines = split(text, '\n');
  installation.entries = parse_manifest(text);
  // Without a procfs, running_in_container prints an error on standard output.
  const bool in_container = path_exists("/proc/self/cgroup") && running_in_container();
  for (const ManifestEntry& entry : installation.entries) {
    const auto target = target_of(entry.type);
    if (target == EntryTarget::prefix) {
      installation.root = entry.path;
    } else if (target == EntryTarget::unit && !in_container) {
      installation.units.push_back(entry.path);
    }
  }
  if (!in_container) {
    installation.registrations = dkms_registrations();
  }
  return installation;
}

std::string installed_program(const Installation& installation) {
  return installation.root + "/" + kDriverMarker;
}

}  // namespace valta::inspect
