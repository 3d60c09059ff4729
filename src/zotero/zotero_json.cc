// Direct JSON writing of the Zotero reply records; the bytes always equal
// encodeJson()'s for the same records.
#include <cstdint>
#include <string>

#include "zotero/zotero_index.h"

namespace quorvi {

namespace {

void appendString(Bytes& out, std::string_view text) { appendJsonString(out, text); }

void appendKey(Bytes& out, const char* key) { appendJsonKey(out, key); }

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
