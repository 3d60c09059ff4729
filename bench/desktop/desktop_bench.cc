// The desktop search benchmark driver: against a quorvifind that already
// runs on the given bus, indexes the tree (and the installed applications),
// then times, interleaved and for the same words, the launcher's own file
// search (#12), GNOME Shell's GetInitialResultSet and KRunner's Match, each a
// full call over the bus. Prints p50 and p99 per word; lines starting "@"
// are for the run script.
//
//   desktop_bench --bus ADDRESS --tree DIR [--reps N] [--limit N] WORDS...
#include <systemd/sd-bus.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "desktop/desktop_bus_objects.h"
#include "service/bus_client.h"
#include "service/members.h"

namespace {

using Clock = std::chrono::steady_clock;

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  std::size_t at = std::min(values.size() - 1, std::size_t(p * double(values.size() - 1) + 0.5));
  return values[at];
}

double millisecondsSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::string address, tree;
  int reps = 200;
  int64_t limit = 100;
  std::vector<std::string> queries;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--bus" && i + 1 < argc) address = argv[++i];
    else if (arg == "--tree" && i + 1 < argc) tree = argv[++i];
    else if (arg == "--reps" && i + 1 < argc) reps = std::atoi(argv[++i]);
    else if (arg == "--limit" && i + 1 < argc) limit = std::atoll(argv[++i]);
    else queries.push_back(arg);
  }
  if (address.empty() || tree.empty()) {
    std::fprintf(stderr, "usage: desktop_bench --bus ADDRESS --tree DIR [--reps N] [--limit N] WORDS...\n");
    return 2;
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
    return client->call(*info, arguments, std::chrono::seconds(300));
  };
  auto start = Clock::now();
  call("StartIndexFilesWithSearchScopes", {"[\"" + tree + "\"]"});
  for (;;) {
    auto r = call("GetFileIndexResultDescriptionWithCompletion", {});
    if (r.ok && r.values.size() == 2 && r.values[0].value) break;
    if (Clock::now() - start > std::chrono::minutes(10)) return 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  call("StartIndexAppsWithSearchScopesCompletion", {"[]"});
  std::printf("indexed in %.1f s (files, then applications)\n",
              std::chrono::duration<double>(Clock::now() - start).count());

  sd_bus* bus = client->bus();
  auto launcher = [&](const std::string& query) {
    auto t0 = Clock::now();
    call("SearchFilesWithQueryMaxcountCompletion", {query, std::to_string(limit)});
    return millisecondsSince(t0);
  };
  auto shell = [&](const std::string& query) {
    std::vector<std::string> terms;
    std::istringstream in(query);
    for (std::string t; in >> t;) terms.push_back(t);
    std::vector<char*> strv;
    for (auto& t : terms) strv.push_back(t.data());
    strv.push_back(nullptr);
    auto t0 = Clock::now();
    sd_bus_message *m = nullptr, *reply = nullptr;
    sd_bus_message_new_method_call(bus, &m, quorvi::kBusName, quorvi::kSearchProviderObjectPath,
                                   quorvi::kSearchProviderInterface, "GetInitialResultSet");
    sd_bus_message_append_strv(m, strv.data());
    sd_bus_call(bus, m, 60'000'000, nullptr, &reply);
    double ms = millisecondsSince(t0);
    sd_bus_message_unref(m);
    sd_bus_message_unref(reply);
    return ms;
  };
  auto runner = [&](const std::string& query) {
    auto t0 = Clock::now();
    sd_bus_message* reply = nullptr;
    sd_bus_call_method(bus, quorvi::kBusName, quorvi::kKRunnerObjectPath, quorvi::kKRunnerInterface, "Match",
                       nullptr, &reply, "s", query.c_str());
    double ms = millisecondsSince(t0);
    sd_bus_message_unref(reply);
    return ms;
  };
  for (const auto& query : queries) {
    std::vector<double> a, b, c;
    for (int r = 0; r < 3; ++r) launcher(query), shell(query), runner(query);  // warm
    for (int r = 0; r < reps; ++r) {
      a.push_back(launcher(query));
      b.push_back(shell(query));
      c.push_back(runner(query));
    }
    std::printf("'%s': #12 p50 %.3f p99 %.3f ms; GetInitialResultSet p50 %.3f p99 %.3f ms; Match p50 %.3f p99 %.3f ms\n",
                query.c_str(), percentile(a, 0.5), percentile(a, 0.99), percentile(b, 0.5), percentile(b, 0.99),
                percentile(c, 0.5), percentile(c, 0.99));
    std::printf("@%s|%.4f|%.4f|%.4f|%.4f|%.4f|%.4f\n", query.c_str(), percentile(a, 0.5), percentile(a, 0.99),
                percentile(b, 0.5), percentile(b, 0.99), percentile(c, 0.5), percentile(c, 0.99));
  }
  return 0;
}
