// PasteboardEntry: one item of the launcher's clipboard history, shared with
// the launcher as JSON. The JSON keys are fixed; note that the two dates are
// written "firstCopiedDate" / "lastCopiedDate" although the fields say "At".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/json.h"

namespace quorvi {

struct PasteboardEntry {
  enum class Category { image, video, file, text, color };

  struct ImageSize {
    double width = 0;
    double height = 0;
    bool operator==(const ImageSize&) const = default;
  };

  std::string uuid;
  bool isPin = false;
  double firstCopiedAt = 0;  // seconds since 2001-01-01
  double lastCopiedAt = 0;
  int64_t numberOfCopies = 1;
  double lastModifiedTimestamp = 0;  // seconds since 1970-01-01
  std::optional<std::string> appBundleIdentifier;
  std::optional<std::string> title;
  std::optional<std::string> text;
  std::optional<std::string> fileURL;
  std::optional<int64_t> size;
  std::optional<ImageSize> imageSize;
  Category category = Category::text;
  std::optional<std::string> dataHash;
  bool isLargeText = false;
  std::optional<int64_t> textCount;
  bool isFromAppleRemoteClipboard = false;
  bool didPasteByQuorvi = false;
  bool isUnknownType = false;
  std::optional<std::string> group;
  std::optional<std::vector<std::string>> groupURLs;
  std::optional<std::string> snippetGroupUUID;
  std::optional<std::string> ocrTextResult;
  std::optional<std::string> queryKeyword;

  Json toJson() const;
  // nullopt when a required key is missing or a value has the wrong type.
  static std::optional<PasteboardEntry> fromJson(const Json& json);
  bool operator==(const PasteboardEntry&) const = default;
};

// The category's name as it travels in JSON ("image", ...).
const char* rawValue(PasteboardEntry::Category category);
std::optional<PasteboardEntry::Category> categoryFromRawValue(const std::string& raw);
// The label of an entry's kind in previews: the first four are keys the
// launcher localises; color is localised here.
std::string description(PasteboardEntry::Category category);

}  // namespace quorvi
