// Makes a synthetic home folder for the file index benchmark: nested
// folders, English and Chinese names, hidden files and folders, node_modules
// trees, "~$" lock files, modification times spread over eleven years. The
// same (count, seed) always gives the same tree.
//
//   fileindex_make_tree DIR COUNT [SEED]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

const char* const kEnglish[] = {
    "report", "budget", "invoice", "meeting", "notes", "draft", "final", "summary", "project", "design",
    "photo", "scan", "contract", "plan", "data", "results", "thesis", "chapter", "slides", "backup",
    "config", "readme", "index", "main", "utils", "test", "client", "server", "model", "review",
    "agenda", "letter", "resume", "invoice", "receipt", "travel", "family", "holiday", "music", "video",
    "export", "import", "archive", "release", "build", "script", "sample", "template", "proposal", "memo"};
const char* const kChinese[] = {"报告", "会议", "合同", "预算", "发票", "照片", "项目", "设计", "总结", "计划",
                                "数据", "论文", "笔记", "简历", "作业", "旅行", "家庭", "音乐", "视频", "银行"};
const char* const kExtensions[] = {".txt", ".pdf", ".docx", ".jpg", ".png", ".md", ".py", ".js",
                                   ".cc", ".h", ".xlsx", ".pptx", ".json", ".zip", ".mp3", ""};
const char* const kTopFolders[] = {"Documents", "Downloads", "Pictures", "Projects", "Music", "Desktop",
                                   "文档", "下载", "Videos", "Work"};

struct Folder {
  std::string path;
  int depth;
};

std::string word(std::mt19937_64& rng) {
  if (rng() % 5000 == 0) return "zephyr";  // the rare word
  if (rng() % 5 == 0) return kChinese[rng() % 20];
  std::string w = kEnglish[rng() % 50];
  if (rng() % 3 == 0) w[0] = static_cast<char>(w[0] - 32);
  return w;
}

std::string name(std::mt19937_64& rng, bool isFolder) {
  std::string n = word(rng);
  int more = static_cast<int>(rng() % 3);
  const char* joins[] = {"-", "_", " ", ""};
  for (int i = 0; i < more; ++i) n += joins[rng() % 4] + word(rng);
  if (rng() % 3 == 0) n += "-" + std::to_string(2015 + rng() % 11);
  if (rng() % 4 == 0) n += "-" + std::to_string(rng() % 1000);
  if (!isFolder) n += kExtensions[rng() % 16];
  return n;
}

void setTime(const std::string& path, time_t seconds, long nanos) {
  timespec times[2] = {{seconds, nanos}, {seconds, nanos}};
  ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: fileindex_make_tree DIR COUNT [SEED]\n");
    return 2;
  }
  std::string root = argv[1];
  long count = std::atol(argv[2]);
  std::mt19937_64 rng(argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 42);
  ::mkdir(root.c_str(), 0755);

  std::vector<Folder> folders;
  auto addFolder = [&](const std::string& path, int depth) {
    if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) folders.push_back({path, depth});
  };
  for (const char* top : kTopFolders) addFolder(root + "/" + top, 1);
  addFolder(root + "/.config", 1);
  addFolder(root + "/.cache", 1);
  const std::size_t hiddenTop = folders.size() - 2;
  // Folders: about one for every eleven files, nested up to eight deep.
  long folderCount = count / 11;
  std::vector<std::size_t> nodeModules;
  for (long i = 0; i < folderCount; ++i) {
    const Folder& parent = folders[rng() % folders.size()];
    if (parent.depth >= 8) continue;
    std::string folderName = name(rng, true);
    if (rng() % 200 == 0) folderName = "node_modules";
    else if (rng() % 60 == 0) folderName = "." + folderName;
    std::string path = parent.path + "/" + folderName;
    int depth = parent.depth + 1;
    addFolder(path, depth);
    if (folderName == "node_modules") nodeModules.push_back(folders.size() - 1);
  }
  // Files: mostly anywhere; some in hidden folders and node_modules.
  const time_t start = 1420070400;  // 2015-01-01
  const time_t span = 11L * 365 * 24 * 3600;
  long made = 0;
  for (long i = 0; made < count; ++i) {
    std::size_t at;
    uint64_t roll = rng() % 100;
    if (roll < 6) at = hiddenTop + rng() % 2;
    else if (roll < 10 && !nodeModules.empty()) at = nodeModules[rng() % nodeModules.size()];
    else at = rng() % folders.size();
    std::string fileName = name(rng, false);
    uint64_t kind = rng() % 1000;
    if (kind < 5) fileName = "~$" + fileName;
    else if (kind < 45) fileName = "." + fileName;
    std::string path = folders[at].path + "/" + fileName;
    int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) continue;
    timespec times[2] = {{start + static_cast<time_t>(rng() % span), static_cast<long>(rng() % 1000000000)},
                         {0, 0}};
    times[1] = times[0];
    ::futimens(fd, times);
    ::close(fd);
    ++made;
  }
  // Folder times last (making files changed them), deepest first.
  for (std::size_t k = folders.size(); k-- > 0;) {
    setTime(folders[k].path, start + static_cast<time_t>(rng() % span), 0);
  }
  std::printf("%ld files, %zu folders in %s\n", made, folders.size(), root.c_str());
  return 0;
}
