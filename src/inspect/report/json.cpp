#include "inspect/report/json.h"

#include <nlohmann/json.hpp>

#include "uninstall/install_root.h"

namespace valta::inspect {
namespace {

constexpr int kSchema = 1;

// The objects have their fields in the order in which a reader wants them.
using Json = nlohmann::ordered_json;

Json object_of(const Removal& removal) {
  return {{"path", removal.path}, {"kind", name_of(removal.kind)}, {"listed", removal.is_listed}};
}

Json object_of(const Kept& kept) { return {{"path", kept.path}, {"reason", name_of(kept.reason)}}; }

Json object_of(const Service& service) {
  return {{"unit", service.unit}, {"state", name_of(service.state)}};
}

Json object_of(const DkmsVersion& version) {
  return {{"version", version.version}, {"state", name_of(version.state)}};
}

Json object_of(const Finding& finding) {
  return {{"id", finding.id.row().id},
          {"severity", name_of(finding.severity)},
          {"text", finding.text},
          {"where", finding.where},
          {"do", finding.next},
          {"kind", finding.next.empty() ? "" : name_of(finding.id.row().kind)}};
}

template <typename Item>
Json array_of(const std::vector<Item>& items) {
  Json array = Json::array();
  for (const Item& item : items) {
    array.push_back(object_of(item));
  }
  return array;
}

}  // namespace

std::string json_of(const Report& report) {
  const Json object = {
      {"schema", kSchema},
      {"verb", name_of(report.command)},
      {"version", kStackVersion},
      {"outcome", name_of(report.outcome)},
      {"reason", report.reason},
      {"status", report.status ? Json(*report.status) : Json(nullptr)},
      {"console", report.console},
      {"output", report.output},
      {"log", report.log},
      {"removed", array_of(report.removed)},
      {"written", report.written},
      {"kept", array_of(report.kept)},
      {"unloaded", report.unloaded},
      {"services", array_of(report.services)},
      {"dkms", array_of(report.dkms)},
      {"findings", array_of(report.findings)},
      {"seconds", report.seconds},
  };
  return object.dump(2, ' ', true, Json::error_handler_t::replace);
}

}  // namespace valta::inspect
