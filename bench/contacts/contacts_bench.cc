// Driver of the contacts benchmark (bench/contacts/run).
//
//   contacts_bench generate COUNT FOLDER     writes COUNT contacts as a vdir
//                                            (one .vcf per person)
//   contacts_bench load FOLDER REPS          loads the folder in process;
//                                            prints "load_ms <median> items <n>"
//   contacts_bench bus ADDRESS QUERY...      one search per query through
//                                            quorvifind on that bus; prints
//                                            "<query> <ms> <hits>" per query
//   contacts_bench ping ADDRESS              succeeds once the service answers
//                                            (a quick member, no contacts)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/json.h"
#include "contacts/address_book_loader.h"
#include "service/bus_client.h"
#include "service/members.h"

namespace {

using Clock = std::chrono::steady_clock;

template <typename Work>
double millisecondsOf(Work&& work) {
  auto start = Clock::now();
  work();
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::size_t n = values.size();
  return n == 0 ? 0 : (n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2);
}

const char* kGivenNames[] = {"James", "Mary", "Robert", "Patricia", "John", "Jennifer", "Michael", "Linda",
                             "David", "Elizabeth", "William", "Barbara", "Richard", "Susan", "Joseph", "Jessica"};
const char* kFamilyNames[] = {"Smith", "Johnson", "Williams", "Brown", "Jones", "Garcia", "Miller", "Davis",
                              "Rodriguez", "Martinez", "Hernandez", "Lopez", "Wilson", "Anderson", "Taylor"};
const char* kChineseFamilies[] = {"王", "李", "张", "刘", "陈", "杨", "黄", "赵", "吴", "周", "徐", "孙"};
const char* kChineseGivens[] = {"伟", "芳", "娜", "敏", "静", "丽", "强", "磊", "军", "洋", "勇", "艳", "杰", "涛"};

// A deterministic contact: about 40% Chinese names, one or two numbers,
// up to two addresses, some nicknames and photos.
std::string card(std::size_t i) {
  std::string name;
  if (i % 5 < 2) {
    name = std::string(kChineseFamilies[i % 12]) + kChineseGivens[(i / 12) % 14] + kChineseGivens[(i / 7) % 14];
  } else {
    name = std::string(kGivenNames[i % 16]) + " " + kFamilyNames[(i / 16) % 15];
  }
  char phone[64];
  std::snprintf(phone, sizeof phone, "+86 13%d-%04zu-%04zu", static_cast<int>(i % 10), (i * 7919) % 10000, i % 10000);
  std::string text = "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:bench-" + std::to_string(i) + "\r\nFN:" + name + "\r\n";
  if (i % 4 == 0) text += "NICKNAME:Buddy" + std::to_string(i % 97) + "\r\n";
  text += "TEL;TYPE=CELL:" + std::string(phone) + "\r\n";
  if (i % 3 == 0) text += "TEL;TYPE=WORK:+1 555 " + std::to_string(1000 + i % 9000) + "\r\n";
  if (i % 2 == 0) text += "EMAIL:person" + std::to_string(i) + "@example.com\r\n";
  if (i % 6 == 0) text += "EMAIL;TYPE=work:p" + std::to_string(i) + "@work.example.org\r\n";
  if (i % 10 == 0) text += "PHOTO;ENCODING=b;TYPE=JPEG:/9j/4AAQSkZJRgABAQEASABIAAD/2wBDAAMCAgICAgMCAgIDAwMDBAYEBAQE\r\n";
  return text + "END:VCARD\r\n";
}

int generate(std::size_t count, const std::string& folder) {
  std::filesystem::create_directories(folder + "/default");
  for (std::size_t i = 0; i < count; ++i) {
    std::ofstream(folder + "/default/" + std::to_string(i) + ".vcf", std::ios::binary) << card(i);
  }
  return 0;
}

int load(const std::string& folder, int reps) {
  quorvi::AddressBookSources sources;
  sources.vcardPaths = {folder};
  std::vector<double> times;
  std::size_t items = 0;
  for (int r = 0; r < reps; ++r) {
    times.push_back(millisecondsOf([&] { items = quorvi::AddressBookLoader(sources).load().items.size(); }));
  }
  std::printf("load_ms %.1f items %zu\n", median(times), items);
  return 0;
}

int overTheBus(const std::string& address, const std::vector<std::string>& queries) {
  std::string error;
  auto client = quorvi::BusClient::connect(address, &error);
  if (!client) {
    std::fprintf(stderr, "contacts_bench: bus: %s\n", error.c_str());
    return 1;
  }
  const quorvi::MemberInfo* member = quorvi::findMember("SearchContactsWithQueryMaxcountCompletionHandler");
  for (const auto& query : queries) {
    quorvi::CallArguments arguments;
    quorvi::argumentsFromWords(member->inSignature, {query, "20"}, arguments, &error);
    std::size_t hits = 0;
    bool ok = true;
    double ms = millisecondsOf([&] {
      auto result = client->call(*member, arguments, std::chrono::seconds(120));
      ok = result.ok;
      if (ok && result.values[0].value) hits = quorvi::Json::parse(*result.values[0].value).size();
    });
    if (!ok) {
      std::fprintf(stderr, "contacts_bench: the call failed\n");
      return 1;
    }
    std::printf("%s %.3f %zu\n", query.c_str(), ms, hits);
  }
  return 0;
}

int ping(const std::string& address) {
  std::string error;
  auto client = quorvi::BusClient::connect(address, &error);
  if (!client) return 1;
  auto result = client->call(*quorvi::findMember("CheckAppIndexIsReadyWithCompletion"), {}, std::chrono::seconds(2));
  return result.ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 3 && args[0] == "generate") return generate(std::stoul(args[1]), args[2]);
  if (args.size() == 3 && args[0] == "load") return load(args[1], std::stoi(args[2]));
  if (args.size() == 2 && args[0] == "ping") return ping(args[1]);
  if (args.size() >= 3 && args[0] == "bus") return overTheBus(args[1], {args.begin() + 2, args.end()});
  std::fprintf(stderr, "usage: contacts_bench generate COUNT FOLDER | load FOLDER REPS | bus ADDRESS QUERY... | ping ADDRESS\n");
  return 2;
}
