// How much a test or a benchmark takes from the free store. A program that links
// this has an operator new that counts.

#pragma once

namespace vrxutil::test {

/// Number of blocks that this thread has taken with new since its start.
long blocksTaken() noexcept;

}  // namespace vrxutil::test
