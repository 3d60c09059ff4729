// Fixed tables of the Zotero index: the Chinese display names of Zotero's item
// types, the localisation keys of its fields, and the fields that hold an
// item's title. Built once, read from any thread.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorvi {

using StringTable = std::unordered_map<std::string, std::string>;

// Item type name ("journalArticle") → Chinese display name ("期刊文章").
const StringTable& zoteroLocalizedCategories();
// Field name ("abstractNote") → localisation key ("ZOTERO_FIELD_ABSTRACTNOTE"),
// for every field of current Zotero.
const StringTable& zoteroLocalizedFields();
// The names of those fields in the order of Zotero's schema (which numbers
// them from 1 in libraries created since Zotero 5.0.78).
const std::vector<std::string>& zoteroFieldNames();
// True for the fields that stand for an item's title in its type: "title",
// and "caseName", "nameOfAct", "subject" in cases, statutes and e-mails.
bool isZoteroTitleField(std::string_view fieldName);

}  // namespace quorvi
