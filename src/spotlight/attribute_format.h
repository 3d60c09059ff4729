// How attribute records write sizes and dates.
//
// Sizes: a byte count in decimal units (1 KB = 1000 bytes), file style:
// below 1000 "N bytes" ("N 字节"); then KB with no decimals, MB with one,
// GB and larger with two, trailing zeros dropped ("1 KB", "1.5 MB",
// "2.25 GB"); a value that rounds up to 1000 of a unit is written in the
// next one. Sizes below 2 bytes are not written at all (the field is left
// out), as the records say.
//
// Dates: "yyyy/MM/dd HH:mm" in the machine's time zone, or "--".
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "common/language.h"

namespace quorvi {

std::string formattedByteCount(int64_t bytes, SupportedLanguage language);
// nullopt for unknown sizes and sizes below 2 bytes.
std::optional<std::string> attributeSize(std::optional<int64_t> bytes, SupportedLanguage language);
std::string attributeDate(std::optional<double> secondsSince1970);

}  // namespace quorvi
