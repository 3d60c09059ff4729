// Driver of the Zotero benchmark.
//   zotero_bench generate ITEMS FOLDER   writes a synthetic library
//   zotero_bench index FOLDER WORKDIR     in this new process: an uncached index
//                                         request (cold: the first of the
//                                         process), another uncached one (warm),
//                                         then a cached one; prints on stderr
//                                         "cold_ms <ms> warm_ms <ms> cached_ms <ms> bytes <n>"
//   zotero_bench bus ADDRESS FOLDER       the same through quorvifind on that bus:
//                                         one uncached request, then one cached;
//                                         prints "bus_uncached_ms <ms> bus_cached_ms <ms>"
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <algorithm>
#include <vector>

#include "library_generator.h"
#include "service/bus_client.h"
#include "zotero/zotero_indexer.h"

namespace {

double millisecondsOf(const std::function<void()>& work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

int index(const std::string& folder, const std::string& work) {
  auto indexer = quorvi::ZoteroIndexer::make({work, 1800.0, nullptr});
  quorvi::ZoteroIndexer::IndexAnswer cold, fresh, cached;
  double coldMs = millisecondsOf([&] { cold = indexer->index(folder, false); });
  double freshMs = millisecondsOf([&] { fresh = indexer->index(folder, false); });
  double cachedMs = millisecondsOf([&] { cached = indexer->index(folder, true); });
  if (!fresh.data || !cached.data || *fresh.data != *cached.data || cold.data != fresh.data) {
    std::fprintf(stderr, "zotero_bench: no answer: %s\n", fresh.failure.value_or("?").c_str());
    return 1;
  }
  std::fprintf(stderr, "cold_ms %.1f warm_ms %.1f cached_ms %.2f bytes %zu\n", coldMs, freshMs, cachedMs,
               fresh.data->size());
  return 0;
}

int overTheBus(const std::string& address, const std::string& folder) {
  std::string error;
  auto client = quorvi::BusClient::connect(address, &error);
  if (!client) {
    std::fprintf(stderr, "zotero_bench: bus: %s\n", error.c_str());
    return 1;
  }
  const quorvi::MemberInfo* member = quorvi::findMember("IndexZoteroAtUseCacheIfAvailableCompletion");
  bool answered = true;
  auto call = [&](bool useCache) {
    quorvi::CallArguments arguments;
    quorvi::argumentsFromWords(member->inSignature, {folder, useCache ? "true" : "false"}, arguments, &error);
    return millisecondsOf([&] {
      auto result = client->call(*member, arguments, std::chrono::seconds(120));
      answered = answered && result.ok && !result.values.empty() && result.values[0].value;
    });
  };
  double uncached = call(false);
  double cached = call(true);
  if (!answered) {
    std::fprintf(stderr, "zotero_bench: the service gave no index\n");
    return 1;
  }
  std::fprintf(stderr, "bus_uncached_ms %.1f bus_cached_ms %.2f\n", uncached, cached);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string command = argc > 1 ? argv[1] : "";
  if (command == "generate" && argc == 4)
    return quorvi::bench::generateZoteroLibrary(argv[3], std::strtoull(argv[2], nullptr, 10)) ? 0 : 1;
  if (command == "index" && argc == 4) return index(argv[2], argv[3]);
  if (command == "bus" && argc == 4) return overTheBus(argv[2], argv[3]);
  std::fprintf(stderr, "usage: zotero_bench generate ITEMS FOLDER | index FOLDER WORKDIR | bus ADDRESS FOLDER\n");
  return 2;
}
