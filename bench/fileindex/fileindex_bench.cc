// The file index benchmark driver: scans a tree with the real FileIndexer
// (in process) several times, measures resident memory per record, and times
// keyword searches in process and, when given a bus address, through
// quorvifind over the bus. Prints medians; lines starting "@" are for the
// run script.
//
//   fileindex_bench --tree DIR [--reps N] [--limit N] [--bus ADDRESS] QUERY...
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/dispatch.h"
#include "common/settings.h"
#include "fileindex/file_indexer.h"
#include "pinyin/pinyin_mapper.h"
#include "service/bus_client.h"
#include "service/members.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

long residentBytes() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

void onMain(const std::function<void()>& work) { quorvi::DispatchQueue::main().sync(work); }

}  // namespace

int main(int argc, char** argv) {
  std::string tree, busAddress;
  int reps = 5;
  int64_t limit = 100;
  std::vector<std::string> queries;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--tree" && i + 1 < argc) tree = argv[++i];
    else if (arg == "--reps" && i + 1 < argc) reps = std::atoi(argv[++i]);
    else if (arg == "--limit" && i + 1 < argc) limit = std::atoll(argv[++i]);
    else if (arg == "--bus" && i + 1 < argc) busAddress = argv[++i];
    else queries.push_back(arg);
  }
  if (tree.empty()) {
    std::fprintf(stderr, "usage: fileindex_bench --tree DIR [--reps N] [--limit N] [--bus ADDRESS] QUERY...\n");
    return 2;
  }
  std::thread mainQueue([] { quorvi::DispatchQueue::runMain(); });

  char scratch[] = "/tmp/quorvi-fileindex-bench-XXXXXX";
  if (!::mkdtemp(scratch)) return 1;
  quorvi::Settings settings(std::string(scratch) + "/settings.json");
  quorvi::FilterEnvironment environment{tree, std::string(scratch) + "/FileIndexIgnorePaths", &settings};
  // Warm what every scan shares (pinyin tables) before measuring memory.
  quorvi::PinyinMapper::shared().map("报告会议合同");
  malloc_trim(0);
  const long before = residentBytes();

  {
    quorvi::FileIndexer indexer(environment);
    std::vector<double> scanTimes;
    int64_t records = 0;
    double rssPerEntry = 0, indexPerEntry = 0;
    for (int r = 0; r < reps; ++r) {
      auto start = Clock::now();
      onMain([&] { indexer.startIndexing({tree}); });
      indexer.waitForPendingChanges();
      scanTimes.push_back(std::chrono::duration<double>(Clock::now() - start).count());
      if (r == 0) {
        records = indexer.state().indexResultDescription->countOfFiles;
        malloc_trim(0);
        rssPerEntry = double(residentBytes() - before) / double(std::max<int64_t>(records, 1));
        indexPerEntry = indexer.performanceSnapshot().bytesPerEntry;
      }
    }
    std::printf("scan (in process): median %.3f s over %d runs, %lld records\n", median(scanTimes), reps,
                static_cast<long long>(records));
    std::printf("memory: %.1f B resident per record (index structures %.1f B per record)\n", rssPerEntry,
                indexPerEntry);
    std::printf("@scan %.6f\n@records %lld\n@rss_per_entry %.1f\n@index_per_entry %.1f\n", median(scanTimes),
                static_cast<long long>(records), rssPerEntry, indexPerEntry);

    // #15 answers on the bus thread: how long a look-up of the oldest record
    // (the last one compared) and of a missing path take.
    auto all = indexer.fileRef().copy();
    if (!all.empty() && !all.back()->empty()) {
      std::string oldest = all.back()->path(all.back()->size() - 1);
      for (const std::string& path : {oldest, tree + "/missing/nothing.txt"}) {
        std::vector<double> times;
        bool found = false;
        for (int r = 0; r < std::max(reps, 3); ++r) {
          auto start = Clock::now();
          found = indexer.containsFile(path);
          times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        }
        std::printf("containsFile (%s): median %.3f ms\n", found ? "oldest record" : "missing path", median(times));
      }
    }

    for (const auto& query : queries) {
      std::vector<double> times;
      std::size_t hits = 0;
      for (int r = 0; r < std::max(reps * 4, 9); ++r) {
        auto start = Clock::now();
        auto found = indexer.searchFiles(query, limit);
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        hits = found.size();
      }
      std::printf("search (in process) '%s': median %.3f ms, %zu hits\n", query.c_str(), median(times), hits);
      std::printf("@search_inproc %s|%.4f\n", query.c_str(), median(times));
    }
    // The match loop alone (no post-check).
    for (const auto& query : queries) {
      std::vector<double> times;
      auto groups = quorvi::MatchLogic::parse(query);
      for (int r = 0; r < std::max(reps * 4, 9); ++r) {
        auto t0 = Clock::now();
        quorvi::runMatchLoop(all, groups, limit, nullptr);
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      }
      std::printf("match loop alone '%s': median %.3f ms\n", query.c_str(), median(times));
    }
  }

  if (!busAddress.empty()) {
    std::string error;
    auto client = quorvi::BusClient::connect(busAddress, &error);
    if (!client) {
      std::fprintf(stderr, "bus: %s\n", error.c_str());
    } else {
      auto call = [&](const char* member, const std::vector<std::string>& words) {
        const quorvi::MemberInfo* info = quorvi::findMember(member);
        quorvi::CallArguments arguments;
        quorvi::argumentsFromWords(info->inSignature, words, arguments, &error);
        return client->call(*info, arguments, std::chrono::seconds(120));
      };
      auto start = Clock::now();
      call("startIndexFilesWithSearchScopes:", {"[\"" + tree + "\"]"});
      for (;;) {
        auto r = call("getFileIndexResultDescriptionWithCompletion:", {});
        if (r.ok && r.values.size() == 2 && r.values[0].value) break;
        if (Clock::now() - start > std::chrono::minutes(5)) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      std::printf("scan (service, start to ready over the bus): %.3f s\n",
                  std::chrono::duration<double>(Clock::now() - start).count());
      for (const auto& query : queries) {
        std::vector<double> times;
        for (int r = 0; r < std::max(reps * 4, 9); ++r) {
          auto t0 = Clock::now();
          call("searchFilesWithQuery:maxcount:completion:", {query, std::to_string(limit)});
          times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        }
        std::printf("search (over the bus) '%s': median %.3f ms\n", query.c_str(), median(times));
        std::printf("@search_bus %s|%.4f\n", query.c_str(), median(times));
      }
    }
  }
  quorvi::DispatchQueue::stopMain();
  mainQueue.join();
  std::string cleanup = std::string("rm -rf ") + scratch;
  (void)std::system(cleanup.c_str());
  return 0;
}
