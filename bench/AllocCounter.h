// Counts every allocation the program makes through operator new, so that a benchmark
// can show that a steady state allocates nothing.
#pragma once

#include <cstdint>

namespace klbench {
// Allocations made so far by any thread.
uint64_t AllocationCount();
}  // namespace klbench
