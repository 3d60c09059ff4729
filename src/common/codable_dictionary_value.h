// A value of a loosely typed dictionary sent as JSON: normally exactly one of
// its five fields is set; absent fields are left out of the JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/json.h"

namespace quorvi {

struct CodableDictionaryValue {
  std::optional<bool> boolValue;
  std::optional<int64_t> intValue;
  std::optional<double> doubleValue;
  std::optional<std::string> stringValue;
  std::optional<Bytes> dataValue;

  Json toJson() const;
  // nullopt when the document is not an object or a member has the wrong type.
  static std::optional<CodableDictionaryValue> fromJson(const Json& json);
  bool operator==(const CodableDictionaryValue&) const = default;
};

}  // namespace quorvi
