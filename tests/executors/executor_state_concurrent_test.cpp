// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <poll.h>
#include <thread>
#include <vector>

using tarvek::detail::executors::ExecutorBase;
using tarvek::detail::executors::Injector;

namespace {

constexpr auto time_limit = std::chrono::seconds(20);

// Waits at most `timeout` for the descriptor to become readable.
void wait_readable(int fd, std::chrono::milliseconds timeout)
{
    pollfd entry{fd, POLLIN, 0};
    ::poll(&entry, 1, static_cast<int>(timeout.count()));
}

} // namespace

TEST(ExecutorConcurrency, TasksOfManySubmittersRunOnceEachAndInOrderPerSubmitter)
{
    constexpr int submitters = 4;
    constexpr int tasks_each = 2000;
    ExecutorBase executor;
    // Written only by the driving thread, which runs every task.
    std::vector<std::vector<int>> seen(submitters);
    std::atomic<int> total = 0;

    std::vector<std::thread> threads;
    for (int s = 0; s < submitters; ++s) {
        threads.emplace_back([&, s, injector = Injector(executor)]() mutable {
            for (int i = 0; i < tasks_each; ++i) {
                injector.submit([&seen, &total, s, i] {
                    seen[s].push_back(i);
                    ++total;
                });
            }
        });
    }

    auto const deadline = std::chrono::steady_clock::now() + time_limit;
    while (total < submitters * tasks_each && std::chrono::steady_clock::now() < deadline) {
        wait_readable(executor.event_fd(), std::chrono::milliseconds(100));
        executor.run_dry();
    }
    for (auto& thread : threads)
        thread.join();
    executor.run_dry();

    ASSERT_EQ(total, submitters * tasks_each);
    for (int s = 0; s < submitters; ++s) {
        ASSERT_EQ(seen[s].size(), static_cast<std::size_t>(tasks_each));
        for (int i = 0; i < tasks_each; ++i)
            ASSERT_EQ(seen[s][i], i) << "submitter " << s;
    }
}

TEST(ExecutorConcurrency, CloseRacingWithSubmitLosesNoTaskAndRunsNoneTwice)
{
    struct Tally {
        std::atomic<int> runs = 0;
        std::atomic<int> unrun = 0;
        std::atomic<int> run_twice = 0;
    };
    // One per submission attempt; counts on destruction whether its task ran.
    struct Token {
        explicit Token(Tally& owner) : tally(owner) {}
        Token(Token const&) = delete;
        Token& operator=(Token const&) = delete;
        Tally& tally;
        std::atomic<int> runs = 0;
        ~Token()
        {
            int const n = runs;
            if (n == 0)
                ++tally.unrun;
            if (n > 1)
                ++tally.run_twice;
        }
    };

    Tally tally;
    std::atomic<int> attempts = 0;
    std::atomic<int> refused = 0;
    {
        ExecutorBase executor;
        std::atomic<bool> closed = false;
        std::vector<std::thread> submitters;
        for (int s = 0; s < 3; ++s) {
            submitters.emplace_back([&, injector = Injector(executor)]() mutable {
                auto const deadline = std::chrono::steady_clock::now() + time_limit;
                while (std::chrono::steady_clock::now() < deadline) {
                    auto token = std::make_shared<Token>(tally);
                    ++attempts;
                    try {
                        injector.submit([token = std::move(token), &tally] {
                            ++token->runs;
                            ++tally.runs;
                        });
                    } catch (tarvek::invalid_state_error const& error) {
                        EXPECT_STREQ(error.what(), "Executor is already closed");
                        ++refused;
                        return;
                    }
                }
            });
        }
        auto state = executor.state();
        std::thread driver([&] {
            while (!closed)
                state->try_executing_one();
        });
        std::thread closer([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            state->close();
            closed = true;
        });
        closer.join();
        driver.join();
        for (auto& thread : submitters)
            thread.join();
        EXPECT_FALSE(state->try_executing_one());
    }
    EXPECT_EQ(refused, 3);
    EXPECT_EQ(tally.run_twice, 0);
    EXPECT_EQ(tally.runs + tally.unrun, attempts);
    EXPECT_GT(tally.runs, 0);
}
