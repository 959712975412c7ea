#pragma once

// Cell loops in chunks over a pool of threads.  The pool belongs to the
// process: its threads start when a call first asks for them and wait for
// work in between.  Calls from several threads at once share it.
//
// A call cuts [0, n) into chunks of a fixed size, and its threads take the
// next chunk from a shared counter until none is left: a thread that a busy
// machine slows down takes fewer chunks, and nobody waits for a fixed half.
// The calling thread works too, so a call never waits on a pool that is
// busy with others.  Which thread runs a chunk never changes what the chunk
// computes: the bits are the same for any number of threads.
#include <cstdint>
#include <functional>

namespace kavra {

// Runs body(begin, end) for the chunks [c * chunk, min(n, (c + 1) * chunk))
// of [0, n), on at most `threads` threads (the calling thread one of them).
// With threads of 1 the chunks run in order on the calling thread, and the
// first exception ends the call.  Otherwise an exception stops the handing
// out of chunks, and once every running chunk has ended the exception of
// the lowest chunk is rethrown.  n of 0 runs nothing.
void ParallelChunks(std::uint64_t n, std::uint64_t chunk, unsigned threads,
                    const std::function<void(std::uint64_t begin, std::uint64_t end)>& body);

// The most threads a call uses: more than the machine has cores never helps
// a loop over memory.
unsigned UsefulThreads(unsigned requested);

} // namespace kavra
