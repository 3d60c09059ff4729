// Times the pinyin mapper on synthetic Chinese file names against what a
// mapper without a per-character cache would do: call ICU's Han-Latin;
// Latin-ASCII transform for every Chinese character of every name.
//
// Usage: pinyin_bench [--names N] [--repetitions R] [--threads T] [--skip-icu]
// Prints one line per measurement (median names per second over the
// repetitions) and ends with a summary line holding the speed-up ratio.
#include <unicode/translit.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "pinyin/pinyin_mapper.h"
#include "pinyin/polyphone_table.h"
#include "pinyin/word_table.h"
#include "pinyin/utf8_text.h"

namespace {

using quorvi::PinyinMapper;

// Words seen in Chinese document, photo and project names.
const char* const kWords[] = {
    "报告", "会议", "纪要", "合同", "项目", "计划", "总结", "照片", "银行", "重庆", "音乐", "长城",
    "工作", "学习", "笔记", "数据", "分析", "设计", "方案", "文档", "简历", "发票", "财务", "课程",
    "作业", "视频", "下载", "截图", "旅游", "地图", "年度", "季度", "预算", "演示", "培训", "资料",
    "说明书", "申请表", "通知", "流程", "产品", "需求", "测试", "部署", "服务器", "备份", "新建",
    "文件夹", "副本", "最终版", "修改", "草稿", "论文", "实验", "结果", "统计", "行业", "研究",
    "会计", "重要", "长期", "乐队", "强化", "劳动", "朝阳", "单位", "参考", "调整", "还款"};
const char* const kPlain[] = {"", "", "", "2024", "_v2", " (1)", "-final", "2023-05-12", "_", " "};
const char* const kExtensions[] = {".pdf", ".docx", ".xlsx", ".jpg", ".png", ".pptx", ".txt", ".md", ""};

std::vector<std::string> syntheticNames(std::size_t count) {
  std::mt19937 random(20241121);
  std::vector<std::string> names;
  names.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    std::string name;
    const int words = 1 + static_cast<int>(random() % 4);
    for (int w = 0; w < words; ++w) {
      name += kWords[random() % std::size(kWords)];
      name += kPlain[random() % std::size(kPlain)];
    }
    name += kExtensions[random() % std::size(kExtensions)];
    names.push_back(std::move(name));
  }
  return names;
}

// What a cacheless mapper does: one ICU call per Chinese character.
class IcuPerCharacter {
 public:
  IcuPerCharacter() {
    UErrorCode status = U_ZERO_ERROR;
    transliterator_.reset(icu::Transliterator::createInstance("Han-Latin; Latin-ASCII", UTRANS_FORWARD, status));
    if (U_FAILURE(status)) std::abort();
  }
  std::size_t map(const std::string& name) const {
    std::size_t bytes = 0;
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(name);
    for (int32_t i = 0; i < text.length();) {
      UChar32 c = text.char32At(i);
      i += U16_LENGTH(c);
      if (!quorvi::isChineseCodePoint(static_cast<char32_t>(c))) continue;
      icu::UnicodeString one(c);
      transliterator_->transliterate(one);
      bytes += static_cast<std::size_t>(one.length());
    }
    return bytes;
  }

 private:
  std::unique_ptr<icu::Transliterator> transliterator_;
};

double secondsFor(const std::function<void(std::size_t, std::size_t)>& body, std::size_t count, int threads) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] { body(count * t / threads, count * (t + 1) / threads); });
  }
  for (auto& worker : workers) worker.join();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::atomic<std::size_t> sink{0};

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 20000;
  int repetitions = 5;
  int threads = 1;
  bool skipIcu = false;  // for profiling our side alone
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--skip-icu") skipIcu = true;
  }
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string option = argv[i];
    if (option == "--names") count = std::strtoul(argv[i + 1], nullptr, 10);
    if (option == "--repetitions") repetitions = std::max(1, std::atoi(argv[i + 1]));
    if (option == "--threads") threads = std::max(1, std::atoi(argv[i + 1]));
  }
  const auto names = syntheticNames(count);

  // Reading the tables (what constructing a mapper costs): both, then each
  // alone, the best of three tries each.
  auto secondsToConstruct = [](const std::string& polyphones, const std::string& words) {
    double best = 1e9;
    for (int i = 0; i < 3; ++i) {
      const auto start = std::chrono::steady_clock::now();
      { PinyinMapper reader(polyphones, words); sink += reader.polyphoneCount() + reader.wordCount(); }
      best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    return best;
  };
  const std::string none = "/nonexistent";
  const double tableSeconds = secondsToConstruct(quorvi::defaultPolyphoneTablePath(), quorvi::defaultWordTablePath());
  const double polyphoneSeconds = secondsToConstruct(quorvi::defaultPolyphoneTablePath(), none);
  const double wordSeconds = secondsToConstruct(none, quorvi::defaultWordTablePath());

  // First use: the mapper reads its table, ICU builds its transform, and the
  // characters these names use are transliterated once.
  double firstUse = secondsFor([&](std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) sink += PinyinMapper::shared().map(names[i]).fullPinyins.size();
  }, count, 1);

  std::vector<double> ours, icu;
  IcuPerCharacter perCharacter;
  for (int r = 0; r < repetitions; ++r) {
    ours.push_back(secondsFor([&](std::size_t from, std::size_t to) {
      std::size_t local = 0;
      for (std::size_t i = from; i < to; ++i) local += PinyinMapper::shared().map(names[i]).fullPinyins.size();
      sink += local;
    }, count, threads));
    if (skipIcu) {
      icu.push_back(1.0);
      continue;
    }
    icu.push_back(secondsFor([&](std::size_t from, std::size_t to) {
      std::size_t local = 0;
      for (std::size_t i = from; i < to; ++i) local += perCharacter.map(names[i]);
      sink += local;
    }, count, threads));
  }
  const double oursRate = count / median(ours);
  const double icuRate = count / median(icu);
  std::printf("names: %zu synthetic Chinese file names, %d thread(s), median of %d runs\n", count, threads, repetitions);
  std::printf("tables read: %.1f ms (polyphone table alone %.1f ms, word table alone %.2f ms)\n", tableSeconds * 1e3,
              polyphoneSeconds * 1e3, wordSeconds * 1e3);
  std::printf("first use (table, ICU transform, cache fill): %.1f ms\n", firstUse * 1e3);
  std::printf("ours (PinyinMapper::map, full forms):  %10.0f names/s  (%.2f us/name)\n", oursRate, 1e6 / oursRate);
  std::printf("ICU per character (readings only):     %10.0f names/s  (%.2f us/name)\n", icuRate, 1e6 / icuRate);
  std::printf("pinyin, %d thread(s): ours %.0f names/s vs ICU per character %.0f names/s: %.1fx\n", threads,
              oursRate, icuRate, oursRate / icuRate);
  return sink.load() == 0 ? 1 : 0;
}
