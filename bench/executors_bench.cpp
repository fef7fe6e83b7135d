// SPDX-License-Identifier: LGPL-2.1-or-later
// Costs of the executors: a submission and its run on one thread, a hop to a poll loop's
// thread and back, and a future's continuation through Injector::then. Each is measured next
// to a peer in the same run (Boost's loop_executor, or a plain mutex and condition variable
// queue), so that figures can be read as ratios independent of the machine.
#include <tarvek/common/fd_poller.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>

#include <benchmark/benchmark.h>

#include <boost/thread/executors/loop_executor.hpp>
#include <boost/thread/future.hpp>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <poll.h>
#include <thread>

using tarvek::common::FDPoller;
using tarvek::detail::executors::ExecutorBase;
using tarvek::detail::executors::Injector;

namespace {

// The peer of the hop: a queue with a mutex and a condition variable, popped by blocking.
class ConditionQueue {
public:
    void push(std::function<void()> task)
    {
        {
            std::lock_guard const lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        ready_.notify_one();
    }

    std::function<void()> pop()
    {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return !tasks_.empty(); });
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        return task;
    }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> tasks_;
};

// Waits for work on an executor's descriptor and runs it dry.
void drive_once(ExecutorBase& executor)
{
    pollfd entry{executor.event_fd(), POLLIN, 0};
    ::poll(&entry, 1, -1);
    executor.run_dry();
}

void SubmitAndRun(benchmark::State& state)
{
    ExecutorBase executor;
    Injector injector(executor);
    int runs = 0;
    for (auto _ : state) {
        injector.submit([&runs] { ++runs; });
        executor.run_dry();
    }
    benchmark::DoNotOptimize(runs);
}
BENCHMARK(SubmitAndRun);

void SubmitAndRun_BoostLoopExecutor(benchmark::State& state)
{
    boost::executors::loop_executor executor;
    int runs = 0;
    for (auto _ : state) {
        executor.submit([&runs] { ++runs; });
        executor.run_queued_closures();
    }
    benchmark::DoNotOptimize(runs);
}
BENCHMARK(SubmitAndRun_BoostLoopExecutor);

// A burst of 64 tasks pays the descriptor's write and read once.
void SubmitBurstAndRun(benchmark::State& state)
{
    ExecutorBase executor;
    Injector injector(executor);
    int runs = 0;
    for (auto _ : state) {
        for (int i = 0; i < 64; ++i)
            injector.submit([&runs] { ++runs; });
        executor.run_dry();
    }
    state.SetItemsProcessed(state.iterations() * 64);
    benchmark::DoNotOptimize(runs);
}
BENCHMARK(SubmitBurstAndRun);

void SubmitBurstAndRun_BoostLoopExecutor(benchmark::State& state)
{
    boost::executors::loop_executor executor;
    int runs = 0;
    for (auto _ : state) {
        for (int i = 0; i < 64; ++i)
            executor.submit([&runs] { ++runs; });
        executor.run_queued_closures();
    }
    state.SetItemsProcessed(state.iterations() * 64);
    benchmark::DoNotOptimize(runs);
}
BENCHMARK(SubmitBurstAndRun_BoostLoopExecutor);

// Submit to an FDPoller's loop thread; the task there submits the continuation back to
// this thread's executor, which waits on its descriptor and runs it.
void HopThroughPollLoop(benchmark::State& state)
{
    FDPoller poller;
    std::thread loop([&poller] { poller.loop(); });
    ExecutorBase home;
    Injector const back(home);
    Injector there(poller.executor());
    for (auto _ : state) {
        bool returned = false;
        there.submit([back, &returned]() mutable { back.submit([&returned] { returned = true; }); });
        while (!returned)
            drive_once(home);
    }
    poller.settle();
    poller.stop();
    loop.join();
}
BENCHMARK(HopThroughPollLoop)->UseRealTime();

void HopThroughPollLoop_ConditionQueues(benchmark::State& state)
{
    ConditionQueue there;
    ConditionQueue back;
    bool running = true;
    std::thread worker([&] {
        while (running)
            there.pop()();
    });
    for (auto _ : state) {
        bool returned = false;
        there.push([&back, &returned] { back.push([&returned] { returned = true; }); });
        while (!returned)
            back.pop()();
    }
    there.push([&running] { running = false; });
    worker.join();
}
BENCHMARK(HopThroughPollLoop_ConditionQueues)->UseRealTime();

void ThenContinuation(benchmark::State& state)
{
    ExecutorBase executor;
    Injector injector(executor);
    for (auto _ : state) {
        boost::promise<int> promise;
        boost::future<int> result = injector.then(promise.get_future(), [](boost::future<int> value) {
            return value.get() + 1;
        });
        promise.set_value(1);
        executor.run_dry();
        benchmark::DoNotOptimize(result.get());
    }
}
BENCHMARK(ThenContinuation);

void ThenContinuation_BoostLoopExecutor(benchmark::State& state)
{
    boost::executors::loop_executor executor;
    for (auto _ : state) {
        boost::promise<int> promise;
        boost::future<int> result = promise.get_future().then(executor, [](boost::future<int> value) {
            return value.get() + 1;
        });
        promise.set_value(1);
        executor.run_queued_closures();
        benchmark::DoNotOptimize(result.get());
    }
}
BENCHMARK(ThenContinuation_BoostLoopExecutor);

} // namespace

BENCHMARK_MAIN();
