// Small text helpers shared by the tool-output parsers of this folder.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi::text {

bool isValidUtf8(std::string_view text);
// Pieces between runs of `separator`; empty pieces are dropped.
std::vector<std::string_view> splitDroppingEmpty(std::string_view text, char separator);
// Pieces between runs of blanks, tabs and line breaks.
std::vector<std::string_view> splitAtWhiteSpace(std::string_view text);
// A whole piece read as a decimal integer with an optional leading '+' or
// '-'; nullopt when it is empty, holds anything else, or overflows.
std::optional<int64_t> parseDecimal(std::string_view piece);
std::string replaceAll(std::string text, std::string_view from, std::string_view to);
// ASCII letters lowered; other bytes (UTF-8 included) kept as they are.
std::string asciiLowercase(std::string_view text);
std::string lastPathComponent(std::string_view path);

}  // namespace quorvi::text
