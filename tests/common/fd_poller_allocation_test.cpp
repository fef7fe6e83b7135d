// SPDX-License-Identifier: LGPL-2.1-or-later
// Counts the allocations of a pass of the poll loop. The global operator new of this test
// program is replaced by one that counts on threads that have asked for it; all others
// allocate as usual.
#include <tarvek/common/fd_poller.hpp>
#include <tarvek/common/file_descriptor.hpp>
#include <tarvek/executors/injector.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

namespace {

thread_local bool counting = false;
thread_local std::size_t allocations = 0;

void* allocate(std::size_t size)
{
    if (counting)
        ++allocations;
    if (void* const memory = std::malloc(size == 0 ? 1 : size))
        return memory;
    throw std::bad_alloc();
}

// Counts the allocations made on this thread while it lives.
class AllocationCounter {
public:
    AllocationCounter()
    {
        allocations = 0;
        counting = true;
    }
    AllocationCounter(AllocationCounter const&) = delete;
    AllocationCounter& operator=(AllocationCounter const&) = delete;
    ~AllocationCounter() { counting = false; }

    std::size_t count() const { return allocations; }
};

} // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

using tarvek::common::EventFd;
using tarvek::common::FDPoller;

TEST(FDPollerAllocations, PassWithNothingPendingAllocatesNothing)
{
    FDPoller poller;
    EventFd event;
    int calls = 0;
    poller.add(event.fd(), POLLIN, [&calls](pollfd&) { ++calls; });
    // A first pass commits the addition and drains the construction's wake-ups.
    poller.poll_and_run();

    event.increment(1);
    poller.wakeup();
    AllocationCounter const counter;
    poller.poll_and_run();
    poller.wakeup();
    poller.poll_and_run();
    EXPECT_EQ(counter.count(), 0U);
    EXPECT_EQ(calls, 2);
}

TEST(FDPollerAllocations, CounterSeesTheAllocationsOfAStagedAddition)
{
    FDPoller poller;
    poller.poll_and_run();
    EventFd event;
    AllocationCounter const counter;
    poller.add(event.fd(), POLLIN, [](pollfd&) {});
    poller.poll_and_run();
    EXPECT_GT(counter.count(), 0U);
}
