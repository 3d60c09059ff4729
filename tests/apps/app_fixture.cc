#include "app_fixture.h"

#include <filesystem>
#include <thread>

namespace quorvi::testing {

AppFixture::AppFixture() {
  std::filesystem::create_directories(userApplications());
  std::filesystem::create_directories(systemApplications());
}

std::string AppFixture::userApplications() const { return root() + "/home/.local/share/applications"; }
std::string AppFixture::systemApplications() const { return root() + "/share/applications"; }

AppEnvironment AppFixture::environment() const { return AppEnvironment::isolated(root()); }

std::string AppFixture::write(const std::string& relative, const std::string& contents) const {
  return dir_.write(relative, contents);
}

std::string AppFixture::writeUserEntry(const std::string& relative, const std::string& text) const {
  return dir_.write("home/.local/share/applications/" + relative, text);
}

std::string AppFixture::writeSystemEntry(const std::string& relative, const std::string& text) const {
  return dir_.write("share/applications/" + relative, text);
}

std::string AppFixture::entryText(const std::string& name, const std::string& extraLines) {
  return "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=/bin/true\n" + extraLines;
}

std::string xmlPlist(const std::string& dictionaryBody) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\"><dict>" +
         dictionaryBody + "</dict></plist>\n";
}

std::string AppFixture::writeBundle(const std::string& path, const std::string& dictionaryBody) const {
  std::string relative = path.starts_with(root() + "/") ? path.substr(root().size() + 1) : path;
  dir_.write(relative + "/Contents/Info.plist", xmlPlist(dictionaryBody));
  return root() + "/" + relative;
}

bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace quorvi::testing
