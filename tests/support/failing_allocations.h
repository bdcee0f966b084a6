// Lets memory run out at a chosen allocation. It replaces the program's operator new, so one source file of a
// test binary includes it, and no other.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>

namespace FailingAllocations {

enum class Mode { kOne, kAllFromThere };

inline std::atomic<std::int64_t> g_left{INT64_MAX};  // allocations that still succeed
inline std::atomic<bool> g_forGood{false};           // those behind the failing one fail too

inline bool Fails()
{
    if (g_left.load(std::memory_order_relaxed) == INT64_MAX) {
        return false;
    }
    const std::int64_t before = g_left.fetch_sub(1);
    return before == 0 || (before < 0 && g_forGood);
}

inline void* Allocate(std::size_t size, std::size_t alignment = 0) noexcept
{
    if (Fails()) {
        return nullptr;
    }
    size = size == 0 ? 1 : size;
    return alignment == 0 ? std::malloc(size)
                          : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

inline void* AllocateOrThrow(std::size_t size, std::size_t alignment = 0)
{
    void* memory = Allocate(size, alignment);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

// Calls the function with its first allocation failing, then with its second, and so on, on whichever thread
// it is made, until a call meets no failure. Gives the number of calls that met one. Between the calls memory
// is there again; `check` then looks at what the failure has left behind.
inline int InTurn(
    Mode mode, const std::function<void()>& call, const std::function<void(int)>& check = [](int) {})
{
    for (int number = 0;; ++number) {
        g_forGood = mode == Mode::kAllFromThere;
        g_left = number;
        call();
        const bool failed = g_left.exchange(INT64_MAX) < 0;
        check(number);
        if (!failed) {
            return number;
        }
    }
}

}  // namespace FailingAllocations

// NOLINTBEGIN(misc-definitions-in-headers)
void* operator new(std::size_t size)
{
    return FailingAllocations::AllocateOrThrow(size);
}
void* operator new[](std::size_t size)
{
    return FailingAllocations::AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return FailingAllocations::Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return FailingAllocations::Allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
    return FailingAllocations::AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
// NOLINTEND(misc-definitions-in-headers)
