#include "tests/frame/allocation.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

Allocation allocation;

void* operator new(std::size_t size)
{
    void* memory = allocation.left == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    if (allocation.left > 0) {
        --allocation.left;
    }
    const std::size_t used = allocation.used += malloc_usable_size(memory);
    std::size_t most = allocation.most;
    while (used > most && !allocation.most.compare_exchange_weak(most, used)) {
    }
    return memory;
}

void operator delete(void* memory) noexcept
{
    allocation.used -= malloc_usable_size(memory);
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}
