// The text of a recognised line and its JSON record.
#include "ocr/recognized_line.h"

#include <gtest/gtest.h>

namespace quorvi {
namespace {

TEST(RecognizedLineText, BlanksGoOnlyBetweenCjkCharacters) {
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("我 们 的 会 议"), "我们的会议");
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("明天  下午，三 点。"), "明天下午，三点。") << "full-width punctuation";
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("会议 Meeting 3 点"), "会议 Meeting 3 点") << "beside Latin and digits";
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("hello world"), "hello world");
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("  trimmed line\n"), "trimmed line");
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("カタ カナ"), "カタカナ");
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters(""), "");
  EXPECT_EQ(withoutBlanksBetweenCjkCharacters("\xFF bad \xFE"), "\xFF bad \xFE") << "invalid bytes pass through";
}

TEST(RecognizedLineJson, RecordPerLine) {
  std::vector<RecognizedLine> lines = {{"Hello", 0.96124, {10, 20, 30, 12}}, {"世界", 1.0, {0, 40, 24, 12}}};
  Json json = recognizedLinesJson(lines, -7);
  EXPECT_EQ(json.dump(),
            R"([{"identifier":-7,"isFlipped":true,"text":"Hello","frame":{"x":10,"y":20,"width":30,"height":12},)"
            R"("confidence":0.9612},{"identifier":-7,"isFlipped":true,"text":"世界",)"
            R"("frame":{"x":0,"y":40,"width":24,"height":12},"confidence":1.0}])");
  EXPECT_EQ(recognizedLinesJson({}, 1).dump(), "[]");
}

}  // namespace
}  // namespace quorvi
