// Lets memory run out at a chosen allocation, and counts it. A test binary that uses it has
// support/failing_allocations.cpp among its sources, which replaces the program's operator new.
#pragma once

#include <functional>

namespace FailingAllocations {

enum class Mode { kOne, kAllFromThere };

// Calls the function with its first allocation failing, then with its second, and so on, on whichever thread
// it is made, until a call meets no failure. Gives the number of calls that met one. Between the calls memory
// is there again; `check` then looks at what the call has left behind.
int InTurn(
    Mode mode, const std::function<void()>& call, const std::function<void(int)>& check = [](int) {});

// The bytes in use now, without what the allocator keeps for itself.
std::size_t Used();

// How much more memory is in use at a time of the call than before it.
std::size_t MostUsedIn(const std::function<void()>& call);

}  // namespace FailingAllocations
