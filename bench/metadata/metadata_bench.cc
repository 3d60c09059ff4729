// Driver of the metadata benchmark (bench/metadata/run).
//
//   metadata_bench gen-docs DIR COUNT    text documents (Markdown and plain
//                                        text, English and some Chinese)
//   metadata_bench gen-pdfs DIR COUNT    one-page PDFs of the same text
//   metadata_bench extract DIR REPS      reads every document in process:
//                                        MB/s of documents and of text
//   metadata_bench bus ADDRESS REPS --scopes A,B --names Q... --contents Q...
//                                        --attributes DIR
//       through quorvifind over the bus: index the scopes, wait for the
//       content index, time #21 per name query, #22 per content query
//       (words found in text only), #11 (with name queries) and #25 per
//       file of DIR.
// Lines starting "@" are read by the run script.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "common/json.h"
#include "contentindex/document_maker.h"
#include "contentindex/text_extractor.h"
#include "service/bus_client.h"
#include "service/members.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// A deterministic vocabulary of pronounceable words.
std::vector<std::string> vocabulary() {
  const char* onsets[] = {"b", "c", "d", "f", "g", "h", "k", "l", "m", "n", "p", "r", "s", "t", "v", "tr", "st", "pl"};
  const char* vowels[] = {"a", "e", "i", "o", "u", "ai", "ou"};
  std::vector<std::string> words;
  std::mt19937 random(11);
  while (words.size() < 4000) {
    std::string w;
    int syllables = 2 + static_cast<int>(random() % 2);
    for (int s = 0; s < syllables; ++s) w += std::string(onsets[random() % 18]) + vowels[random() % 7];
    words.push_back(w);
  }
  return words;
}

std::string paragraph(std::mt19937& random, const std::vector<std::string>& words, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    // Zipf-like: small indexes are common.
    double u = std::uniform_real_distribution<double>(0, 1)(random);
    std::size_t index = static_cast<std::size_t>(std::pow(u, 3) * static_cast<double>(words.size()));
    text += words[std::min(index, words.size() - 1)];
    text += (i % 12 == 11) ? ".\n" : " ";
  }
  return text;
}

std::string documentText(int i, std::mt19937& random, const std::vector<std::string>& words) {
  std::string text = paragraph(random, words, 600 + static_cast<int>(random() % 600));
  if (i % 100 == 7) text += " zephyrine ";   // rare: 1 % of the documents
  if (i % 10 == 3) text += "\n我们的年度报告已经完成，预算和会议记录见附件。\n";
  return text;
}

int generate(const std::string& dir, int count, bool pdfs) {
  ::mkdir(dir.c_str(), 0755);
  auto words = vocabulary();
  std::mt19937 random(42);
  for (int i = 0; i < count; ++i) {
    std::string sub = dir + "/" + std::to_string(i / 500);
    ::mkdir(sub.c_str(), 0755);
    std::string text = documentText(i, random, words);
    std::string name = sub + "/doc" + std::to_string(i);
    if (pdfs) {
      std::vector<std::string> lines;
      std::string latin;
      for (char c : text) {
        if (c == '\n' || latin.size() > 90) {
          lines.push_back(latin);
          latin.clear();
        }
        if (static_cast<unsigned char>(c) < 0x80 && c != '\n') latin.push_back(c);
      }
      lines.push_back(latin);
      std::ofstream(name + ".pdf", std::ios::binary) << quorvi::testing::makePdf(lines);
    } else {
      std::ofstream(name + (i % 2 ? ".md" : ".txt"), std::ios::binary) << text;
    }
  }
  return 0;
}

std::vector<std::string> filesUnder(const std::string& dir) {
  std::vector<std::string> files, folders = {dir};
  while (!folders.empty()) {
    std::string current = folders.back();
    folders.pop_back();
    DIR* d = ::opendir(current.c_str());
    if (!d) continue;
    while (dirent* e = ::readdir(d)) {
      std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      (e->d_type == DT_DIR ? folders : files).push_back(current + "/" + name);
    }
    ::closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

int extract(const std::string& dir, int reps) {
  auto files = filesUnder(dir);
  std::vector<double> times;
  double sourceBytes = 0, textBytes = 0;
  for (int r = 0; r < reps; ++r) {
    sourceBytes = textBytes = 0;
    auto t0 = Clock::now();
    for (const auto& file : files) {
      struct stat info;
      ::stat(file.c_str(), &info);
      sourceBytes += static_cast<double>(info.st_size);
      std::size_t slash = file.rfind('/');
      auto text = quorvi::extractText(file, quorvi::documentKindOfName(file.substr(slash + 1)), {});
      if (text) textBytes += static_cast<double>(text->size());
    }
    times.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
  }
  double seconds = median(times);
  std::printf("extract %zu files: %.3f s, %.1f MB/s of documents, %.1f MB/s of text\n", files.size(), seconds,
              sourceBytes / 1e6 / seconds, textBytes / 1e6 / seconds);
  std::printf("@extract_seconds %.4f\n@extract_source_mbps %.3f\n@extract_text_mbps %.3f\n", seconds,
              sourceBytes / 1e6 / seconds, textBytes / 1e6 / seconds);
  return 0;
}

int overBus(int argc, char** argv) {
  std::string address = argv[2];
  int reps = std::atoi(argv[3]);
  std::vector<std::string> scopes, names, contents;
  std::string attributes;
  std::vector<std::string>* list = nullptr;
  for (int i = 4; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--scopes") list = &scopes;
    else if (arg == "--names") list = &names;
    else if (arg == "--contents") list = &contents;
    else if (arg == "--attributes" && i + 1 < argc) attributes = argv[++i];
    else if (list) list->push_back(arg);
  }
  std::string error;
  auto client = quorvi::BusClient::connect(address, &error);
  if (!client) {
    std::fprintf(stderr, "bus: %s\n", error.c_str());
    return 1;
  }
  auto call = [&](const char* member, const std::vector<std::string>& words) {
    const quorvi::MemberInfo* info = quorvi::findMember(member);
    quorvi::CallArguments arguments;
    quorvi::argumentsFromWords(info->inSignature, words, arguments, &error);
    return client->call(*info, arguments, std::chrono::seconds(120));
  };
  quorvi::Json scopeList = scopes;
  auto start = Clock::now();
  call("startIndexFilesWithSearchScopes:", {scopeList.dump()});
  for (;;) {
    auto r = call("getFileIndexResultDescriptionWithCompletion:", {});
    if (r.ok && r.values.size() == 2 && r.values[0].value) break;
    if (Clock::now() - start > std::chrono::minutes(10)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  double scan = std::chrono::duration<double>(Clock::now() - start).count();
  // The content index starts after the scan; wait until a pass completed.
  quorvi::Json content;
  for (;;) {
    auto r = call("getPerformanceSnapshotWithCompletion:", {});
    if (r.ok && r.values[0].value) {
      content = quorvi::Json::parse(*r.values[0].value)["contentIndex"];
      if (content["passes"].get<int64_t>() >= 1 && !content["isIndexing"].get<bool>()) break;
    }
    if (Clock::now() - start > std::chrono::minutes(60)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  double pass = std::chrono::duration<double>(Clock::now() - start).count() - scan;
  std::printf("service: scan %.2f s, content index pass %.2f s: %s\n", scan, pass, content.dump().c_str());
  std::printf("@content_pass %.3f\n@content_mbps %.3f\n", pass, content.value("megabytesPerSecond", 0.0));

  auto time = [&](const char* member, const std::vector<std::string>& words) {
    std::vector<double> times;
    std::size_t results = 0;
    for (int r = 0; r < std::max(reps * 3, 9); ++r) {
      auto t0 = Clock::now();
      auto reply = call(member, words);
      times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      if (reply.ok && reply.values[0].value) results = quorvi::Json::parse(*reply.values[0].value).size();
    }
    return std::make_pair(median(times), results);
  };
  for (const auto& q : names) {
    auto [ms, n] = time("querySpotlightByNameWithKeyword:searchScopes:maxcount:completion:", {q, scopeList.dump(), "100"});
    std::printf("name query (#21) '%s': median %.3f ms, %zu items\n@name_bus %s|%.4f\n", q.c_str(), ms, n, q.c_str(), ms);
  }
  if (!names.empty()) {
    auto [ms, n] = time("getRecentFilesWithSearchScopes:completionHandler:", {scopeList.dump()});
    std::printf("recent files (#11, every record's access time): median %.3f ms, %zu items\n@recent_bus %.4f\n", ms, n, ms);
  }
  for (const auto& q : contents) {
    auto [ms, n] = time("querySpotlightByNameAndContentsWithKeyword:searchScopes:maxcount:completion:",
                        {q, scopeList.dump(), "100"});
    std::printf("content query (#22) '%s': median %.3f ms, %zu items\n@content_bus %s|%.4f\n", q.c_str(), ms, n,
                q.c_str(), ms);
  }
  if (!attributes.empty()) {
    auto files = filesUnder(attributes);
    if (files.size() > 300) files.resize(300);
    std::vector<double> times;
    for (const auto& file : files) {
      auto t0 = Clock::now();
      call("getFileAttributesWithPath:completionHandler:", {file});
      times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    std::printf("attributes (#25) of %zu files: median %.3f ms per file\n@attributes_bus %.4f\n", files.size(),
                median(times), median(times));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string command = argc > 1 ? argv[1] : "";
  if (command == "gen-docs" && argc == 4) return generate(argv[2], std::atoi(argv[3]), false);
  if (command == "gen-pdfs" && argc == 4) return generate(argv[2], std::atoi(argv[3]), true);
  if (command == "extract" && argc == 4) return extract(argv[2], std::atoi(argv[3]));
  if (command == "bus" && argc >= 4) return overBus(argc, argv);
  std::fprintf(stderr, "usage: see the comment at the top of metadata_bench.cc\n");
  return 2;
}
