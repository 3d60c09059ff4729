// Prints, for each pid given, what ProcessHelper finds about it as the user
// this program runs as: "name|path|user", or "gone". The processes tests run
// it as another user to see what an unprivileged service sees.
#include <cstdio>
#include <cstdlib>

#include "processes/process_helper.h"

int main(int argc, char** argv) {
  quorvi::ProcessHelper helper;
  for (int i = 1; i < argc; ++i) {
    int64_t pid = std::atoll(argv[i]);
    auto name = helper.getProcessNameFromPID(pid);
    auto path = helper.getProcessPathFromPID(pid);
    auto user = helper.userName(pid);
    if (!name || !path || !user) {
      std::printf("gone\n");
    } else {
      std::printf("%s|%s|%s\n", name->c_str(), path->c_str(), user->c_str());
    }
  }
}
