// The minimum of an uninstaller: for each FILE line of the manifest, starts the command line that
// digests the file, reads its output, and removes the file.

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

int main() {
  std::ifstream manifest("/var/log/zephanorvalta/uninstall/.driver_uninstall_manifests");
  std::string type;
  std::string path;
  std::string digest;
  while (manifest >> type >> path >> digest) {
    std::FILE* const pipe = popen(("md5sum '" + path + "' 2>&1 2>&1").c_str(), "r");
    if (pipe == nullptr) {
      return 1;
    }
    std::array<char, 1024> output{};
    const std::size_t count = std::fread(output.data(), 1, output.size(), pipe);
    if (pclose(pipe) != 0 || std::string(output.data(), count).find(digest) != 0 ||
        std::remove(path.c_str()) != 0) {
      return 1;
    }
  }
  return 0;
}
