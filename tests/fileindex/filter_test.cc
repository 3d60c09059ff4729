// The ignore filter: its preferences file, the one-time migration and the
// rules in their order.
#include <sys/stat.h>
#include <fstream>
#include <sstream>

#include "index_fixture.h"

namespace quorvi::testing {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(FilterPreferences, MissingFileIsWrittenWithTheDefaultTextAndMigrationRunsOnce) {
  IndexTree tree;
  Filter filter = Filter::build({}, tree.environment());
  EXPECT_EQ(readFile(tree.preferencesFile()), Filter::defaultPreferencesJSON());
  EXPECT_EQ(std::string(Filter::defaultPreferencesJSON()),
            "{\n   \"ignorePaths\": [\"\"],\n   \"ignorePackagePaths\": [\"\"],\n"
            "   \"ignoreFolders\": [\"node_modules\"],\n   \"ignorePackages\": [\"node_modules\"],\n"
            "   \"ignorePathExtensions\": [\"\"],\n   \"ignoreFiles\": [\"\"],\n   \"ignoreKeywords\": [\"\"],\n"
            "   \"indexVolumes\": [\"\"]\n}\n");
  EXPECT_EQ(tree.settings().boolValue(Filter::kDidInitNodeModulesKey), true);
  // Default rules: only node_modules is ignored.
  EXPECT_TRUE(filter.isIgnored(tree.home() + "/Projects/app/node_modules/x.js"));
  EXPECT_FALSE(filter.isIgnored(tree.home() + "/Projects/app/src/x.js"));
}

TEST(FilterPreferences, MigrationAddsNodeModulesOnceAndRespectsItsLaterRemoval) {
  IndexTree tree;
  tree.writePreferences(R"({"ignoreFolders": ["build"]})");
  Filter first = Filter::build({}, tree.environment());
  EXPECT_TRUE(first.isIgnored("/p/node_modules/a"));
  EXPECT_TRUE(first.isIgnored("/p/build/a"));
  EXPECT_NE(readFile(tree.preferencesFile()).find("node_modules"), std::string::npos);
  // The user takes it out again: the flag keeps the migration from returning.
  tree.writePreferences(R"({"ignoreFolders": ["build"]})");
  Filter second = Filter::build({}, tree.environment());
  EXPECT_FALSE(second.isIgnored("/p/node_modules/a"));
  EXPECT_EQ(readFile(tree.preferencesFile()).find("node_modules"), std::string::npos);
}

TEST(FilterPreferences, DamagedFileFallsBackToTheDefaultRulesWithoutOverwritingIt) {
  IndexTree tree;
  tree.settings().set(Filter::kDidInitNodeModulesKey, true);
  tree.writePreferences("{ not json");
  Filter filter = Filter::build({}, tree.environment());
  EXPECT_TRUE(filter.isIgnored("/p/node_modules/a"));
  EXPECT_EQ(readFile(tree.preferencesFile()), "{ not json");
}

// Read on the first request that needs the index: a FIFO in its place must
// not hang the service; the default rules stand in.
TEST(FilterPreferences, AFifoInPlaceOfThePreferencesFileReadsAsTheDefault) {
  IndexTree tree;
  tree.settings().set(Filter::kDidInitNodeModulesKey, true);
  tree.writePreferences("{}");
  ::unlink(tree.preferencesFile().c_str());
  ASSERT_EQ(::mkfifo(tree.preferencesFile().c_str(), 0600), 0);
  Filter filter = Filter::build({}, tree.environment());
  EXPECT_TRUE(filter.isIgnored("/p/node_modules/a"));
}

TEST(FilterRules, EachRuleAndItsComparison) {
  IndexTree tree;
  tree.settings().set(Filter::kDidInitNodeModulesKey, true);
  tree.writePreferences(R"({
    "ignorePaths": ["", "/srv/cache"],
    "ignorePackagePaths": ["/opt/pkgs"],
    "ignoreFolders": ["build", ""],
    "ignorePackages": ["Carthage"],
    "ignorePathExtensions": ["log", ""],
    "ignoreFiles": ["/etc/exact.txt"],
    "ignoreKeywords": ["secret", ""],
    "indexVolumes": ["/mnt"]
  })");
  const std::string h = tree.home();
  Filter filter = Filter::build({h + "/Library/Mobile Documents"}, tree.environment());
  // 1: office lock files, whatever the lists hold.
  EXPECT_TRUE(filter.isIgnored("/d/~$report.docx"));
  EXPECT_FALSE(filter.isIgnored("/d/report~$.docx"));
  // 2: keyword anywhere in the path.
  EXPECT_TRUE(filter.isIgnored("/d/topsecrets/a.txt"));
  // 3: extension lower-cased, exact.
  EXPECT_TRUE(filter.isIgnored("/d/a.LOG"));
  EXPECT_FALSE(filter.isIgnored("/d/a.logs"));
  EXPECT_FALSE(filter.isIgnored("/d/.log"));
  // 4: byte prefixes, no separator needed.
  EXPECT_TRUE(filter.isIgnored("/srv/cache/x"));
  EXPECT_TRUE(filter.isIgnored("/srv/cachet"));
  EXPECT_TRUE(filter.isIgnored("/opt/pkgs/a"));
  // 5: exact path.
  EXPECT_TRUE(filter.isIgnored("/etc/exact.txt"));
  EXPECT_FALSE(filter.isIgnored("/etc/exact.txt.bak"));
  // 6 and 7: whole components only.
  EXPECT_TRUE(filter.isIgnored("/d/build/x.o"));
  EXPECT_TRUE(filter.isIgnored("/d/build"));
  EXPECT_FALSE(filter.isIgnored("/d/builds/x.o"));
  EXPECT_TRUE(filter.isIgnored("/d/Carthage/Checkouts"));
  // 8: the Library folder except the scopes chosen inside it.
  EXPECT_TRUE(filter.isIgnored(h + "/Library/Caches/a"));
  EXPECT_FALSE(filter.isIgnored(h + "/Library/Mobile Documents/a.txt"));
  // An earlier rule still ignores inside a chosen Library scope.
  EXPECT_TRUE(filter.isIgnored(h + "/Library/Mobile Documents/build/a.txt"));
  EXPECT_TRUE(filter.isIgnored(h + "/Library/Mobile Documents/a.log"));
  // Built-in home paths, including the XDG trash.
  EXPECT_TRUE(filter.isIgnored(h + "/.Trash/a"));
  EXPECT_TRUE(filter.isIgnored(h + "/.local/share/Trash/files/a"));
  EXPECT_TRUE(filter.isIgnored(h + "/Music/iTunes"));
  EXPECT_FALSE(filter.isIgnored(h + "/Music/iTunesRadio"));
  // Empty entries are inert: ordinary paths pass.
  EXPECT_FALSE(filter.isIgnored(h + "/Documents/plan.txt"));
  EXPECT_EQ(filter.description().rfind("ignorePaths:\n\n/srv/cache\n\nignorePackagePaths:\n/opt/pkgs\n", 0), 0u);
}

TEST(FilterRules, PruningAgreesWithTheItemRulesForEveryDescendant) {
  IndexTree tree;
  tree.settings().set(Filter::kDidInitNodeModulesKey, true);
  tree.writePreferences(R"({"ignoreFolders": ["node_modules"], "ignorePathExtensions": ["log"],
                            "ignoreKeywords": ["scratch"]})");
  const std::string h = tree.home();
  Filter filter = Filter::build({h + "/Library/Mobile Documents/x"}, tree.environment());
  // Folders that may be skipped whole.
  EXPECT_TRUE(filter.ignoresEverythingUnder("/p/node_modules"));
  EXPECT_TRUE(filter.ignoresEverythingUnder("/p/scratchfiles"));
  EXPECT_TRUE(filter.ignoresEverythingUnder(h + "/Library/Caches"));
  // Ignored themselves, but their contents are not (all of them).
  EXPECT_TRUE(filter.isIgnored("/p/~$lock"));
  EXPECT_FALSE(filter.ignoresEverythingUnder("/p/~$lock"));
  EXPECT_FALSE(filter.isIgnored("/p/~$lock/a.txt"));
  EXPECT_TRUE(filter.isIgnored("/p/archive.log"));
  EXPECT_FALSE(filter.ignoresEverythingUnder("/p/archive.log"));
  // The Library folder holds a chosen scope deeper down.
  EXPECT_TRUE(filter.isIgnored(h + "/Library"));
  EXPECT_FALSE(filter.ignoresEverythingUnder(h + "/Library"));
  EXPECT_FALSE(filter.ignoresEverythingUnder(h + "/Library/Mobile Documents"));
  EXPECT_FALSE(filter.isIgnored(h + "/Library/Mobile Documents/x/y"));
}

}  // namespace
}  // namespace quorvi::testing
