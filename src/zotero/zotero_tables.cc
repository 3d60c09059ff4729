#include "zotero/zotero_tables.h"

#include <cctype>
#include <iterator>

namespace quorvi {

namespace {

// Zotero's zh-CN type names as they stood when "encyclopediaArticle" was
// "百科全书文章"; "dataset" and "standard" came later and carry today's names.
StringTable makeCategories() {
  return {
      {"annotation", "注释"},
      {"artwork", "艺术品"},
      {"attachment", "附件"},
      {"audioRecording", "音频"},
      {"bill", "法案"},
      {"blogPost", "博客帖子"},
      {"book", "书籍"},
      {"bookSection", "图书章节"},
      {"case", "司法案例"},
      {"computerProgram", "软件"},
      {"conferencePaper", "会议论文"},
      {"dataset", "数据集"},
      {"dictionaryEntry", "词条"},
      {"document", "文档"},
      {"email", "E-mail"},
      {"encyclopediaArticle", "百科全书文章"},
      {"film", "电影"},
      {"forumPost", "论坛帖子"},
      {"hearing", "听证会"},
      {"instantMessage", "即时讯息"},
      {"interview", "采访稿"},
      {"journalArticle", "期刊文章"},
      {"letter", "信件"},
      {"magazineArticle", "杂志文章"},
      {"manuscript", "手稿"},
      {"map", "地图"},
      {"newspaperArticle", "报纸文章"},
      {"note", "笔记"},
      {"patent", "专利"},
      {"podcast", "播客"},
      {"preprint", "预印本"},
      {"presentation", "演示文档"},
      {"radioBroadcast", "电台广播"},
      {"report", "报告"},
      {"standard", "标准"},
      {"statute", "法律"},
      {"thesis", "学位论文"},
      {"tvBroadcast", "电视广播"},
      {"videoRecording", "视频"},
      {"webpage", "网页"},
  };
}

// Every field of current Zotero's schema (123), in Zotero's own order.
const char* const kFieldNames[] = {
    "title", "abstractNote", "artworkMedium", "medium", "artworkSize", "date", "eventPlace",
    "DOI", "citationKey", "url", "accessDate", "archive", "archiveLocation", "shortTitle",
    "language", "libraryCatalog", "callNumber", "rights", "extra", "audioRecordingFormat",
    "seriesTitle", "volume", "numberOfVolumes", "label", "publisher", "place", "runningTime",
    "ISBN", "billNumber", "number", "code", "codeVolume", "section", "codePages", "pages",
    "legislativeBody", "authority", "session", "history", "blogTitle", "publicationTitle",
    "websiteType", "type", "ISSN", "series", "seriesNumber", "edition", "originalDate",
    "originalPublisher", "originalPlace", "format", "numPages", "bookTitle", "caseName",
    "court", "dateDecided", "docketNumber", "reporter", "reporterVolume", "firstPage",
    "versionNumber", "system", "company", "programmingLanguage", "proceedingsTitle",
    "conferenceName", "issue", "identifier", "repository", "repositoryLocation",
    "dictionaryTitle", "subject", "encyclopediaTitle", "distributor", "genre",
    "videoRecordingFormat", "forumTitle", "postType", "committee", "documentNumber",
    "interviewMedium", "partNumber", "partTitle", "seriesText", "journalAbbreviation", "PMID",
    "PMCID", "letterType", "manuscriptType", "institution", "mapType", "scale", "country",
    "assignee", "issuingAuthority", "patentNumber", "filingDate", "applicationNumber",
    "priorityNumbers", "issueDate", "priorityDate", "references", "legalStatus", "status",
    "episodeNumber", "audioFileType", "archiveID", "presentationType", "meetingName",
    "sessionTitle", "programTitle", "network", "reportNumber", "reportType", "organization",
    "nameOfAct", "codeNumber", "publicLawNumber", "dateEnacted", "thesisType", "university",
    "studio", "websiteTitle",
};

StringTable makeFields() {
  StringTable table;
  for (const char* name : kFieldNames) {
    std::string key = "ZOTERO_FIELD_";
    for (const char* c = name; *c; ++c) key += static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    table.emplace(name, std::move(key));
  }
  return table;
}

}  // namespace

const StringTable& zoteroLocalizedCategories() {
  static const StringTable* table = new StringTable(makeCategories());
  return *table;
}

const std::vector<std::string>& zoteroFieldNames() {
  static const auto* names = new std::vector<std::string>(std::begin(kFieldNames), std::end(kFieldNames));
  return *names;
}

const StringTable& zoteroLocalizedFields() {
  static const StringTable* table = new StringTable(makeFields());
  return *table;
}

bool isZoteroTitleField(std::string_view fieldName) {
  return fieldName == "title" || fieldName == "caseName" || fieldName == "nameOfAct" ||
         fieldName == "subject";
}

}  // namespace quorvi
