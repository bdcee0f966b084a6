#pragma once

#include <exception>

#include "logger.h"
#include "module_entry.h"

// Runs the body of an entry point: what it throws becomes a record and a zero result.
template <typename Body>
int RunEntry(const char* feature, Body body) noexcept
{
    try {
        return body() ? 1 : 0;
    } catch (const std::exception& error) {  // memory has run out
        NE_LOG(ERROR, "Feature has failed.[feature=%s what=%s]", feature, error.what());
        return 0;
    }
}
