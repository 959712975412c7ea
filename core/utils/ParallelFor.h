#pragma once

// Cell loops split over a pool of threads.  The pool belongs to the process:
// its threads start when a call first asks for them and wait for work in
// between.  Calls from several threads at once share it; each call waits
// for its own parts only, and works on parts itself while it waits, so a
// call never waits on a pool that is busy with others.
#include <cstdint>
#include <functional>

namespace kavra {

// Runs body(part, begin, end) for `parts` contiguous ranges that cover
// [0, n) in order, at most `parts` of them at once; the calling thread runs
// part 0.  An exception thrown by a part is rethrown once all parts have
// ended; of several, the one of the lowest part.  With parts of 1, or n of 0,
// body runs on the calling thread alone (for n of 0: once, over [0, 0)).
void ParallelFor(std::uint64_t n, unsigned parts,
                 const std::function<void(unsigned part, std::uint64_t begin, std::uint64_t end)>& body);

// The range of part `part` of `parts` over [0, n): the first n % parts parts
// hold one element more.
inline void PartRange(std::uint64_t n, unsigned parts, unsigned part, std::uint64_t& begin, std::uint64_t& end)
{
    const std::uint64_t base = n / parts;
    const std::uint64_t extra = n % parts;
    begin = part * base + (part < extra ? part : extra);
    end = begin + base + (part < extra ? 1 : 0);
}

} // namespace kavra
