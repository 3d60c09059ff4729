// Driver of the text recognition benchmark (bench/ocr/run).
//
//   ocr_bench ping ADDRESS                  succeeds once the service answers
//   ocr_bench one ADDRESS IMAGE ACCURATE    one request; prints "<ms> <lines>"
//   ocr_bench pair ADDRESS IMAGE            two requests at once from two
//                                           connections (fast level); prints
//                                           the ms until both are answered
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "common/json.h"
#include "service/bus_client.h"
#include "service/members.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// One recognition request; the number of lines, or -1 when it failed.
int recognize(quorvi::BusClient& client, const std::string& image, bool accurate) {
  const quorvi::MemberInfo* member = quorvi::findMember("OcrWithImageIdentifierIsAccurateLevelCompletionHandler");
  quorvi::CallArguments arguments;
  arguments.values = {{"ay", image, 0, false, {}}, {"x", "", 1, false, {}}, {"b", "", 0, accurate, {}}};
  auto result = client.call(*member, arguments, std::chrono::seconds(120));
  if (!result.ok || result.values.size() != 3 || result.values[0].value) return -1;
  return result.values[1].value ? static_cast<int>(quorvi::Json::parse(*result.values[1].value).size()) : 0;
}

std::unique_ptr<quorvi::BusClient> connect(const std::string& address) {
  std::string error;
  auto client = quorvi::BusClient::connect(address, &error);
  if (!client) std::fprintf(stderr, "ocr_bench: bus: %s\n", error.c_str());
  return client;
}

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "ping" && argc == 3) {
    auto client = connect(argv[2]);
    return client && client->call(*quorvi::findMember("CheckAppIndexIsReadyWithCompletion"), {},
                                  std::chrono::seconds(2)).ok
               ? 0
               : 1;
  }
  if (mode == "one" && argc == 5) {
    auto client = connect(argv[2]);
    if (!client) return 1;
    std::string image = readFile(argv[3]);
    auto start = Clock::now();
    int lines = recognize(*client, image, std::string(argv[4]) == "true");
    double ms = millisecondsSince(start);
    if (lines < 0) return 1;
    std::printf("%.1f %d\n", ms, lines);
    return 0;
  }
  if (mode == "pair" && argc == 4) {
    auto first = connect(argv[2]), second = connect(argv[2]);
    if (!first || !second) return 1;
    std::string image = readFile(argv[3]);
    int a = 0, b = 0;
    auto start = Clock::now();
    std::thread other([&] { b = recognize(*second, image, false); });
    a = recognize(*first, image, false);
    other.join();
    double ms = millisecondsSince(start);
    if (a < 0 || b < 0) return 1;
    std::printf("%.1f\n", ms);
    return 0;
  }
  std::fprintf(stderr, "usage: ocr_bench ping ADDRESS | one ADDRESS IMAGE ACCURATE | pair ADDRESS IMAGE\n");
  return 2;
}
