#include "tests/support/failing_allocations.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::int64_t> g_left{INT64_MAX};  // allocations that still succeed
std::atomic<bool> g_forGood{false};           // those behind the failing one fail too

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
    return Fails() ? nullptr : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
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
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
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
