// Counts what operator new gives in this program, and refuses it on demand.
#pragma once

#include <atomic>
#include <cstddef>

struct Allocation {
    std::atomic<std::size_t> used{0};
    std::atomic<std::size_t> most{0};
    std::atomic<long> left{-1};  // allocations that still succeed; below 0: all
};
extern Allocation allocation;
