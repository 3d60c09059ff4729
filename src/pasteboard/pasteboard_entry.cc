#include "pasteboard/pasteboard_entry.h"

#include "common/language.h"

namespace quorvi {

const char* rawValue(PasteboardEntry::Category category) {
  switch (category) {
    case PasteboardEntry::Category::image: return "image";
    case PasteboardEntry::Category::video: return "video";
    case PasteboardEntry::Category::file: return "file";
    case PasteboardEntry::Category::text: return "text";
    case PasteboardEntry::Category::color: return "color";
  }
  return "text";
}

std::optional<PasteboardEntry::Category> categoryFromRawValue(const std::string& raw) {
  for (auto c : {PasteboardEntry::Category::image, PasteboardEntry::Category::video, PasteboardEntry::Category::file,
                 PasteboardEntry::Category::text, PasteboardEntry::Category::color}) {
    if (raw == rawValue(c)) return c;
  }
  return std::nullopt;
}

std::string description(PasteboardEntry::Category category) {
  switch (category) {
    case PasteboardEntry::Category::image: return "clipboard.previewMetaData.contentType.image";
    case PasteboardEntry::Category::video: return "clipboard.previewMetaData.contentType.video";
    case PasteboardEntry::Category::file: return "clipboard.previewMetaData.contentType.file";
    case PasteboardEntry::Category::text: return "clipboard.previewMetaData.contentType.text";
    case PasteboardEntry::Category::color: return Language::shared().localizedString("颜色");
  }
  return "";
}

namespace {

template <typename T>
void putOptional(Json& json, const char* key, const std::optional<T>& value) {
  if (value) json[key] = *value;
}

// Reads key into out. Missing keys leave out alone when optional; a present
// key of the wrong type is an error.
template <typename T>
bool take(const Json& json, const char* key, T& out, bool required) {
  auto it = json.find(key);
  if (it == json.end() || it->is_null()) return !required;
  try {
    out = it->get<T>();
    return true;
  } catch (const Json::exception&) {
    return false;
  }
}

template <typename T>
bool takeOptional(const Json& json, const char* key, std::optional<T>& out) {
  auto it = json.find(key);
  if (it == json.end() || it->is_null()) return true;
  T value;
  if (!take(json, key, value, true)) return false;
  out = std::move(value);
  return true;
}

}  // namespace

Json PasteboardEntry::toJson() const {
  Json json = Json::object();
  json["uuid"] = uuid;
  putOptional(json, "appBundleIdentifier", appBundleIdentifier);
  json["isPin"] = isPin;
  json["firstCopiedDate"] = firstCopiedAt;
  json["lastCopiedDate"] = lastCopiedAt;
  json["numberOfCopies"] = numberOfCopies;
  json["category"] = rawValue(category);
  putOptional(json, "dataHash", dataHash);
  putOptional(json, "title", title);
  putOptional(json, "text", text);
  putOptional(json, "fileURL", fileURL);
  putOptional(json, "size", size);
  json["isLargeText"] = isLargeText;
  json["isFromAppleRemoteClipboard"] = isFromAppleRemoteClipboard;
  json["didPasteByQuorvi"] = didPasteByQuorvi;
  json["isUnknownType"] = isUnknownType;
  putOptional(json, "group", group);
  putOptional(json, "groupURLs", groupURLs);
  putOptional(json, "snippetGroupUUID", snippetGroupUUID);
  putOptional(json, "queryKeyword", queryKeyword);
  putOptional(json, "ocrTextResult", ocrTextResult);
  if (imageSize) json["imageSize"] = Json::array({imageSize->width, imageSize->height});
  putOptional(json, "textCount", textCount);
  json["lastModifiedTimestamp"] = lastModifiedTimestamp;
  return json;
}

std::optional<PasteboardEntry> PasteboardEntry::fromJson(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  PasteboardEntry e;
  std::string category;
  bool ok = take(json, "uuid", e.uuid, true) && takeOptional(json, "appBundleIdentifier", e.appBundleIdentifier) &&
            take(json, "isPin", e.isPin, false) && take(json, "firstCopiedDate", e.firstCopiedAt, true) &&
            take(json, "lastCopiedDate", e.lastCopiedAt, true) && take(json, "numberOfCopies", e.numberOfCopies, false) &&
            take(json, "category", category, true) && takeOptional(json, "dataHash", e.dataHash) &&
            takeOptional(json, "title", e.title) && takeOptional(json, "text", e.text) &&
            takeOptional(json, "fileURL", e.fileURL) && takeOptional(json, "size", e.size) &&
            take(json, "isLargeText", e.isLargeText, false) &&
            take(json, "isFromAppleRemoteClipboard", e.isFromAppleRemoteClipboard, false) &&
            take(json, "didPasteByQuorvi", e.didPasteByQuorvi, false) &&
            take(json, "isUnknownType", e.isUnknownType, false) && takeOptional(json, "group", e.group) &&
            takeOptional(json, "groupURLs", e.groupURLs) && takeOptional(json, "snippetGroupUUID", e.snippetGroupUUID) &&
            takeOptional(json, "queryKeyword", e.queryKeyword) && takeOptional(json, "ocrTextResult", e.ocrTextResult) &&
            takeOptional(json, "textCount", e.textCount) &&
            take(json, "lastModifiedTimestamp", e.lastModifiedTimestamp, false);
  if (!ok) return std::nullopt;
  auto parsedCategory = categoryFromRawValue(category);
  if (!parsedCategory) return std::nullopt;
  e.category = *parsedCategory;
  if (auto it = json.find("imageSize"); it != json.end() && !it->is_null()) {
    if (!it->is_array() || it->size() != 2 || !(*it)[0].is_number() || !(*it)[1].is_number()) return std::nullopt;
    e.imageSize = ImageSize{(*it)[0].get<double>(), (*it)[1].get<double>()};
  }
  return e;
}

}  // namespace quorvi
