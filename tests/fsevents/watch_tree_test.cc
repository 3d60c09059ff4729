#include "fsevents/watch_tree.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace quorvi {
namespace {

TEST(WatchTree, PathsJoinNamesBelowTheRoot) {
  WatchTree tree;
  uint32_t root = tree.addRoot("/home/u", 1);
  uint32_t a = tree.addChild(root, "a", 1);
  uint32_t b = tree.addChild(a, "b c", 1);
  EXPECT_EQ(tree.pathOf(b), "/home/u/a/b c");
  uint32_t top = tree.addRoot("/", 1);
  EXPECT_EQ(tree.pathOf(tree.addChild(top, "etc", 1)), "/etc");
  EXPECT_EQ(tree.depthOf(b), 2u);
  EXPECT_EQ(tree.findChild(a, "b c"), b);
  EXPECT_EQ(tree.findChild(a, "b"), WatchTree::kNone);
  EXPECT_EQ(tree.findRoot("/home/u"), root);

  // A move re-parents the whole subtree at once.
  uint32_t d = tree.addChild(b, "d", 1);
  tree.move(b, root, "moved");
  EXPECT_EQ(tree.pathOf(d), "/home/u/moved/d");
  EXPECT_TRUE(tree.isWithin(d, root));
  EXPECT_FALSE(tree.isWithin(d, a));
}

TEST(WatchTree, SubtreeListsExactlyTheNodesBelow) {
  WatchTree tree;
  uint32_t root = tree.addRoot("/r", 1);
  uint32_t a = tree.addChild(root, "a", 1);
  uint32_t b = tree.addChild(root, "b", 1);
  uint32_t a1 = tree.addChild(a, "1", 1);
  uint32_t a11 = tree.addChild(a1, "1", 1);
  tree.addChild(b, "2", 1);
  auto below = tree.subtree(a);
  std::sort(below.begin(), below.end());
  EXPECT_EQ(below, (std::vector<uint32_t>{a, a1, a11}));
}

// The watch lookup uses open addressing with backward-shift deletion: a wrong
// shift loses or mislabels watches only after particular insert/erase
// orders, so compare with a map over many random operations.
TEST(WatchTree, WatchLookupAgreesWithAMapThroughChurn) {
  WatchTree tree;
  uint32_t root = tree.addRoot("/r", 1);
  std::vector<uint32_t> nodes;
  for (int i = 0; i < 3000; ++i) nodes.push_back(tree.addChild(root, "f" + std::to_string(i), 1));
  std::map<int, uint32_t> oracle;
  std::mt19937 random(7);
  int nextWd = 1;
  for (int step = 0; step < 40000; ++step) {
    uint32_t node = nodes[random() % nodes.size()];
    if (tree[node].wd >= 0 && random() % 2) {
      oracle.erase(tree[node].wd);
      tree.clearWatch(node);
    } else if (tree[node].wd < 0) {
      int wd = nextWd++;
      tree.setWatch(node, wd);
      oracle[wd] = node;
    }
  }
  for (const auto& [wd, node] : oracle) ASSERT_EQ(tree.nodeOfWatch(wd), node) << wd;
  for (int wd = 1; wd < nextWd; ++wd) {
    if (!oracle.count(wd)) {
      ASSERT_EQ(tree.nodeOfWatch(wd), WatchTree::kNone) << wd;
    }
  }
}

TEST(WatchTree, GarbageCollectionFreesDeadChainsAndKeepsNames) {
  WatchTree tree;
  uint32_t root = tree.addRoot("/r", 1);
  uint32_t keep = tree.addChild(root, "keep", 1);
  uint32_t dead = tree.addChild(root, std::string(3000, 'x'), 1);
  uint32_t deadChild = tree.addChild(dead, std::string(3000, 'y'), 1);
  uint32_t keepChild = tree.addChild(keep, "child", 1);
  tree.kill(dead);
  // Not freed while a node still points at it: paths below stay whole.
  EXPECT_EQ(tree.pathOf(deadChild), "/r/" + std::string(3000, 'x') + "/" + std::string(3000, 'y'));
  tree.kill(deadChild);
  EXPECT_EQ(tree.collectGarbage(), 2u);  // the chain goes in one call
  EXPECT_EQ(tree.pathOf(keepChild), "/r/keep/child");  // names survive compaction
  EXPECT_EQ(tree.liveCount(), 3u);
  // Freed slots are reused.
  uint32_t again = tree.addChild(keep, "again", 1);
  EXPECT_TRUE(again == dead || again == deadChild);
  EXPECT_EQ(tree.pathOf(again), "/r/keep/again");
}

TEST(WatchTree, AgeGrowsWithTheLogOfDays) {
  EXPECT_EQ(WatchTree::ageOf(1000, 1000 + 3600), 0);
  EXPECT_EQ(WatchTree::ageOf(0, 86400), 1);
  EXPECT_EQ(WatchTree::ageOf(0, 86400 * 3), 2);
  EXPECT_LT(WatchTree::ageOf(0, 86400 * 30), WatchTree::ageOf(0, 86400 * 3000));
  EXPECT_NE(WatchTree::fingerprint(100, 1), WatchTree::fingerprint(100, 2));
  EXPECT_NE(WatchTree::fingerprint(100, 0), 0u);
}

}  // namespace
}  // namespace quorvi
