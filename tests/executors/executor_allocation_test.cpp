// SPDX-License-Identifier: LGPL-2.1-or-later
// Allocation behaviour of the executors. The global operator new of this test program is
// replaced by one that records allocations, and can refuse them, on threads that have asked
// for it; all others allocate as usual.
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/executor_state.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <vector>

namespace {

struct Allocation {
    void const* address;
    std::size_t size;
};

thread_local bool watching = false;
thread_local bool refusing = false;
// Fixed capacity: recording must not allocate itself.
thread_local Allocation recorded[64];
thread_local std::size_t recorded_count = 0;

void* allocate(std::size_t size)
{
    if (refusing)
        throw std::bad_alloc();
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    if (watching && recorded_count < std::size(recorded))
        recorded[recorded_count++] = {memory, size};
    return memory;
}

// Records the allocations made on this thread while it lives.
class AllocationRecorder {
public:
    AllocationRecorder()
    {
        recorded_count = 0;
        watching = true;
    }
    AllocationRecorder(AllocationRecorder const&) = delete;
    AllocationRecorder& operator=(AllocationRecorder const&) = delete;
    ~AllocationRecorder() { watching = false; }

    std::vector<Allocation> allocations() const
    {
        watching = false;
        std::vector<Allocation> result(recorded, recorded + recorded_count);
        watching = true;
        return result;
    }
};

// Refuses every allocation on this thread while it lives.
class AllocationRefusal {
public:
    AllocationRefusal() { refusing = true; }
    AllocationRefusal(AllocationRefusal const&) = delete;
    AllocationRefusal& operator=(AllocationRefusal const&) = delete;
    ~AllocationRefusal() { refusing = false; }
};

} // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

using tarvek::detail::executors::ExecutorBase;
using tarvek::detail::executors::PollableLoopExecutorSharedState;
using tarvek::detail::executors::work;

TEST(ExecutorBaseAllocations, StateSharesOneAllocationWithItsControlBlock)
{
    std::vector<Allocation> allocations;
    std::unique_ptr<ExecutorBase> executor;
    {
        AllocationRecorder const recorder;
        executor = std::make_unique<ExecutorBase>();
        allocations = recorder.allocations();
    }
    auto const* const state = reinterpret_cast<char const*>(executor->state().get());
    auto const holding = std::find_if(allocations.begin(), allocations.end(), [state](Allocation const& block) {
        auto const* const start = static_cast<char const*>(block.address);
        return state >= start && state < start + block.size;
    });
    ASSERT_NE(holding, allocations.end());
    // The block holds more than the state: the control block lives in it too.
    EXPECT_GT(holding->size, sizeof(PollableLoopExecutorSharedState));
}

TEST(LoopExecutorSharedStateAllocations, RefusedQueueGrowthRaisesFromSubmitWithTheLockReleased)
{
    PollableLoopExecutorSharedState state;
    int runs = 0;
    std::vector<work> tasks(1000, work([&runs] { ++runs; }));
    std::size_t accepted = 0;
    bool refused = false;
    for (auto& task : tasks) {
        AllocationRefusal const refusal;
        try {
            state.submit(std::move(task));
            ++accepted;
        } catch (std::bad_alloc const&) {
            refused = true;
            break;
        }
    }
    ASSERT_TRUE(refused);
    EXPECT_GT(accepted, 0U);
    EXPECT_FALSE(state.closed());
    while (state.try_executing_one()) {
    }
    EXPECT_EQ(runs, static_cast<int>(accepted));
}
