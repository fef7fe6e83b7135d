// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/caller.hpp>

namespace tarvek {

namespace {

// Inside the library, so that the server and the runtime share one per thread.
thread_local Caller const* current = nullptr;

} // namespace

Caller const* current_caller() noexcept
{
    return current;
}

CallerScope::CallerScope(Caller const* caller) noexcept
    : previous_(current)
{
    current = caller;
}

CallerScope::~CallerScope()
{
    current = previous_;
}

} // namespace tarvek
