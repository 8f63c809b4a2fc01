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

std::vector<unsigned> numbers_of(const std::string& name, const std::string& text) {
  std::vector<unsigned> numbers;
  for (const std::string& line : split(text, '\n')) {
    const auto digits = line.find_first_not_of(' ');
    const auto space = line.find(' ', digits);
    if (space != std::string::npos && line.compare(space + 1, name.size(), name) == 0) {
      numbers.push_back(number_in(line));
    }
  }
  return numbers;
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
  std::string text;
  if (read_regular_file("/proc/devices", text)) {
    const std::vector<unsigned> majors = numbers_of(module, text);
    devices.majors.insert(majors.begin(), majors.end());
  }
  if (read_regular_file("/proc/misc", text)) {
    for (const unsigned number : numbers_of(module, text)) {
      devices.numbers.insert(makedev(kMiscMajor, number));
    }
  }
  return devices;
}

}  // namespace valta::inspect
