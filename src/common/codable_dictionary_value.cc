#include "common/codable_dictionary_value.h"

namespace quorvi {

Json CodableDictionaryValue::toJson() const {
  Json json = Json::object();
  if (boolValue) json["boolValue"] = *boolValue;
  if (intValue) json["intValue"] = *intValue;
  if (doubleValue) json["doubleValue"] = *doubleValue;
  if (stringValue) json["stringValue"] = *stringValue;
  if (dataValue) json["dataValue"] = base64Encode(*dataValue);
  return json;
}

std::optional<CodableDictionaryValue> CodableDictionaryValue::fromJson(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  CodableDictionaryValue value;
  if (auto it = json.find("boolValue"); it != json.end()) {
    if (!it->is_boolean()) return std::nullopt;
    value.boolValue = it->get<bool>();
  }
  if (auto it = json.find("intValue"); it != json.end()) {
    if (!it->is_number_integer()) return std::nullopt;
    value.intValue = it->get<int64_t>();
  }
  if (auto it = json.find("doubleValue"); it != json.end()) {
    if (!it->is_number()) return std::nullopt;
    value.doubleValue = it->get<double>();
  }
  if (auto it = json.find("stringValue"); it != json.end()) {
    if (!it->is_string()) return std::nullopt;
    value.stringValue = it->get<std::string>();
  }
  if (auto it = json.find("dataValue"); it != json.end()) {
    if (!it->is_string()) return std::nullopt;
    auto bytes = base64Decode(it->get<std::string>());
    if (!bytes) return std::nullopt;
    value.dataValue = std::move(*bytes);
  }
  return value;
}

}  // namespace quorvi
