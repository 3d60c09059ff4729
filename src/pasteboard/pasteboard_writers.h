// The two pasteboard writers the launcher's clipboard code uses. Each
// declares exactly one writable type and answers the property list of that
// type only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/json.h"

namespace quorvi {

// Marks a write that the clipboard history must ignore.
class IgnorablePasteboardWriting {
 public:
  static constexpr const char* kTypeName = "com.quorvi.ignore";
  explicit IgnorablePasteboardWriting(std::string string) : string(std::move(string)) {}
  std::vector<std::string> writableTypesForPasteboard() const { return {kTypeName}; }
  std::optional<std::string> pasteboardPropertyListForType(const std::string& type) const {
    if (type == kTypeName) return string;
    return std::nullopt;
  }
  std::string string;
};

// Carries the parts of a text snippet.
class SnippetTextPartionPasteboardWriting {
 public:
  static constexpr const char* kTypeName = "com.quorvi.snippet.textPartions";
  explicit SnippetTextPartionPasteboardWriting(Bytes data) : data(std::move(data)) {}
  std::vector<std::string> writableTypesForPasteboard() const { return {kTypeName}; }
  std::optional<Bytes> pasteboardPropertyListForType(const std::string& type) const {
    if (type == kTypeName) return data;
    return std::nullopt;
  }
  Bytes data;
};

}  // namespace quorvi
