#include "common/quorvi_error.h"

#include <gtest/gtest.h>

#include "common/language.h"

namespace quorvi {
namespace {

using Case = QuorviError::Case;

TEST(QuorviErrorTest, DescriptionsBuiltFromValues) {
  EXPECT_EQ(QuorviError::httpURLRespondError(std::nullopt, std::nullopt).description(),
            "HttpURLRespondError: nil, statusCode: -100");
  EXPECT_EQ(QuorviError::httpURLRespondError("timed out", 504).description(),
            "HttpURLRespondError: Optional(\"timed out\"), statusCode: 504");
  EXPECT_EQ(QuorviError::code(404).description(), "Error code: 404");
  EXPECT_EQ(QuorviError::urlInvalid("x").description(), "URL Invalid: x");
  EXPECT_EQ(QuorviError::message("").description(), "");
  EXPECT_EQ(QuorviError::httpError("offline").description(), "offline");
  EXPECT_EQ(QuorviError::httpError(std::nullopt).description(),
            Language::shared().localizedString("ERROR_UNKNOW"));
  EXPECT_EQ(QuorviError(Case::aichatServiceProviderInvalid).description(), "Service Provider Invalid");
  EXPECT_EQ(QuorviError(Case::aichatChatRequestInvalid).description(), "Chat Request Invalid");
}

TEST(QuorviErrorTest, EveryCaseInOrderWithItsKey) {
  // Case order and keys are shared with the launcher, letter for letter.
  const std::vector<std::pair<const char*, const char*>> expected = {
      {"urlInvalid", nullptr}, {"httpError", nullptr}, {"httpURLRespondError", nullptr}, {"code", nullptr},
      {"message", nullptr}, {"noNetwork", "ERROR_NO_NETWORK"}, {"httpResultDecodeError", "ERROR_HTTP_DECODE_ERROR"},
      {"httpResultDecodeJSONError", "ERROR_JSON_DECODE_ERROR"}, {"failedToParseJSONObject", "ERROR_JSON_DECODE_ERROR"},
      {"globalBearerNotFound", "Bearer not found"}, {"quorviSignError", "ERROR_SIGN_ERROR"},
      {"qrcodeExpired", "ERROR_QRCODE_EXPIRED"}, {"apiNotFound", "ERROR_API_NOT_FOUNED"},
      {"accessKeyInvalid", "ERROR_ACCESS_KEY_INVALID"}, {"appleScriptError", "Apple Script Error"},
      {"operationBusy", "ERROR_OPERATION_BUSY"}, {"requestBaiduTokenFailed", "ERROR_CAN_NOT_GET_BAIDU_TRANSLATE_TOKEN"},
      {"requestOCRTokenFrequent", "ERROR_FREQUENTLY_GET_BAIDU_TRANSLATE_TOKEN"},
      {"unsupportedLanguage", "ERROR_TRANSLATE_LANGUAGE_NOT_SUPPORT"}, {"imageTooLarge", "ERROR_OCR_IMAGE_TOO_LARGE"},
      {"imageFailedToEncode", "ERROR_TRANSLATE_USAGE_RUNSOUT"}, {"usageOverflow", "ERROR_TRANSLATE_USAGE_RUNSOUT"},
      {"serviseInvalid", "ERROR_SERVICE_UNAVAILABLE"}, {"networkError", "ERROR_NETWORK_ERROR"},
      {"chatGPTFailedToEncodeHttpBody", "ERROR_UNKNOW"}, {"aichatMissingAPIKey", "AICHAT_ERROR_API_KEY_IS_MISSING"},
      {"aichatMissingCustomDomain", "AICHAT_ERROR_API_DOMAIN_IS_MISSING"}, {"aichatMissingQuorviDomain", "ERROR_UNKNOW"},
      {"aichatMissingParameters", "ERROR_UNKNOW"}, {"aichatServiceProviderInvalid", nullptr},
      {"aichatChatRequestInvalid", nullptr},
      {"aichatGeminiProAvailableUsingQuorviProxyOnly", "AICHAT_ERROR_GEMINI_PRO_AVAILABLE_FOR_QUORVI_PROXY_ONLY"},
      {"noResult", "ERROR_NO_RESULT"}, {"serviceInvalid", "ERROR_SERVICE_INVALID"},
      {"requestInvalid", "ERROR_REQUES_INVALID"}, {"unsupportedLangauge", "ERROR_UNSUPPORTED_LANGUAGE"},
      {"unsupportedFromLanguage", "ERROR_UNSUPPORTED_FROM_LANGUAGE"},
      {"unsupportedToLanguage", "ERROR_UNSUPPORTED_TO_LANGUAGE"}, {"cgImageNotFound", "ERROR_CGIMAGE_NOT_FOUND"},
      {"textNotFound", "ERROR_TEXT_NOT_FOUND"}};
  ASSERT_EQ(expected.size(), std::size_t(QuorviError::kCaseCount));
  for (int i = 0; i < QuorviError::kCaseCount; ++i) {
    auto c = static_cast<Case>(i);
    SCOPED_TRACE(expected[i].first);
    EXPECT_STREQ(QuorviError::caseName(c), expected[i].first);
    const char* key = QuorviError::localizationKey(c);
    if (expected[i].second) {
      ASSERT_NE(key, nullptr);
      EXPECT_STREQ(key, expected[i].second);
      EXPECT_EQ(QuorviError(c).description(), Language::shared().localizedString(key));
    } else {
      EXPECT_EQ(key, nullptr);
    }
  }
  EXPECT_EQ(QuorviError(Case::failedToParseJSONObject).description(),
            QuorviError(Case::httpResultDecodeJSONError).description());
  EXPECT_EQ(QuorviError(Case::imageFailedToEncode).description(), QuorviError(Case::usageOverflow).description());
}

}  // namespace
}  // namespace quorvi
