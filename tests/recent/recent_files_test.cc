// The recently-used list: reading it through GLib, the last use of a path,
// the documents of one application.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "recent/recent_files.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

// One bookmark of the list; times as ISO 8601 text.
struct Mark {
  std::string path;
  std::string visited;
  std::vector<std::tuple<std::string, std::string, std::string>> apps;  // name, exec, modified
};

std::string xbel(const std::vector<Mark>& marks) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<xbel version=\"1.0\" xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\" "
      "xmlns:mime=\"http://www.freedesktop.org/standards/shared-mime-info\">\n";
  for (const auto& mark : marks) {
    out += "<bookmark href=\"file://" + mark.path + "\" added=\"2020-01-01T00:00:00Z\" modified=\"2020-01-01T00:00:00Z\" visited=\"" +
           mark.visited + "\"><info><metadata owner=\"http://freedesktop.org\"><mime:mime-type type=\"text/plain\"/>"
           "<bookmark:applications>";
    for (const auto& [name, exec, modified] : mark.apps) {
      out += "<bookmark:application name=\"" + name + "\" exec=\"" + exec + "\" modified=\"" + modified +
             "\" count=\"1\"/>";
    }
    out += "</bookmark:applications></metadata></info></bookmark>\n";
  }
  return out + "</xbel>\n";
}

double unix(const char* iso) {
  std::tm tm{};
  strptime(iso, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return static_cast<double>(timegm(&tm));
}

class RecentFilesTest : public ::testing::Test {
 protected:
  std::string list() const { return dir_.path() + "/recently-used.xbel"; }
  std::string file(const std::string& name) { return dir_.write("docs/" + name, "x"); }
  TemporaryDirectory dir_;
};

TEST_F(RecentFilesTest, DocumentsOfAnApplicationMostRecentFirst) {
  std::string a = file("a.txt"), b = file("b with space.txt"), c = file("c.md");
  std::string gone = dir_.path() + "/docs/gone.txt";
  dir_.write("recently-used.xbel",
             xbel({{a, "2024-03-01T10:00:00Z", {{"gedit", "&apos;gedit %u&apos;", "2024-03-01T10:00:00Z"}}},
                   {b, "2024-03-05T10:00:00Z", {{"gedit", "gedit %u", "2024-03-05T10:00:00Z"},
                                                {"Text Editor", "gnome-text-editor %U", "2024-03-06T10:00:00Z"}}},
                   {c, "2024-03-02T10:00:00Z", {{"Text Editor", "/usr/bin/gnome-text-editor %U", "2024-03-02T10:00:00Z"}}},
                   {gone, "2024-03-09T10:00:00Z", {{"gedit", "gedit %u", "2024-03-09T10:00:00Z"}}}}));
  RecentFiles recent(list());

  auto gedit = recent.documentsOf("gedit");
  ASSERT_EQ(gedit.size(), 2u);  // the missing file is left out
  EXPECT_EQ(gedit[0].path, b);
  EXPECT_EQ(gedit[0].name, "b with space.txt");
  EXPECT_EQ(gedit[0].date, unix("2024-03-05T10:00:00Z"));
  EXPECT_EQ(gedit[1].path, a);

  // By program (from the command) or by name, letters without case.
  auto byProgram = recent.documentsOf("gnome-text-editor");
  ASSERT_EQ(byProgram.size(), 2u);
  EXPECT_EQ(byProgram[0].path, b);
  EXPECT_EQ(byProgram[0].date, unix("2024-03-06T10:00:00Z"));
  EXPECT_EQ(byProgram[1].path, c);
  EXPECT_EQ(recent.documentsOf("text editor").size(), 2u);
  EXPECT_EQ(recent.documentsOf("GEDIT.desktop").size(), 2u);
  EXPECT_TRUE(recent.documentsOf("gimp").empty());
  EXPECT_TRUE(recent.documentsOf("").empty());

  Json json = gedit[0].toJson();
  EXPECT_EQ(json.dump(), R"({"path":")" + b + R"(","name":"b with space.txt","date":)" +
                             Json(unix("2024-03-05T10:00:00Z") - 978307200.0).dump() + "}");
}

TEST_F(RecentFilesTest, LastUseIsTheLatestOfVisitsAndApplications) {
  std::string a = file("a.txt");
  dir_.write("recently-used.xbel",
             xbel({{a, "2024-03-01T10:00:00Z", {{"gedit", "gedit %u", "2024-04-01T08:00:00Z"}}}}));
  RecentFiles recent(list());
  EXPECT_EQ(recent.lastUsedOf(a), unix("2024-04-01T08:00:00Z"));
  EXPECT_FALSE(recent.lastUsedOf(dir_.path() + "/docs/other.txt"));
}

TEST_F(RecentFilesTest, FollowsTheFileAsItChanges) {
  std::string a = file("a.txt"), b = file("b.txt");
  RecentFiles recent(list());
  EXPECT_TRUE(recent.bookmarks()->empty());  // no list yet
  dir_.write("recently-used.xbel", xbel({{a, "2024-03-01T10:00:00Z", {{"gedit", "gedit %u", "2024-03-01T10:00:00Z"}}}}));
  EXPECT_EQ(recent.bookmarks()->size(), 1u);
  dir_.write("recently-used.xbel",
             xbel({{a, "2024-03-01T10:00:00Z", {{"gedit", "gedit %u", "2024-03-01T10:00:00Z"}}},
                   {b, "2024-03-02T10:00:00Z", {{"gedit", "gedit %u", "2024-03-02T10:00:00Z"}}}}));
  ASSERT_EQ(recent.documentsOf("gedit").size(), 2u);
  EXPECT_EQ(recent.documentsOf("gedit")[0].path, b);
  ::unlink(list().c_str());
  EXPECT_TRUE(recent.bookmarks()->empty());
}

TEST_F(RecentFilesTest, BrokenListsAreEmptyNeverFatal) {
  for (std::string bytes : {std::string("not xml at all"), std::string("<xbel version=\"1.0\"><bookmark>"),
                            std::string("\0\xff\xfe", 3), std::string(100000, '<')}) {
    EXPECT_FALSE(parseRecentlyUsed(bytes));
    dir_.write("recently-used.xbel", bytes);
    RecentFiles recent(list());
    EXPECT_TRUE(recent.bookmarks()->empty());
    EXPECT_TRUE(recent.documentsOf("gedit").empty());
  }
  // A FIFO in its place is not waited on.
  ::unlink(list().c_str());
  ASSERT_EQ(::mkfifo(list().c_str(), 0600), 0);
  RecentFiles recent(list());
  EXPECT_TRUE(recent.bookmarks()->empty());
}

}  // namespace
}  // namespace quorvi::testing
