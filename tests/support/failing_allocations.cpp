#include "tests/support/failing_allocations.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::int64_t> g_left{INT64_MAX};  // allocations that still succeed
std::atomic<bool> g_forGood{false};           // those behind the failing one fail too

std::atomic<std::size_t> g_used;
std::atomic<std::size_t> g_most;

bool Fails()
{
    if (g_left.load(std::memory_order_relaxed) == INT64_MAX) {
        return false;
    }
    const std::int64_t before = g_left.fetch_sub(1);
    return before == 0 || (before < 0 && g_forGood);
}

void* Allocate(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) noexcept
{
    void* memory = Fails() ? nullptr : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
    g_most = std::max(g_most.load(), g_used += malloc_usable_size(memory));
    return memory;
}

void Free(void* memory)
{
    g_used -= malloc_usable_size(memory);
    std::free(memory);
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment = alignof(std::max_align_t))
{
    void* memory = Allocate(size == 0 ? 1 : size, alignment);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

}  // namespace

int FailingAllocations::InTurn(Mode mode, const std::function<void()>& call, const std::function<void(int)>& check)
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

std::size_t FailingAllocations::Used()
{
    return g_used;
}

std::size_t FailingAllocations::MostUsedIn(const std::function<void()>& call)
{
    const std::size_t before = g_used;
    g_most = before;
    call();
    return g_most - before;
}

void* operator new(std::size_t size)
{
    return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
    return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept
{
    Free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    Free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    Free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    Free(memory);
}
