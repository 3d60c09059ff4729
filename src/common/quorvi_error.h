// QuorviError: the one error enumeration of the system, shared with the
// launcher (so it also carries cases the service never raises). No error object
// crosses the bus: a failed operation answers nil, and where its reply has a
// text beside the data, that text is description() of one of these.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quorvi {

class QuorviError {
 public:
  enum class Case {
    urlInvalid,
    httpError,
    httpURLRespondError,
    code,
    message,
    noNetwork,
    httpResultDecodeError,
    httpResultDecodeJSONError,
    failedToParseJSONObject,
    globalBearerNotFound,
    quorviSignError,
    qrcodeExpired,
    apiNotFound,
    accessKeyInvalid,
    appleScriptError,
    operationBusy,
    requestBaiduTokenFailed,
    requestOCRTokenFrequent,
    unsupportedLanguage,
    imageTooLarge,
    imageFailedToEncode,
    usageOverflow,
    serviseInvalid,
    networkError,
    chatGPTFailedToEncodeHttpBody,
    aichatMissingAPIKey,
    aichatMissingCustomDomain,
    aichatMissingQuorviDomain,
    aichatMissingParameters,
    aichatServiceProviderInvalid,
    aichatChatRequestInvalid,
    aichatGeminiProAvailableUsingQuorviProxyOnly,
    noResult,
    serviceInvalid,
    requestInvalid,
    unsupportedLangauge,
    unsupportedFromLanguage,
    unsupportedToLanguage,
    cgImageNotFound,
    textNotFound,
  };
  static constexpr int kCaseCount = 40;

  // Cases without associated values.
  explicit QuorviError(Case c) : case_(c) {}

  static QuorviError urlInvalid(std::string text);
  // underlyingDescription: the underlying error's localised description, if any.
  static QuorviError httpError(std::optional<std::string> underlyingDescription);
  static QuorviError httpURLRespondError(std::optional<std::string> underlyingDescription,
                                         std::optional<int64_t> statusCode);
  static QuorviError code(int64_t value);
  static QuorviError message(std::string text);

  Case errorCase() const { return case_; }
  // The message text, localised through Language::shared() where the case has a key.
  std::string description() const;
  // The case's name as written in the enumeration ("serviseInvalid").
  static const char* caseName(Case c);
  // The localisation key of a case without associated values, or nullptr when
  // its text is fixed or built from values.
  static const char* localizationKey(Case c);

 private:
  Case case_;
  std::string text_;
  std::optional<std::string> underlying_;
  std::optional<int64_t> number_;
};

}  // namespace quorvi
