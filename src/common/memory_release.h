// Giving freed memory back to the system. The allocator keeps what a large
// reply, a search or a scan freed, for later use, so a service that once
// answered a big request or rescanned a big tree would keep its peak size for
// good. Two moments hand it back: shortly after a big reply, and once the
// service has been quiet for a while after any work. Each release runs on the
// background pool, and calls in between are folded into one.
#pragma once

namespace quorvi {

// After a big reply: a release shortly after.
void releaseFreedMemorySoon();
// After any work: a release once no work was noted for a while (cheap to
// call for every request).
void releaseFreedMemoryWhenQuiet();

// Runs the release now, on the calling thread (tools and tests).
void releaseFreedMemory();

// Call once at start, before any thread: two allocator arenas for every
// thread. Each thread that allocates otherwise gets an arena of its own, and
// what one thread frees between another's live blocks stays resident: after
// 16 clients and a few rescans the service kept 10 MB more than before them
// with the default (eight per core). Fewer is leaner still (a 615k-record
// index kept 71 B a record resident with four arenas, 65-70 B with two,
// 60 B with one), but two text recognitions at once then queue on the one
// arena's lock (1.3-1.6x the time of one, against 1.0x with two). Blocks of
// 8 MiB or more are mapped on their own: with both, the 615k-record index
// keeps 60 B a record resident.
void limitAllocatorArenas();

}  // namespace quorvi
