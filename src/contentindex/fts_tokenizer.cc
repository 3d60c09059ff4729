#include "contentindex/fts_tokenizer.h"

#include <cstring>
#include <new>
#include <string_view>

#include "pinyin/utf8_text.h"

namespace quorvi {

namespace {

fts5_api* fts5ApiOf(sqlite3* db) {
  fts5_api* api = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, "SELECT fts5(?1)", -1, &statement, nullptr) == SQLITE_OK) {
    sqlite3_bind_pointer(statement, 1, static_cast<void*>(&api), "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
  }
  sqlite3_finalize(statement);
  return api;
}

// One instance: the unicode61 tokenizer it wraps.
struct Tokenizer {
  fts5_tokenizer inner{};
  Fts5Tokenizer* innerInstance = nullptr;
};

struct Splitter {
  void* context;
  int (*emit)(void*, int, const char*, int, int, int);
};

int splitToken(void* raw, int flags, const char* token, int length, int start, int end) {
  auto* splitter = static_cast<Splitter*>(raw);
  std::string_view text(token, static_cast<std::size_t>(length));
  bool any = false;
  for (std::size_t at = 0; at < text.size();) {
    Utf8Step step = decodeUtf8(text, at);
    if (step.valid && isUnspacedScript(step.codePoint)) {
      any = true;
      break;
    }
    at += step.length;
  }
  if (!any) return splitter->emit(splitter->context, flags, token, length, start, end);
  // Runs of other characters stay whole; each unspaced character is a token.
  std::size_t runStart = 0;
  for (std::size_t at = 0; at < text.size();) {
    Utf8Step step = decodeUtf8(text, at);
    if (step.valid && isUnspacedScript(step.codePoint)) {
      if (at > runStart) {
        int rc = splitter->emit(splitter->context, flags, token + runStart, static_cast<int>(at - runStart), start, end);
        if (rc != SQLITE_OK) return rc;
      }
      int rc = splitter->emit(splitter->context, flags, token + at, static_cast<int>(step.length), start, end);
      if (rc != SQLITE_OK) return rc;
      runStart = at + step.length;
    }
    at += step.length;
  }
  if (runStart < text.size()) {
    return splitter->emit(splitter->context, flags, token + runStart, static_cast<int>(text.size() - runStart), start,
                          end);
  }
  return SQLITE_OK;
}

int create(void* userData, const char** arguments, int count, Fts5Tokenizer** out) {
  auto* api = static_cast<fts5_api*>(userData);
  auto* tokenizer = new (std::nothrow) Tokenizer;
  if (!tokenizer) return SQLITE_NOMEM;
  void* innerData = nullptr;
  int rc = api->xFindTokenizer(api, "unicode61", &innerData, &tokenizer->inner);
  if (rc == SQLITE_OK) {
    // Arguments given to this tokenizer go to unicode61; by default
    // diacritics are removed from every letter (mode 2).
    const char* defaults[] = {"remove_diacritics", "2"};
    rc = tokenizer->inner.xCreate(innerData, count > 0 ? arguments : defaults, count > 0 ? count : 2,
                                  &tokenizer->innerInstance);
  }
  if (rc != SQLITE_OK) {
    delete tokenizer;
    return rc;
  }
  *out = reinterpret_cast<Fts5Tokenizer*>(tokenizer);
  return SQLITE_OK;
}

void destroy(Fts5Tokenizer* instance) {
  auto* tokenizer = reinterpret_cast<Tokenizer*>(instance);
  if (!tokenizer) return;
  if (tokenizer->innerInstance) tokenizer->inner.xDelete(tokenizer->innerInstance);
  delete tokenizer;
}

int tokenize(Fts5Tokenizer* instance, void* context, int flags, const char* text, int length,
             int (*emit)(void*, int, const char*, int, int, int)) {
  auto* tokenizer = reinterpret_cast<Tokenizer*>(instance);
  Splitter splitter{context, emit};
  return tokenizer->inner.xTokenize(tokenizer->innerInstance, &splitter, flags, text, length, splitToken);
}

}  // namespace

bool isUnspacedScript(char32_t c) {
  return (c >= 0x3040 && c <= 0x30FF) ||    // hiragana, katakana
         (c >= 0x3400 && c <= 0x4DBF) ||    // CJK extension A
         (c >= 0x4E00 && c <= 0x9FFF) ||    // CJK unified ideographs
         (c >= 0xAC00 && c <= 0xD7AF) ||    // Hangul syllables
         (c >= 0xF900 && c <= 0xFAFF) ||    // CJK compatibility ideographs
         (c >= 0x20000 && c <= 0x2FA1F);    // CJK extensions B and later
}

int registerContentTokenizer(sqlite3* db) {
  fts5_api* api = fts5ApiOf(db);
  if (!api) return SQLITE_ERROR;
  fts5_tokenizer methods{create, destroy, tokenize};
  return api->xCreateTokenizer(api, kContentTokenizerName, api, &methods, nullptr);
}

}  // namespace quorvi
