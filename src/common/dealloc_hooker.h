// Runs its handler exactly once when destroyed. Attach one to another object's
// lifetime to learn when that object goes away.
#pragma once

#include <functional>

namespace quorvi {

class DeallocHooker {
 public:
  explicit DeallocHooker(std::function<void()> handler) : handler(std::move(handler)) {}
  ~DeallocHooker() {
    if (handler) handler();
  }
  DeallocHooker(const DeallocHooker&) = delete;
  DeallocHooker& operator=(const DeallocHooker&) = delete;

 private:
  std::function<void()> handler;
};

}  // namespace quorvi
