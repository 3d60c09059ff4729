// Times the running-processes request (#33: fetch and JSON encoding, as the
// service does it) against running the two tools a user would otherwise run,
// `ps -eo pid,ppid,pcpu,rss` and `lsof -nP +c 0 -iTCP`, in the same run.
//
//   processes_bench [--repetitions N] [--bus ADDRESS]
// With --bus, #33 is also called over that bus on a running quorvifind.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <thread>

#include "common/json.h"
#include "service/bus_client.h"
#include "platform/process_runner.h"
#include "processes/port_listener.h"
#include "processes/quit_process_fetcher.h"

using namespace quorvi;

namespace {

double milliseconds(const std::function<void()>& work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Processor time of this process (all threads) and of its reaped children.
double processorMilliseconds() {
  auto total = [](int who) {
    rusage usage{};
    ::getrusage(who, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3 +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
  };
  return total(RUSAGE_SELF) + total(RUSAGE_CHILDREN);
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

size_t lastSize = 0;
size_t lastPorts = 0;
size_t lastAll = 0;

void request(ProcessTableSource table, PortSource ports) {
  ProcessFetchOptions options;
  options.tableSource = table;
  options.portSource = ports;
  auto result = QuitProcessFetcher(options).fetch();
  if (!result) {
    std::fprintf(stderr, "fetch failed\n");
    std::exit(1);
  }
  lastAll = result->allProcesses.size();
  lastPorts = result->portProcesses.size();
  lastSize = encodeRunningProcesses(*result).size();  // the reply bytes, as #33 writes them
}

}  // namespace

int main(int argc, char** argv) {
  int repetitions = 15;
  std::string busAddress;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--repetitions") == 0) repetitions = std::max(1, std::atoi(argv[i + 1]));
    if (std::strcmp(argv[i], "--bus") == 0) busAddress = argv[i + 1];
  }
  std::unique_ptr<BusClient> client;
  const MemberInfo* member = findMember("GetRunningProcessesWithCompletion");
  if (!busAddress.empty()) {
    std::string error;
    client = BusClient::connect(busAddress, &error);
    for (int attempt = 0; client && member && attempt < 100 && !client->serviceIsRunning(); ++attempt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!client || !member || !client->serviceIsRunning()) {
      std::fprintf(stderr, "no service on %s: %s\n", busAddress.c_str(), error.c_str());
      return 1;
    }
  }
  std::string lsof = PortListener::lsofPath();
  struct Case {
    const char* label;
    std::function<void()> work;
    std::vector<double> times;
    std::vector<double> processorTimes;
  };
  std::vector<Case> cases = {
      {"tools: sh -c 'ps -eo pid,ppid,pcpu,rss' + lsof -nP +c 0 -iTCP",
       [&] {
         runProcess("/bin/sh", {"-c", "ps -eo pid,ppid,pcpu,rss"});
         runProcess(lsof, {"-nP", "+c", "0", "-iTCP"});
       }, {}, {}},
      {"#33 in-process, /proc table + /proc ports (default)",
       [] { request(ProcessTableSource::procfs, PortSource::procfs); }, {}, {}},
      {"#33 in-process, ps + lsof (the portable path)",
       [] { request(ProcessTableSource::ps, PortSource::lsof); }, {}, {}},
      {"#33 in-process, ps + /proc ports",
       [] { request(ProcessTableSource::ps, PortSource::procfs); }, {}, {}},
  };
  if (client) {
    cases.push_back({"#33 over the bus (quorvifind, default sources)", [&] {
                       auto result = client->call(*member, CallArguments{});
                       if (!result.ok || result.values.empty() || !result.values[0].value) {
                         std::fprintf(stderr, "bus call failed: %s\n", result.errorName.c_str());
                         std::exit(1);
                       }
                     }, {}, {}});
  }
  for (auto& c : cases) c.work();  // warm caches (desktop entries, user names, page cache)
  for (int r = 0; r < repetitions; ++r) {
    for (auto& c : cases) {
      double processorBefore = processorMilliseconds();
      c.times.push_back(milliseconds(c.work));
      c.processorTimes.push_back(processorMilliseconds() - processorBefore);
    }
  }
  request(ProcessTableSource::procfs, PortSource::procfs);
  std::printf("processes listed: %zu, port entries: %zu, reply: %zu bytes, repetitions: %d\n", lastAll, lastPorts,
              lastSize, repetitions);
  // Processor time counts the tools' children and all our threads; for the
  // bus case the work happens in the service, so only its wall time means much.
  for (const auto& c : cases) {
    std::printf("  %-66s median %8.2f ms  (processor %6.2f ms)\n", c.label, median(c.times),
                median(c.processorTimes));
  }
  double tools = median(cases[0].times);
  std::printf("ratios to the two tools: in-process ps+lsof %.2fx", median(cases[2].times) / tools);
  if (client) std::printf(", over the bus %.2fx", median(cases[4].times) / tools);
  std::printf("\n#33 with the native sources vs ps + lsof alone: %.2fx\n", median(cases[1].times) / tools);
}
