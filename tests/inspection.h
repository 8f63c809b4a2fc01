#pragma once

#include <gmock/gmock.h>
#include <map>
#include <set>
#include <string>

#include "throwaway_host.h"

namespace valta {

using Names = std::set<std::string>;
using Listing = std::map<std::string, std::string>;

/// The reason why valta-driver-inspect cannot be tested here; empty if it can.
inline std::string reason_not_to_inspect() {
  if (VALTA_EMULATED) {
    return "qemu-user makes no namespaces";
  }
  return machine_allows_mounts() ? "" : "this machine denies mounts";
}

/// A throwaway host on which valta-driver-inspect can be run.
class Inspect : public testing::Test {
 protected:
  /// With the machine's `tools` besides, words with spaces between them.
  explicit Inspect(const std::string& tools = "") : host(tools) { host.put_faulty_programs(); }

  void SetUp() override {
    if (const std::string reason = reason_not_to_inspect(); !reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }

  ThrowawayHost host;
};

/// The values that `objects` have for `field`.
inline Names all_of(const nlohmann::json& objects, const char* field) {
  Names names;
  for (const auto& object : objects) {
    names.insert(object[field].get<std::string>());
  }
  return names;
}

/// The lines of a listing that another one does not have.
inline Names only_in(const Listing& listing, const Listing& other) {
  Names lines;
  for (const auto& [path, attributes] : listing) {
    if (const auto found = other.find(path); found == other.end() || found->second != attributes) {
      lines.insert(path + " " + attributes);
    }
  }
  return lines;
}

}  // namespace valta
