// JSON as the service's replies use it: keys in the order the record writes
// them, bytes as base64 text, dates as seconds since 2001-01-01 00:00:00 UTC.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace quorvi {

using Json = nlohmann::ordered_json;

// Raw bytes travel as std::string; nil is std::nullopt.
using Bytes = std::string;
using OptionalBytes = std::optional<Bytes>;

std::string base64Encode(std::string_view bytes);
// nullopt when the text is not base64.
std::optional<std::string> base64Decode(std::string_view text);

// Seconds between the Unix epoch and 2001-01-01 00:00:00 UTC.
inline constexpr double kReferenceDateOffset = 978307200.0;
inline double referenceDateFromUnix(double unixSeconds) { return unixSeconds - kReferenceDateOffset; }
inline double unixFromReferenceDate(double referenceSeconds) { return referenceSeconds + kReferenceDateOffset; }

// Serialises a document as the reply bytes. Invalid UTF-8 in strings is
// replaced by U+FFFD so that encoding never fails half way; nullopt only for
// documents that cannot be written at all.
OptionalBytes encodeJson(const Json& document);

// Pieces for writers that build large replies directly (no document in
// between). The bytes equal what encodeJson() writes for the same values.
void appendJsonString(Bytes& out, std::string_view text);
// "key": (the key must need no escaping)
void appendJsonKey(Bytes& out, const char* key);

}  // namespace quorvi
