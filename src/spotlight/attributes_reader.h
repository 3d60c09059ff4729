// Attribute records of a file (#25) and of an application (#24), ready for
// display: kind, size and dates as text (attribute_format.h).
//
// FileAttributes: contentType is the description of the file's type from
// shared-mime-info in the service's language ("PDF document", "PDF 文档";
// by the name and the first bytes of the file); creationDate is the birth
// time where the file system keeps one; contentLastUsedDate is the last use
// (file_times.h). A file inside ~/OneDrive is read from the file system only
// (its cloud client fakes access times): no size and no last use.
//
// AppAttributes of a desktop entry (".desktop" file): category is the
// entry's main category (the first of its Categories that is one of the
// freedesktop main categories, else its first); version and size come from
// the package that installed the entry (dpkg's status: Version,
// Installed-Size) or, for a Flatpak export, from the application's metainfo
// release; finalUsedDate is the last time an application used a file by the
// recently-used list, or the last read of its program after it was installed
// (access time later than its change time). Anything else (a folder, an
// executable) is described by the file system: its size, its birth time.
#pragma once

#include <optional>
#include <string>

#include "common/json.h"
#include "common/language.h"

namespace quorvi {

class RecentFiles;

struct FileAttributes {
  std::string path;
  std::string contentType;
  std::optional<std::string> size;
  std::string creationDate = "--";
  std::string contentChangeDate = "--";
  std::string contentLastUsedDate = "--";
  double cacheTimestamp = 0;
  Json toJson() const;
};

struct AppAttributes {
  std::string path;
  std::string category = "--";
  std::optional<std::string> size;
  std::string version = "--";
  std::string creationDate = "--";
  std::string finalUsedDate = "--";
  double cacheTimestamp = 0;
  Json toJson() const;
};

struct AttributeEnvironment {
  std::string homeDirectory;
  SupportedLanguage language = SupportedLanguage::english;
  RecentFiles* recent = nullptr;
  std::string dpkgDirectory = "/var/lib/dpkg";
  // The service's: $HOME, Language::shared(), RecentFiles::shared().
  static AttributeEnvironment standard();
};

class FileAttributesReader {
 public:
  explicit FileAttributesReader(AttributeEnvironment environment) : environment_(std::move(environment)) {}
  // nullopt when the path is not absolute or names nothing.
  std::optional<FileAttributes> read(const std::string& path) const;

 private:
  AttributeEnvironment environment_;
};

class AppAttributesReader {
 public:
  explicit AppAttributesReader(AttributeEnvironment environment) : environment_(std::move(environment)) {}
  std::optional<AppAttributes> read(const std::string& path) const;

 private:
  AttributeEnvironment environment_;
};

// What dpkg knows about the package owning a file.
struct PackageInfo {
  std::string name;
  std::string version;
  std::optional<int64_t> installedBytes;
};
std::optional<PackageInfo> packageOwning(const std::string& path, const std::string& dpkgDirectory);

}  // namespace quorvi
