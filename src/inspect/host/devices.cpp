#include "inspect/host/devices.h"

#include <cstdlib>
#include <sys/sysmacros.h>

#include "utils/listing.h"
#include "utils/regular_file.h"
#include "utils/text.h"

namespace valta::inspect {
namespace {

constexpr unsigned kMiscMajor = 10;

unsigned number_in(const std::string& text) {
  return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
}

/// Takes the "MAJOR:MINOR" of a device's file `dev`.
void add_number(const std::string& path, Devices& devices) {
  std::string text;
  if (read_regular_file(path, text) && text.find(':') != std::string::npos) {
    devices.numbers.insert(makedev(number_in(text), number_in(text.substr(text.find(':') + 1))));
  }
}

}  // namespace

bool Devices::holds(dev_t number) const {
  return numbers.contains(number) || majors.contains(major(number));
}

Devices devices_of(const std::string& module) {
  Devices devices;
  for (const std::string& driver : paths_below("/sys/module/" + module + "/drivers")) {
    for (const std::string& device : paths_below(driver + "/")) {
      for (const std::string& path : paths_below(device + "/")) {
        if (path.ends_with("/dev")) {
          add_number(path, devices);
        }
      }
    }
  }
  const auto read_names = [&](const char* file, const auto& take) {
    std::string text;
    read_regular_file(file, text);
    for (const std::string& line : split(text, '\n')) {
      const auto digits = line.find_first_not_of(' ');
      const auto blank = line.find(' ', digits);
      if (blank != std::string::npos && line.find(module, blank) == blank + 1) {
        take(number_in(line));
      }
    }
  };
  read_names("/proc/devices", [&](unsigned number) { devices.majors.insert(number); });
  read_names("/proc/misc",
             [&](unsigned number) { devices.numbers.insert(makedev(kMiscMajor, number)); });
  return devices;
}

}  // namespace valta::inspect
