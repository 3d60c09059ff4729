#include "common/memory_release.h"

#include <malloc.h>

#include <atomic>
#include <chrono>

#include "common/dispatch.h"

namespace quorvi {

namespace {

using Clock = std::chrono::steady_clock;

// Long enough for the reply's own buffers to be freed first, short enough
// that nobody sees the peak linger.
constexpr double kSoonSeconds = 0.2;
// Quiet this long counts as the end of a burst of work. A release while work
// goes on would only hand back pages the next request takes again.
constexpr double kQuietSeconds = 2.0;

std::atomic<bool> gSoonScheduled{false};
std::atomic<bool> gQuietCheckScheduled{false};
std::atomic<Clock::rep> gLastWork{0};

void checkQuiet() {
  const auto quiet = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kQuietSeconds));
  Clock::time_point last{Clock::duration(gLastWork.load())};
  Clock::duration idle = Clock::now() - last;
  if (idle < quiet) {
    // Work came meanwhile: look again when it will have been quiet long enough.
    DispatchQueue::background().asyncAfter(std::chrono::duration<double>(quiet - idle), [] { checkQuiet(); });
    return;
  }
  gQuietCheckScheduled = false;
  releaseFreedMemory();
  // Work noted while the flag was still set found no check to come: look once more.
  if (Clock::now() - Clock::time_point(Clock::duration(gLastWork.load())) < quiet) releaseFreedMemoryWhenQuiet();
}

}  // namespace

void releaseFreedMemory() { ::malloc_trim(0); }

void limitAllocatorArenas() {
  ::mallopt(M_ARENA_MAX, 2);
  // A fixed threshold: blocks of 8 MiB or more (the index's text arenas,
  // walk buffers) get pages of their own and give them all back when freed.
  // Left to itself, glibc raises the threshold to the largest block freed so
  // far, and later large blocks land among small ones in the arenas.
  ::mallopt(M_MMAP_THRESHOLD, 8 * 1024 * 1024);
}

void releaseFreedMemorySoon() {
  if (gSoonScheduled.exchange(true)) return;
  DispatchQueue::background().asyncAfter(DispatchQueue::Seconds(kSoonSeconds), [] {
    gSoonScheduled = false;
    releaseFreedMemory();
  });
}

void releaseFreedMemoryWhenQuiet() {
  gLastWork.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
  if (gQuietCheckScheduled.exchange(true)) return;
  DispatchQueue::background().asyncAfter(DispatchQueue::Seconds(kQuietSeconds), [] { checkQuiet(); });
}

}  // namespace quorvi
