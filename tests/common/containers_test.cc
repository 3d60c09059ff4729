#include <gtest/gtest.h>

#include <thread>

#include "common/ring_buffer.h"
#include "common/unfair_lock.h"

namespace quorvi {
namespace {

TEST(RingBufferTest, IteratesOldestFirstAfterWrapping) {
  RingBuffer<std::string> ring(3, "");
  for (const char* s : {"a", "b", "c", "d"}) ring.push(s);
  EXPECT_EQ(ring.elements(), (std::vector<std::string>{"b", "c", "d"}));
  EXPECT_EQ(ring.newest(), "d");
  EXPECT_EQ(ring.oldest(), "b");
  EXPECT_EQ(ring.pushes(), 4u);
  EXPECT_EQ(ring.description(), "b, c, d, writeIndex: 1, readIndex: 0, newest: d, oldest: b");
}

TEST(RingBufferTest, UnfilledSlotsHoldTheEmptyElement) {
  RingBuffer<int> ring(4, -1);
  ring.push(7);
  EXPECT_EQ(ring.elements(), (std::vector<int>{-1, -1, -1, 7}));
  EXPECT_EQ(ring.newest(), 7);
}

TEST(UnfairlockArrayTest, RemoveByPrefixKeepsSiblingsWithALongerName) {
  UnfairlockArray<std::string> paths({"/Users/a/x", "/Users/ab", "/Users/a/y/z", "/Users/b", "/Users/a"});
  auto self = [](const std::string& s) -> std::string_view { return s; };
  EXPECT_EQ(paths.removeByPrefixes({}, self), 0u);
  EXPECT_EQ(paths.size(), 5u);
  EXPECT_EQ(paths.removeByPrefixes({"/Users/a/", "/nowhere/"}, self), 2u);
  EXPECT_EQ(paths.copy(), (std::vector<std::string>{"/Users/ab", "/Users/b", "/Users/a"}));
}

TEST(UnfairlockArrayTest, ReadersGetACopyWhileWritersAppend) {
  UnfairlockArray<int> values;
  std::thread writer([&] {
    for (int i = 0; i < 10000; ++i) values.append(i);
  });
  std::size_t last = 0;
  for (int i = 0; i < 1000; ++i) {
    auto copy = values.copy();
    EXPECT_GE(copy.size(), last);  // grows only; every copy is consistent
    for (std::size_t k = 0; k < copy.size(); k += 997) EXPECT_EQ(copy[k], int(k));
    last = copy.size();
  }
  writer.join();
  EXPECT_EQ(values.size(), 10000u);
}

}  // namespace
}  // namespace quorvi
