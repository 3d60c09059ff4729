// The tokenizer of the content index's full-text table, registered on each
// database connection under the name "quorvi".
//
// It is SQLite's unicode61 tokenizer (case folded, diacritics removed:
// "Café" is found by "cafe") with one change: text in scripts written
// without spaces (Chinese, Japanese kana, Korean) is cut into single
// characters, each a token of its own. A word of such text is then found as
// the phrase of its characters, so "报告" is found inside "年度报告书" and a
// query by a part of a word works as users of those scripts expect.
#pragma once

#include <sqlite3.h>

namespace quorvi {

inline constexpr const char* kContentTokenizerName = "quorvi";

// Registers the tokenizer on the connection; SQLITE_OK or an error code.
int registerContentTokenizer(sqlite3* db);

// True for the code points the tokenizer cuts into single characters.
bool isUnspacedScript(char32_t codePoint);

}  // namespace quorvi
