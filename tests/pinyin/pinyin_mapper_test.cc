#include "pinyin/pinyin_mapper.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <utility>

#include "pinyin/han_readings.h"
#include "pinyin/polyphone_table.h"
#include "pinyin/utf8_text.h"
#include "pinyin_test_support.h"

namespace quorvi {
namespace {

using testing::contains;

// A mapper without tables: every character has one reading.
const PinyinMapper& mapperWithoutTable() {
  static PinyinMapper mapper("/nonexistent/PinyinDuoyinzi.json", "/nonexistent/PinyinWords.txt");
  return mapper;
}

TEST(PinyinMapperTest, FixedRowsAnswerWholeNamesOnly) {
  for (const PinyinMapper* mapper : {&std::as_const(PinyinMapper::shared()), &mapperWithoutTable()}) {
    PinyinForms weixin = mapper->map("微信");
    EXPECT_EQ(weixin.fullPinyins, std::vector<std::string>{"weixin"});
    EXPECT_EQ(weixin.initials, std::vector<std::string>{"wx"});
    PinyinForms work = mapper->map("企业微信");
    EXPECT_EQ(work.fullPinyins, std::vector<std::string>{"qiyeweixin"});
    EXPECT_EQ(work.initials, std::vector<std::string>{"qywx"});
  }
  // A longer name is mapped character by character.
  PinyinForms app = PinyinMapper::shared().map("微信.app");
  EXPECT_TRUE(contains(app.fullPinyins, "weixin.app"));
  EXPECT_TRUE(contains(app.initials, "wx"));
}

TEST(PinyinMapperTest, ChineseIsTheBasicBlockOnly) {
  EXPECT_TRUE(PinyinMapper::containsChinese("一"));
  EXPECT_TRUE(PinyinMapper::containsChinese("report 龥"));
  EXPECT_FALSE(PinyinMapper::containsChinese("report.pdf"));
  EXPECT_FALSE(PinyinMapper::containsChinese("龦"));          // U+9FA6, just past the end
  EXPECT_FALSE(PinyinMapper::containsChinese("〇㐀𠀀"));      // U+3007, extension A, extension B
  EXPECT_FALSE(PinyinMapper::containsChinese("カタカナ 한국어"));
  EXPECT_FALSE(PinyinMapper::containsChinese("\xe4\xb8"));   // 一 cut short
  EXPECT_TRUE(PinyinMapper::containsChinese("\xff\xe4\xe4\xb8\x80"));
  // Names without Chinese are not mapped at all.
  PinyinForms plain = PinyinMapper::shared().map("Report 2024.pdf");
  EXPECT_TRUE(plain.fullPinyins.empty());
  EXPECT_TRUE(plain.initials.empty());
}

TEST(PinyinMapperTest, PlainTextRunsAreSegmentsOfTheirOwn) {
  const auto& mapper = PinyinMapper::shared();
  EXPECT_EQ(mapper.map("报告2024").fullPinyins, std::vector<std::string>{"baogao2024"});
  EXPECT_EQ(mapper.map("2024报告").fullPinyins, std::vector<std::string>{"2024baogao"});
  PinyinForms middle = mapper.map("会议2024总结.docx");  // 会 is polyphonic
  ASSERT_GE(middle.fullPinyins.size(), 2u);
  for (const auto& full : middle.fullPinyins) {
    EXPECT_NE(full.find("yi2024zongjie.docx"), std::string::npos) << full;
  }
  EXPECT_TRUE(contains(middle.fullPinyins, "huiyi2024zongjie.docx"));
  EXPECT_TRUE(contains(middle.fullPinyins, "kuaiyi2024zongjie.docx"));
  EXPECT_TRUE(contains(middle.initials, "hy2024zj"));
}

TEST(PinyinMapperTest, InitialsKeepCapitalsAndCaselessLettersAndDigits) {
  const auto& mapper = PinyinMapper::shared();
  EXPECT_EQ(mapper.map("报告2024.pdf").initials, std::vector<std::string>{"bg2024"});
  EXPECT_EQ(mapper.map("报告Draft v2").initials, std::vector<std::string>{"bgd2"});
  EXPECT_EQ(mapper.map("报告ÄBC_ä").initials, std::vector<std::string>{"bgäbc"});
  EXPECT_EQ(mapper.map("第3章").initials, std::vector<std::string>{"d3z"});
  EXPECT_EQ(mapper.map("报告カタ한").initials, std::vector<std::string>{"bgカタ한"});
  EXPECT_EQ(mapper.map("报告 - (副本)!").initials, std::vector<std::string>{"bgfb"});
  // 兙 has no Latin reading: it stands for itself in both forms.
  PinyinForms unreadable = mapper.map("兙报告");
  EXPECT_EQ(unreadable.fullPinyins, std::vector<std::string>{"兙baogao"});
  EXPECT_EQ(unreadable.initials, std::vector<std::string>{"兙bg"});
}

TEST(PinyinMapperTest, PolyphonesGiveTheUsualReadings) {
  const auto& mapper = PinyinMapper::shared();
  PinyinForms bank = mapper.map("银行");
  EXPECT_TRUE(contains(bank.fullPinyins, "yinhang"));
  EXPECT_TRUE(contains(bank.fullPinyins, "yinxing"));
  EXPECT_TRUE(contains(bank.initials, "yh"));
  EXPECT_TRUE(contains(bank.initials, "yx"));
  PinyinForms city = mapper.map("重庆旅游攻略");
  EXPECT_TRUE(contains(mapper.map("重庆").fullPinyins, "chongqing"));
  EXPECT_TRUE(contains(city.fullPinyins, "chongqingluyougonglue"));
  EXPECT_TRUE(contains(city.initials, "cqlygl"));
  EXPECT_TRUE(contains(mapper.map("长城").fullPinyins, "changcheng"));
  EXPECT_TRUE(contains(mapper.map("音乐").fullPinyins, "yinyue"));
  EXPECT_TRUE(contains(mapper.map("地图").fullPinyins, "ditu"));
  // ü is u, as the transliteration gives it.
  EXPECT_EQ(mapper.map("绿").fullPinyins, std::vector<std::string>{"lu"});
  // Without the table every character has its one transliterated reading.
  EXPECT_EQ(mapperWithoutTable().map("银行").fullPinyins.size(), 1u);
  EXPECT_EQ(mapperWithoutTable().polyphoneCount(), 0u);
  EXPECT_FALSE(mapperWithoutTable().tableError().empty());
  EXPECT_EQ(mapperWithoutTable().wordCount(), 0u);
  EXPECT_FALSE(mapperWithoutTable().wordTableError().empty());
}

TEST(PinyinMapperTest, ProductStopsGrowingPastThreeStrings) {
  testing::TemporaryFolder folder;
  PinyinMapper mapper(folder.write("table.json", R"({"行":["xing","hang","heng"],"重":["zhong","chong"]})"),
                      folder.write("words.txt", ""));
  ASSERT_EQ(mapper.polyphoneCount(), 2u);
  // 3 strings is not more than three, so the second 行 still multiplies them.
  PinyinForms rows = mapper.map("行行行行");
  EXPECT_EQ(rows.fullPinyins.size(), 9u);
  for (const auto& full : rows.fullPinyins) EXPECT_TRUE(full.ends_with("xingxing")) << full;
  EXPECT_EQ(rows.fullPinyins.front(), "xingxingxingxing");
  // Hang and heng share their initial: initials come without duplicates.
  EXPECT_EQ(rows.initials, (std::vector<std::string>{"xxxx", "xhxx", "hxxx", "hhxx"}));
  // 2 then 4 strings; the third 重 adds only its first reading.
  PinyinForms heavy = mapper.map("重重重");
  EXPECT_EQ(heavy.fullPinyins,
            (std::vector<std::string>{"zhongzhongzhong", "zhongchongzhong", "chongzhongzhong", "chongchongzhong"}));
  EXPECT_EQ(heavy.initials, (std::vector<std::string>{"zzz", "zcz", "czz", "ccz"}));
  // A long name of polyphones stays small.
  std::string manyPolyphones;
  for (int i = 0; i < 200; ++i) manyPolyphones += i % 2 ? "行" : "重";
  EXPECT_EQ(mapper.map(manyPolyphones).fullPinyins.size(), 6u);
}

// The cases that a reading character by character gets wrong: the string the
// cut keeps first reads each word as it is typed, the other readings follow.
TEST(PinyinMapperTest, WordsGiveTheTypedReadingFirst) {
  const auto& mapper = PinyinMapper::shared();
  ASSERT_GT(mapper.wordCount(), 0u) << mapper.wordTableError();
  const std::pair<const char*, const char*> typed[] = {
      {"银行", "yinhang"}, {"还款", "huankuan"}, {"长沙", "changsha"}, {"行长", "hangzhang"},
      {"行业", "hangye"},  {"调研", "diaoyan"},  {"地图", "ditu"},     {"朝阳", "chaoyang"},
  };
  for (const auto& [name, reading] : typed) {
    PinyinForms forms = mapper.map(name);
    ASSERT_FALSE(forms.fullPinyins.empty()) << name;
    EXPECT_EQ(forms.fullPinyins.front(), reading) << name;
  }
  EXPECT_TRUE(contains(mapper.map("银行").fullPinyins, "yinxing"));
  // Past the cut only first readings are left: they must be the words' own.
  PinyinForms statement = mapper.map("中国工商银行长沙分行还款计划.pdf");
  EXPECT_EQ(statement.fullPinyins.front(), "zhongguogongshangyinhangchangshafenhanghuankuanjihua.pdf");
  EXPECT_EQ(statement.initials.front(), "zggsyhcsfhhkjh");
  EXPECT_LE(statement.fullPinyins.size(), 9u);
}

TEST(PinyinMapperTest, LongestWordFromTheLeftReadsFirst) {
  testing::TemporaryFolder folder;
  PinyinMapper mapper(folder.write("table.json", R"({"行":["xing","hang","heng"],"长":["zhang","chang"]})"),
                      folder.write("words.txt", "银行 yin hang\n行长 hang zhang\n长城 chang cheng\n"
                                                "行长城 xing chang cheng\n"));
  ASSERT_EQ(mapper.wordCount(), 4u) << mapper.wordTableError();
  // The word's reading first, then the character's other readings in order.
  EXPECT_EQ(mapper.map("银行").fullPinyins, (std::vector<std::string>{"yinhang", "yinxing", "yinheng"}));
  EXPECT_EQ(mapper.map("行长").fullPinyins.front(), "hangzhang");
  EXPECT_EQ(mapper.map("行长城").fullPinyins.front(), "xingchangcheng");  // longest
  EXPECT_EQ(mapper.map("银行长城").fullPinyins.front(), "yinhangchangcheng");
  EXPECT_EQ(mapper.map("银行长").fullPinyins.front(), "yinhangzhang");  // 行 belongs to 银行
  EXPECT_EQ(mapper.map("长行长").fullPinyins.front(), "zhanghangzhang");
  // Words lie within one run of Chinese characters.
  EXPECT_EQ(mapper.map("银 行").fullPinyins.front(), "yin xing");
  EXPECT_EQ(mapper.map("银\xff行").fullPinyins.front(), "yin\xffxing");
  EXPECT_EQ(mapper.map("报告银行2").fullPinyins.front(), "baogaoyinhang2");
  EXPECT_EQ(mapper.map("银\xe8\xa1").fullPinyins, std::vector<std::string>{"yin\xe8\xa1"});  // 行 cut short
  EXPECT_EQ(mapper.map("x行").fullPinyins.front(), "xxing");
}

TEST(PinyinMapperTest, WordsWorkWithoutThePolyphoneTable) {
  testing::TemporaryFolder folder;
  PinyinMapper mapper("/nonexistent/PinyinDuoyinzi.json", folder.write("words.txt", "银行 yin hang\n"));
  EXPECT_EQ(mapper.map("银行").fullPinyins, std::vector<std::string>{"yinhang"});
  EXPECT_EQ(mapper.map("银行").initials, std::vector<std::string>{"yh"});
  // A broken word table is not used at all.
  PinyinMapper broken(defaultPolyphoneTablePath(), folder.write("broken.txt", "银行 yin hang\n行长 hang\n"));
  EXPECT_EQ(broken.wordCount(), 0u);
  EXPECT_NE(broken.wordTableError().find("line 2"), std::string::npos) << broken.wordTableError();
  EXPECT_EQ(broken.map("银行").fullPinyins.front(), "yinxing");
}

TEST(PinyinMapperTest, CommonWordsAreReplacedBeforeReading) {
  const auto& mapper = PinyinMapper::shared();
  PinyinForms contract = mapper.map("劳动合同");
  EXPECT_EQ(contract.fullPinyins, std::vector<std::string>{"laodonghetong"});
  EXPECT_EQ(contract.initials, std::vector<std::string>{"ldht"});
  PinyinForms learning = mapper.map("强化学习笔记");
  EXPECT_EQ(learning.fullPinyins, std::vector<std::string>{"qianghuaxuexibiji"});
  EXPECT_EQ(learning.initials, std::vector<std::string>{"qhxxbj"});
  // 合 alone stays polyphonic; the word 合同 does not.
  EXPECT_GE(mapper.map("合").fullPinyins.size(), 2u);
  EXPECT_EQ(mapper.map("新合同合同").fullPinyins, std::vector<std::string>{"xinhetonghetong"});
}

TEST(PinyinMapperTest, InvalidUtf8IsPlainText) {
  const auto& mapper = PinyinMapper::shared();
  PinyinForms broken = mapper.map("报\xff告\xe4\xb8");
  EXPECT_EQ(broken.fullPinyins, std::vector<std::string>{"bao\xffgao\xe4\xb8"});
  EXPECT_EQ(broken.initials, std::vector<std::string>{"bg"});
  // Random bytes around Chinese characters never crash and keep every byte.
  std::mt19937 random(42);
  const std::string pieces[] = {"行", "报", "\xe4", "\xb8", "\x80", "\xff", "A", "劳动", "\xe5\x8a", "2"};
  for (int round = 0; round < 2000; ++round) {
    std::string name;
    for (int i = random() % 12; i >= 0; --i) name += pieces[random() % std::size(pieces)];
    PinyinForms forms = mapper.map(name);
    EXPECT_LE(forms.fullPinyins.size(), 9u);
    EXPECT_EQ(forms.fullPinyins.empty(), !PinyinMapper::containsChinese(name));
    for (const auto& full : forms.fullPinyins) {
      EXPECT_EQ(std::count(full.begin(), full.end(), '\xff'), std::count(name.begin(), name.end(), '\xff'));
    }
  }
}

TEST(PinyinMapperTest, KeywordFormIsTextThenFullPinyinsThenInitials) {
  EXPECT_EQ(keywordForm("ReadMe.TXT"), "readme.txt");
  EXPECT_EQ(keywordForm("微信"), "微信 weixin wx");
  EXPECT_EQ(keywordForm("报告Draft"), "报告draft baogaodraft bgd");
  EXPECT_EQ(keywordForm("ÄRGER \xff"), "ärger \xff");
  PinyinForms forms = PinyinMapper::shared().map("银行Report");
  std::string expected = "银行report";
  for (const auto& full : forms.fullPinyins) expected += " " + full;
  for (const auto& initials : forms.initials) expected += " " + initials;
  EXPECT_EQ(keywordForm("银行Report"), expected);
  EXPECT_NE(expected.find(" yinhangreport"), std::string::npos);
  EXPECT_NE(expected.find(" yhr"), std::string::npos);
}

TEST(HanReadingsTest, ReadsEachCharacterOnceCapitalised) {
  auto& readings = HanReadings::shared();
  EXPECT_EQ(readings.readingsOf(U'一'), std::vector<std::string>{"Yi"});
  EXPECT_EQ(readings.readingsOf(U'绿'), std::vector<std::string>{"Lu"});
  EXPECT_EQ(readings.readingsOf(U'兙'), std::vector<std::string>{"兙"});
  const std::size_t before = readings.transliteratedCount();
  readings.readingsOf(U'一');
  EXPECT_EQ(readings.transliteratedCount(), before);
  EXPECT_EQ(&readings.readingsOf(U'一'), &readings.readingsOf(U'一'));
  EXPECT_EQ(capitalizedReading("qian ke"), "Qianke");
  EXPECT_EQ(capitalizedReading("XING"), "Xing");
}

// Scan threads call the mapper at once while readings are still being filled
// in; every thread must see the answers one thread alone would get.
TEST(PinyinMapperTest, ConcurrentCallsAgree) {
  std::vector<std::string> names;
  for (char32_t c = 0x8100; c < 0x8400; c += 3) {  // characters no other test reads
    std::string name = "报告";
    appendUtf8(name, c);
    appendUtf8(name, c + 1);
    name += std::to_string(c) + "行";
    names.push_back(name);
  }
  constexpr int kThreads = 6;
  std::vector<std::vector<PinyinForms>> results(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t i = 0; i < names.size(); ++i) {
        const auto& name = names[(i + t * 37) % names.size()];
        results[t].push_back(PinyinMapper::shared().map(name));
        keywordForm(name);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      PinyinForms alone = PinyinMapper::shared().map(names[(i + t * 37) % names.size()]);
      EXPECT_EQ(results[t][i].fullPinyins, alone.fullPinyins);
      EXPECT_EQ(results[t][i].initials, alone.initials);
    }
  }
}

}  // namespace
}  // namespace quorvi
