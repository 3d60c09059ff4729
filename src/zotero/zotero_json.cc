// Direct JSON writing of the Zotero reply records. Strings that are plain
// (valid UTF-8, nothing to escape) are copied as they are; any other string is
// handed to the shared encoder, so the bytes always equal encodeJson()'s.
#include <cstdint>
#include <string>

#include "zotero/zotero_index.h"

namespace quorvi {

namespace {

// True when every sequence is well-formed UTF-8 (no overlong forms, no
// surrogates, nothing above U+10FFFF) and no byte needs a JSON escape.
bool isPlain(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      if (c < 0x20 || c == '"' || c == '\\') return false;
      ++p;
      continue;
    }
    int length;
    unsigned char low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (end - p < length) return false;
    if (p[1] < low || p[1] > high) return false;
    for (int i = 2; i < length; ++i)
      if (p[i] < 0x80 || p[i] > 0xBF) return false;
    p += length;
  }
  return true;
}

void appendString(Bytes& out, std::string_view text) {
  if (isPlain(text)) {
    out += '"';
    out += text;
    out += '"';
    return;
  }
  out += encodeJson(Json(std::string(text))).value_or("\"\"");
}

void appendKey(Bytes& out, const char* key) {
  out += '"';
  out += key;
  out += "\":";
}

void appendInteger(Bytes& out, int64_t value) { out += std::to_string(value); }

void appendAttachment(Bytes& out, const ZoteroItemAttachment& attachment) {
  out += '{';
  appendKey(out, "itemID");
  appendInteger(out, attachment.itemID);
  out += ',';
  appendKey(out, "contentType");
  appendString(out, attachment.contentType);
  out += ',';
  appendKey(out, "path");
  appendString(out, attachment.path);
  out += '}';
}

}  // namespace

void appendZoteroString(Bytes& out, std::string_view text) { appendString(out, text); }

void appendZoteroEntry(Bytes& out, const ZoteroEntry& entry) {
  out += '{';
  appendKey(out, "itemID");
  appendInteger(out, entry.itemID);
  out += ',';
  appendKey(out, "title");
  appendString(out, entry.title);
  out += ',';
  appendKey(out, "library");
  appendString(out, entry.library);
  out += ',';
  appendKey(out, "libraryID");
  appendInteger(out, entry.libraryID);
  out += ',';
  appendKey(out, "key");
  appendString(out, entry.key);
  out += ',';
  appendKey(out, "itemType");
  appendString(out, entry.itemType);
  out += ',';
  if (entry.collectionPath) {
    appendKey(out, "collectionPath");
    appendString(out, *entry.collectionPath);
    out += ',';
  }
  appendKey(out, "collectionOrderIndex");
  appendInteger(out, entry.collectionOrderIndex);
  out += ',';
  if (entry.attachment) {
    appendKey(out, "attachment");
    appendAttachment(out, *entry.attachment);
    out += ',';
  }
  appendKey(out, "searchKeyword");
  appendString(out, entry.searchKeyword);
  out += '}';
}

Bytes encodeZoteroGroups(const std::vector<ZoteroGroup>& groups) {
  size_t entryCount = 0;
  for (const auto& group : groups) entryCount += group.entries.size();
  Bytes out;
  out.reserve(64 + entryCount * 320);
  out += '[';
  for (size_t g = 0; g < groups.size(); ++g) {
    if (g) out += ',';
    out += '{';
    appendKey(out, "library");
    appendString(out, groups[g].library);
    out += ',';
    appendKey(out, "entries");
    out += '[';
    for (size_t e = 0; e < groups[g].entries.size(); ++e) {
      if (e) out += ',';
      appendZoteroEntry(out, groups[g].entries[e]);
    }
    out += "]}";
  }
  out += ']';
  return out;
}

Bytes encodeZoteroAttributes(const std::vector<ZoteroAttribute>& attributes) {
  Bytes out = "[";
  for (size_t i = 0; i < attributes.size(); ++i) {
    if (i) out += ',';
    out += '{';
    appendKey(out, "field");
    appendString(out, attributes[i].field);
    out += ',';
    appendKey(out, "fieldID");
    appendInteger(out, attributes[i].fieldID);
    out += ',';
    appendKey(out, "value");
    appendString(out, attributes[i].value);
    out += '}';
  }
  out += ']';
  return out;
}

}  // namespace quorvi
