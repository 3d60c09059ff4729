#include "common/quorvi_error.h"

#include "common/language.h"

namespace quorvi {

QuorviError QuorviError::urlInvalid(std::string text) {
  QuorviError error(Case::urlInvalid);
  error.text_ = std::move(text);
  return error;
}

QuorviError QuorviError::httpError(std::optional<std::string> underlyingDescription) {
  QuorviError error(Case::httpError);
  error.underlying_ = std::move(underlyingDescription);
  return error;
}

QuorviError QuorviError::httpURLRespondError(std::optional<std::string> underlyingDescription,
                                             std::optional<int64_t> statusCode) {
  QuorviError error(Case::httpURLRespondError);
  error.underlying_ = std::move(underlyingDescription);
  error.number_ = statusCode;
  return error;
}

QuorviError QuorviError::code(int64_t value) {
  QuorviError error(Case::code);
  error.number_ = value;
  return error;
}

QuorviError QuorviError::message(std::string text) {
  QuorviError error(Case::message);
  error.text_ = std::move(text);
  return error;
}

const char* QuorviError::caseName(Case c) {
  static const char* const names[kCaseCount] = {
      "urlInvalid", "httpError", "httpURLRespondError", "code", "message", "noNetwork",
      "httpResultDecodeError", "httpResultDecodeJSONError", "failedToParseJSONObject",
      "globalBearerNotFound", "quorviSignError", "qrcodeExpired", "apiNotFound", "accessKeyInvalid",
      "appleScriptError", "operationBusy", "requestBaiduTokenFailed", "requestOCRTokenFrequent",
      "unsupportedLanguage", "imageTooLarge", "imageFailedToEncode", "usageOverflow", "serviseInvalid",
      "networkError", "chatGPTFailedToEncodeHttpBody", "aichatMissingAPIKey", "aichatMissingCustomDomain",
      "aichatMissingQuorviDomain", "aichatMissingParameters", "aichatServiceProviderInvalid",
      "aichatChatRequestInvalid", "aichatGeminiProAvailableUsingQuorviProxyOnly", "noResult",
      "serviceInvalid", "requestInvalid", "unsupportedLangauge", "unsupportedFromLanguage",
      "unsupportedToLanguage", "cgImageNotFound", "textNotFound"};
  return names[static_cast<int>(c)];
}

const char* QuorviError::localizationKey(Case c) {
  switch (c) {
    case Case::urlInvalid:
    case Case::httpError:
    case Case::httpURLRespondError:
    case Case::code:
    case Case::message:
    case Case::aichatServiceProviderInvalid:
    case Case::aichatChatRequestInvalid:
      return nullptr;
    case Case::noNetwork: return "ERROR_NO_NETWORK";
    case Case::httpResultDecodeError: return "ERROR_HTTP_DECODE_ERROR";
    case Case::httpResultDecodeJSONError: return "ERROR_JSON_DECODE_ERROR";
    case Case::failedToParseJSONObject: return "ERROR_JSON_DECODE_ERROR";
    case Case::globalBearerNotFound: return "Bearer not found";
    case Case::quorviSignError: return "ERROR_SIGN_ERROR";
    case Case::qrcodeExpired: return "ERROR_QRCODE_EXPIRED";
    case Case::apiNotFound: return "ERROR_API_NOT_FOUNED";
    case Case::accessKeyInvalid: return "ERROR_ACCESS_KEY_INVALID";
    case Case::appleScriptError: return "Apple Script Error";
    case Case::operationBusy: return "ERROR_OPERATION_BUSY";
    case Case::requestBaiduTokenFailed: return "ERROR_CAN_NOT_GET_BAIDU_TRANSLATE_TOKEN";
    case Case::requestOCRTokenFrequent: return "ERROR_FREQUENTLY_GET_BAIDU_TRANSLATE_TOKEN";
    case Case::unsupportedLanguage: return "ERROR_TRANSLATE_LANGUAGE_NOT_SUPPORT";
    case Case::imageTooLarge: return "ERROR_OCR_IMAGE_TOO_LARGE";
    case Case::imageFailedToEncode: return "ERROR_TRANSLATE_USAGE_RUNSOUT";  // shares #22's key on purpose
    case Case::usageOverflow: return "ERROR_TRANSLATE_USAGE_RUNSOUT";
    case Case::serviseInvalid: return "ERROR_SERVICE_UNAVAILABLE";
    case Case::networkError: return "ERROR_NETWORK_ERROR";
    case Case::chatGPTFailedToEncodeHttpBody: return "ERROR_UNKNOW";
    case Case::aichatMissingAPIKey: return "AICHAT_ERROR_API_KEY_IS_MISSING";
    case Case::aichatMissingCustomDomain: return "AICHAT_ERROR_API_DOMAIN_IS_MISSING";
    case Case::aichatMissingQuorviDomain: return "ERROR_UNKNOW";
    case Case::aichatMissingParameters: return "ERROR_UNKNOW";
    case Case::aichatGeminiProAvailableUsingQuorviProxyOnly:
      return "AICHAT_ERROR_GEMINI_PRO_AVAILABLE_FOR_QUORVI_PROXY_ONLY";
    case Case::noResult: return "ERROR_NO_RESULT";
    case Case::serviceInvalid: return "ERROR_SERVICE_INVALID";
    case Case::requestInvalid: return "ERROR_REQUES_INVALID";
    case Case::unsupportedLangauge: return "ERROR_UNSUPPORTED_LANGUAGE";
    case Case::unsupportedFromLanguage: return "ERROR_UNSUPPORTED_FROM_LANGUAGE";
    case Case::unsupportedToLanguage: return "ERROR_UNSUPPORTED_TO_LANGUAGE";
    case Case::cgImageNotFound: return "ERROR_CGIMAGE_NOT_FOUND";
    case Case::textNotFound: return "ERROR_TEXT_NOT_FOUND";
  }
  return "ERROR_UNKNOW";
}

std::string QuorviError::description() const {
  auto localized = [](const char* key) { return Language::shared().localizedString(key); };
  switch (case_) {
    case Case::urlInvalid:
      return "URL Invalid: " + text_;
    case Case::httpError:
      return underlying_ ? *underlying_ : localized("ERROR_UNKNOW");
    case Case::httpURLRespondError: {
      // The underlying description is shown the way an optional value prints.
      std::string underlying = underlying_ ? "Optional(\"" + *underlying_ + "\")" : "nil";
      return "HttpURLRespondError: " + underlying + ", statusCode: " + std::to_string(number_.value_or(-100));
    }
    case Case::code:
      return "Error code: " + std::to_string(number_.value_or(0));
    case Case::message:
      return text_;
    case Case::aichatServiceProviderInvalid:
      return "Service Provider Invalid";
    case Case::aichatChatRequestInvalid:
      return "Chat Request Invalid";
    default:
      return localized(localizationKey(case_));
  }
}

}  // namespace quorvi
