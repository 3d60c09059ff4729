// The parsers of tool and /proc output, on captured real output.
#include <gtest/gtest.h>

#include "listening_child.h"
#include "processes/lsof_parser.h"
#include "processes/proc_net_listeners.h"
#include "processes/process_table.h"

namespace quorvi {
namespace {

using testing::fixture;

TEST(LsofParser, CapturedOutputGivesOneListenerPerProcessAndPort) {
  // Three processes with a port over IPv4 and IPv6 and a second port, each
  // also holding both ends of a connection; a fourth with blanks in its name.
  auto listeners = parseLsofOutput(fixture("lsof_listeners.txt"));
  std::vector<Listener> expected = {
      {"My Server", "root", 6254, 43000},       {"My Server", "root", 6254, 43001},
      {"bad\\xff\\xfename", "root", 6255, 43010}, {"bad\\xff\\xfename", "root", 6255, 43011},
      {"node", "root", 6256, 43020},            {"node", "root", 6256, 43021},
      {"a b  c", "root", 6448, 43031},
  };
  EXPECT_EQ(listeners, expected);
}

TEST(LsofParser, LinesThatAreNotListenersYieldNothing) {
  EXPECT_FALSE(parseLsofLine("COMMAND PID USER FD TYPE DEVICE SIZE/OFF NODE NAME"));
  EXPECT_FALSE(parseLsofLine("node 123 alice 20u IPv6 0x1 0t0 TCP *:3000"));  // nine pieces
  EXPECT_FALSE(parseLsofLine(""));
  EXPECT_FALSE(parseLsofLine("node 123 alice 20u IPv4 0x1 0t0 TCP 127.0.0.1:52000->127.0.0.1:3000 (ESTABLISHED)"));
  EXPECT_FALSE(parseLsofLine("lsof: WARNING: can't stat() fuse file system /run/user/1000/doc"));
}

TEST(LsofParser, FieldsOfAListeningLine) {
  auto node = parseLsofLine("node 123 alice 20u IPv6 0x1 0t0 TCP *:3000 (LISTEN)");
  ASSERT_TRUE(node);
  EXPECT_EQ(*node, (Listener{"node", "alice", 123, 3000}));
  // Runs of blanks separate like one; \x20 becomes a blank again.
  auto server = parseLsofLine("My\\x20Server   77  bob  5u  IPv4 0x2  0t0  TCP  [::1]:8080  (LISTEN)");
  ASSERT_TRUE(server);
  EXPECT_EQ(*server, (Listener{"My Server", "bob", 77, 8080}));
  // Unreadable numbers are 0; a signed pid is accepted; no colon: the whole piece.
  EXPECT_EQ(parseLsofLine("x pid u 1u IPv4 0 0t0 TCP *:http (LISTEN)")->pid, 0);
  EXPECT_EQ(parseLsofLine("x pid u 1u IPv4 0 0t0 TCP *:http (LISTEN)")->port, 0);
  EXPECT_EQ(parseLsofLine("x +42 u 1u IPv4 0 0t0 TCP 9000 (LISTEN)")->pid, 42);
  EXPECT_EQ(parseLsofLine("x +42 u 1u IPv4 0 0t0 TCP 9000 (LISTEN)")->port, 9000);
  EXPECT_EQ(parseLsofLine("x 1 u 1u IPv4 0 0t0 TCP *:99999999999999999999 (LISTEN)")->port, 0);
}

TEST(LsofParser, DuplicatesAndBadOutput) {
  std::string pair =
      "node 123 alice 20u IPv4 0x1 0t0 TCP *:3000 (LISTEN)\n"
      "node 123 alice 21u IPv6 0x2 0t0 TCP *:3000 (LISTEN)\n"
      "node 124 alice 21u IPv6 0x2 0t0 TCP *:3000 (LISTEN)\n";
  auto listeners = parseLsofOutput(pair);
  ASSERT_EQ(listeners.size(), 2u);  // same pid and port once; another pid on it kept
  EXPECT_EQ(listeners[1].pid, 124);
  EXPECT_TRUE(parseLsofOutput("").empty());
  // Raw bytes that are not UTF-8 (lsof itself escapes them, but any tool
  // output may carry them) make the whole output unusable.
  EXPECT_TRUE(parseLsofOutput(fixture("lsof_raw_bytes.txt")).empty());
  EXPECT_EQ(parseLsofOutput("node 1 a 3u IPv4 0 0t0 TCP *:1 (LISTEN)\r\n").size(), 1u);
}

TEST(PsParser, HeaderIsNeverAnEntry) {
  std::string captured = fixture("ps_busy.txt");
  auto rows = parsePsOutput(captured);
  ASSERT_TRUE(rows);
  ASSERT_EQ(rows->size(), 77u);  // every line of the capture but the header
  EXPECT_EQ(rows->front().pid, 1);
  EXPECT_EQ(rows->front().ppid, 0);
  EXPECT_EQ(rows->front().cpu, "0.1");
  EXPECT_EQ(rows->front().residentKilobytes, 13676);
  for (const auto& row : *rows) EXPECT_GT(row.pid, 0);
  // Only a header, or nothing at all: no rows, but not a failure.
  EXPECT_EQ(parsePsOutput("  PID  PPID %CPU   RSS\n")->size(), 0u);
  EXPECT_EQ(parsePsOutput("")->size(), 0u);
}

TEST(PsParser, OddLinesAreSkipped) {
  auto rows = parsePsOutput(fixture("ps_odd_lines.txt"));
  ASSERT_TRUE(rows);
  std::vector<int32_t> pids;
  for (const auto& row : *rows) pids.push_back(row.pid);
  // Skipped: blank, "abc", out of 32-bit range both ways, three and one columns.
  EXPECT_EQ(pids, (std::vector<int32_t>{1, 79, 80, 81}));
  EXPECT_EQ((*rows)[1].cpu, "2.5");  // tabs separate too; a fifth column is ignored
  EXPECT_EQ((*rows)[1].residentKilobytes, 2048);
  EXPECT_EQ((*rows)[2].ppid, 0);  // an unreadable parent id reads as 0
  EXPECT_FALSE(parsePsOutput("  PID  PPID %CPU   RSS\n    1     0  0.0 \xff\xfe\n"));
}

TEST(ProcStat, NamesWithBlanksAndParentheses) {
  auto row = parseProcStat(
      "4242 (a) b (c)) S 1 4242 4242 0 -1 4194560 100 0 0 0 250 50 0 0 20 0 1 0 1000 1000000 300 "
      "18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 17 0 0 0 0 0 0\n",
      100.0, 100, 4);
  ASSERT_TRUE(row);
  EXPECT_EQ(row->pid, 4242);
  EXPECT_EQ(row->ppid, 1);
  EXPECT_EQ(row->commandName, "a) b (c)");
  EXPECT_EQ(row->residentKilobytes, 1200);
  // 300 ticks of 100 per second over 90 s of life: 3.3 %.
  EXPECT_EQ(row->cpu, "3.3");
  EXPECT_FALSE(row->isKernelThread);
  auto kernelThread = parseProcStat("2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 0 0 0 20 0 1 0 3 0 0 "
                                    "18446744073709551615 0 0 0 0 0 0 0 2147483647 0 0 0 0 17 1 0 0 0 0 0\n",
                                    100.0, 100, 4);
  ASSERT_TRUE(kernelThread);
  EXPECT_TRUE(kernelThread->isKernelThread);  // flags 0x208040 hold PF_KTHREAD
  EXPECT_FALSE(parseProcStat("4242 (cut short) S 1", 100.0, 100, 4));
  EXPECT_FALSE(parseProcStat("", 100.0, 100, 4));
}

TEST(ProcStat, ProcessorShareIsPrintedLikePs) {
  EXPECT_EQ(formatProcessorShare(0, 0, 50.0, 100), "0.0");
  EXPECT_EQ(formatProcessorShare(5000, 0, 50.0, 100), "100");  // whole percent from 100 on
  EXPECT_EQ(formatProcessorShare(9999, 0, 50.0, 100), "199");
  EXPECT_EQ(formatProcessorShare(100, 5000, 50.0, 100), "0.0");  // started this second
  EXPECT_EQ(formatProcessorShare(100, 0, 50.0, 0), "0.0");
}

TEST(ProcNetTcp, CapturedTablesGiveTheListeningSockets) {
  // Captured while a process listened on 127.0.0.1:43060, [::1]:43060 and
  // *:43061 and held a connection to itself.
  auto v4 = parseProcNetTcp(fixture("proc_net_tcp.txt"));
  auto v6 = parseProcNetTcp(fixture("proc_net_tcp6.txt"));
  std::vector<int64_t> ports;
  for (const auto& socket : v4) ports.push_back(socket.port);
  EXPECT_EQ(ports, (std::vector<int64_t>{43060, 2024, 43061}));  // connection rows are not listeners
  ASSERT_EQ(v6.size(), 1u);
  EXPECT_EQ(v6[0].port, 43060);
  EXPECT_EQ(v4[0].inode, 57713u);
  EXPECT_TRUE(parseProcNetTcp("   0: 0100007F:ZZZZ 00000000:0000 0A 0 0 0 0 0 1\n").empty());
  EXPECT_TRUE(parseProcNetTcp("garbage\n\n  0: 0100007F\n").empty());
}

}  // namespace
}  // namespace quorvi
