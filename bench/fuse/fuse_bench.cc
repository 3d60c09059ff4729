// Driver of the matcher benchmark.
//   fuse_bench data DIR              writes DIR/names.txt (10k names) and DIR/patterns.txt
//   fuse_bench sync DIR REPS         times the synchronous list search
//   fuse_bench chunked DIR REPS N    times the chunked search with chunks of N names
// Each timing mode prints "median_ms <ms> matches <count>": one repetition
// searches every pattern over every name.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/benchmark.h"
#include "common/dispatch.h"
#include "fuse/fuse.h"

namespace {

using quorvi::Fuse;

// A small deterministic generator, so that every run searches the same names.
struct Random {
  uint64_t state = 0x9E3779B97F4A7C15ull;
  uint64_t next() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
  }
  template <typename T>
  const T& pick(const std::vector<T>& from) { return from[next() % from.size()]; }
  int below(int n) { return static_cast<int>(next() % static_cast<uint64_t>(n)); }
};

const std::vector<std::string> kApps = {
    "Safari", "Google Chrome", "Firefox", "Visual Studio Code", "Terminal", "iTerm", "Xcode", "Finder",
    "System Settings", "Activity Monitor", "Calculator", "Calendar", "Contacts", "Mail", "Messages", "Notes",
    "Preview", "Photos", "Music", "Podcasts", "Spotify", "Slack", "Zoom", "Microsoft Word", "Microsoft Excel",
    "Microsoft PowerPoint", "Keynote", "Numbers", "Pages", "Docker", "Postman", "Sublime Text", "IntelliJ IDEA",
    "PyCharm", "Android Studio", "Figma", "Sketch", "Blender", "GIMP", "Inkscape", "VLC", "QuickTime Player",
    "Disk Utility", "Console", "Keychain Access", "Font Book", "Reminders", "Maps", "Weather", "Clock",
    "App Store", "TextEdit", "Screenshot", "Automator", "Script Editor", "Telegram", "WhatsApp", "Discord",
    "1Password", "Obsidian", "Notion", "Things 3", "Alfred", "Raycast", "Transmission", "The Unarchiver",
    "微信", "网易云音乐", "QQ音乐", "钉钉", "飞书", "Café Notes", "Résumé Builder"};
const std::vector<std::string> kWords = {
    "report", "final", "draft", "budget", "invoice", "meeting", "notes", "project", "summary", "presentation",
    "photo", "holiday", "backup", "config", "readme", "design", "roadmap", "contract", "receipt", "schedule",
    "thesis", "chapter", "review", "release", "build", "test", "data", "export", "screenshot", "scan",
    "quarterly", "annual", "team", "client", "proposal", "plan", "todo", "ideas", "paper", "slides"};
const std::vector<std::string> kWideWords = {"café", "résumé", "北京", "旅行计划", "東京", "写真", "Übersicht",
                                             "naïve", "会议记录", "🎉party"};
const std::vector<std::string> kExtensions = {".pdf", ".docx", ".xlsx", ".pptx", ".txt", ".md", ".png", ".jpg",
                                              ".JPG", ".zip", ".py", ".swift", ".json", ".csv", ".key", ".pages"};
const std::vector<std::string> kSeparators = {" ", "-", "_", " ", ""};

std::string capitalised(std::string word, bool on) {
  if (on && !word.empty() && word[0] >= 'a' && word[0] <= 'z') word[0] = static_cast<char>(word[0] - 32);
  return word;
}

std::string fileName(Random& random) {
  if (random.below(6) == 0) return "IMG_" + std::to_string(1000 + random.below(9000)) + random.pick(kExtensions);
  const bool capital = random.below(2) == 0;
  const std::string separator = random.pick(kSeparators);
  std::string name = capitalised(random.pick(kWords), capital);
  const int words = 1 + random.below(3);
  for (int i = 0; i < words; ++i) {
    const bool wide = random.below(20) == 0;
    name += separator + (wide ? random.pick(kWideWords) : capitalised(random.pick(kWords), capital));
  }
  if (random.below(3) == 0) name += separator + std::to_string(2015 + random.below(10));
  if (random.below(5) == 0) name += separator + "v" + std::to_string(1 + random.below(9));
  return name + random.pick(kExtensions);
}

std::vector<std::string> makeNames(std::size_t count) {
  Random random;
  std::vector<std::string> names;
  for (std::size_t i = 0; names.size() < count; ++i) {
    if (i % 10 == 0) {
      std::string app = kApps[(i / 10) % kApps.size()];
      names.push_back(i / 10 < kApps.size() ? app : app + " " + std::to_string(random.below(20)));
    } else {
      names.push_back(fileName(random));
    }
  }
  return names;
}

const std::vector<std::string> kPatterns = {
    "term", "safari", "chrome", "visual code", "code", "xcode", "notes", "report", "final report", "budget",
    "img", "photo", "readme", "settings", "spotify", "slack", "docker", "calc", "mail", "pdf",
    "termnial", "saffari", "chorme", "spotfy", "presentaton", "北京", "café", "q"};

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void writeLines(const std::string& path, const std::vector<std::string>& lines) {
  std::ofstream out(path);
  for (const auto& line : lines) out << line << '\n';
}

Fuse makeFuse() { return Fuse(/*location=*/0, /*distance=*/100, /*threshold=*/0.6, 32, false, false); }

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int timeSync(const std::vector<std::string>& names, const std::vector<std::string>& patterns, int repetitions) {
  Fuse fuse = makeFuse();
  std::vector<double> times;
  std::size_t matches = 0;
  for (int r = 0; r < repetitions + 1; ++r) {  // the first round warms caches
    quorvi::Benchmark clock;
    matches = 0;
    for (const auto& pattern : patterns) matches += fuse.search(pattern, names).size();
    if (r > 0) times.push_back(clock.elapsed() * 1e3);
  }
  std::printf("median_ms %.3f matches %zu\n", median(times), matches);
  return 0;
}

int timeChunked(const std::vector<std::string>& names, const std::vector<std::string>& patterns, int repetitions,
                long chunkSize) {
  std::thread mainQueue([] { quorvi::DispatchQueue::runMain(); });
  Fuse fuse = makeFuse();
  std::vector<double> times;
  std::size_t matches = 0;
  // The list is shared, as a launcher would hold its names, and searched without a copy.
  auto shared = std::make_shared<const std::vector<std::string>>(names);
  for (int r = 0; r < repetitions + 1; ++r) {
    quorvi::Benchmark clock;
    matches = 0;
    for (const auto& pattern : patterns) {
      std::promise<std::size_t> found;
      fuse.search(pattern, shared, chunkSize,
                  [&found](std::vector<quorvi::FuseStringResult> results) { found.set_value(results.size()); });
      matches += found.get_future().get();
    }
    if (r > 0) times.push_back(clock.elapsed() * 1e3);
  }
  quorvi::DispatchQueue::stopMain();
  mainQueue.join();
  std::printf("median_ms %.3f matches %zu\n", median(times), matches);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "data" && argc == 4) {
    const std::string dir = argv[2];
    writeLines(dir + "/names.txt", makeNames(static_cast<std::size_t>(std::atol(argv[3]))));
    writeLines(dir + "/patterns.txt", kPatterns);
    return 0;
  }
  if ((mode == "sync" && argc == 4) || (mode == "chunked" && argc == 5)) {
    const std::string dir = argv[2];
    const auto names = readLines(dir + "/names.txt");
    const auto patterns = readLines(dir + "/patterns.txt");
    const int repetitions = std::max(1, std::atoi(argv[3]));
    if (mode == "sync") return timeSync(names, patterns, repetitions);
    return timeChunked(names, patterns, repetitions, std::atol(argv[4]));
  }
  std::fprintf(stderr, "usage: fuse_bench data DIR COUNT | sync DIR REPS | chunked DIR REPS CHUNK\n");
  return 2;
}
