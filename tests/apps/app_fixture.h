// Builders for the app index tests: an isolated environment in a temporary
// folder, desktop entries in its applications folders, and bundles with
// their property lists, written the way real ones are laid out.
#pragma once

#include <string>
#include <vector>

#include "apps/app_environment.h"
#include "support/test_bus.h"

namespace quorvi::testing {

class AppFixture {
 public:
  AppFixture();
  const std::string& root() const { return dir_.path(); }
  // root/home/.local/share/applications and root/share/applications.
  std::string userApplications() const;
  std::string systemApplications() const;
  // An environment over the folders above: no desktop named, the usual
  // search path, no emulators, English.
  AppEnvironment environment() const;

  // Writes a desktop entry (below userApplications() or systemApplications()).
  std::string writeUserEntry(const std::string& relative, const std::string& text) const;
  std::string writeSystemEntry(const std::string& relative, const std::string& text) const;
  // "[Desktop Entry]\nType=Application\nName=NAME\nExec=/bin/true\n" plus extra lines.
  static std::string entryText(const std::string& name, const std::string& extraLines = "");

  // A bundle folder with Contents/Info.plist (XML) holding the given
  // dictionary body (e.g. "<key>CFBundleIdentifier</key><string>x</string>").
  std::string writeBundle(const std::string& path, const std::string& dictionaryBody) const;
  // Writes a file below the root (folders created).
  std::string write(const std::string& relative, const std::string& contents) const;

 private:
  TemporaryDirectory dir_;
};

// Waits (polling) until the predicate holds; false on timeout.
bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

// The property list of a dictionary body.
std::string xmlPlist(const std::string& dictionaryBody);

}  // namespace quorvi::testing
