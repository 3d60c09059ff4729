// Traps for code that reads files found on disk: a FIFO where a file is
// expected blocks a plain open() until a writer comes. expectReturnsWithout-
// Blocking runs the code on a thread of its own; if it has not returned after
// a generous wait, the test fails and the FIFO is opened for writing once, so
// that the stuck reader gets its end of file and the test can finish.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>

namespace quorvi::testing {

// Makes a FIFO at path (its folder must exist); true on success.
inline bool makeFifo(const std::string& path) { return ::mkfifo(path.c_str(), 0600) == 0; }

inline void expectReturnsWithoutBlocking(const std::string& fifo, const std::function<void()>& work,
                                         const std::string& what,
                                         std::chrono::seconds patience = std::chrono::seconds(10)) {
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  std::thread([work, done] {
    work();
    done->set_value();
  }).detach();
  if (finished.wait_for(patience) == std::future_status::ready) return;
  ADD_FAILURE() << what << " blocked on the FIFO " << fifo;
  // Free the reader: a writer that opens and closes gives it end of file.
  for (int i = 0; i < 100 && finished.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready; ++i) {
    int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd >= 0) ::close(fd);
  }
  finished.wait_for(std::chrono::seconds(5));
}

}  // namespace quorvi::testing
