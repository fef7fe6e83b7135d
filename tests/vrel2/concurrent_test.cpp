// SPDX-License-Identifier: LGPL-2.1-or-later
// All three calls from many threads at once, while the policy file changes under them.
// Built into its own executable so that it also runs under ThreadSanitizer.
#include "vrel2_fixture.hpp"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace vrel2_test {
namespace {

using Vrel2Concurrent = Vrel2Test;

constexpr int checker_threads = 8;
constexpr int checks_per_thread = 2000;
// Disturbances go on until the checkers are done, and at least this often.
constexpr int min_disturbances = 20;
constexpr int init_cycles = 500;

// Both versions let alice read and refuse bob writing; they differ elsewhere, and in size.
constexpr char const* version_a = "deny bob org.sample.lamp.write.*\nallow * org.sample.lamp.read\n";
constexpr char const* version_b =
    "allow carol org.sample.lamp.*\ndeny * org.sample.lamp.write.*\nallow alice org.sample.lamp.*\n";

// Runs `work(i)` on `count` threads and joins them.
template <class Work>
void run_threads(int count, Work work)
{
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back(work, i);
}

template <class Step>
void repeat_until(std::atomic<bool> const& done, Step step)
{
    for (int i = 0; i < min_disturbances || !done; ++i)
        step(i);
}

// Failures seen by worker threads, reported once by the main thread.
struct Tally {
    std::atomic<int> wrong{0};
    std::atomic<int> first_code{-1};

    void wrong_answer(int code)
    {
        int expected = -1;
        first_code.compare_exchange_strong(expected, code);
        ++wrong;
    }
};

// Checks alice reading and bob writing; `tolerated` is the one code, besides the
// answers, that the disturbance allows.
void check_repeatedly(Tally& tally, int tolerated)
{
    for (int i = 0; i < checks_per_thread; ++i) {
        vrel2_error error{};
        bool const reading = i % 2 == 0;
        bool const allowed = reading ? vrel2_check_username("alice", "org.sample.lamp.read", &error)
                                     : vrel2_check_username("bob", "org.sample.lamp.write.level", &error);
        bool const right = reading ? allowed : error.code == VREL2_NOT_PERMITTED;
        if (!right && error.code != tolerated)
            tally.wrong_answer(error.code);
    }
}

void init_and_release(Tally& tally)
{
    vrel2_error error{};
    if (!vrel2_init(&error)) {
        tally.wrong_answer(error.code);
        return;
    }
    vrel2_release();
}

TEST_F(Vrel2Concurrent, ChecksAnswerRightlyWhileThePolicyIsReplacedAndShared)
{
    TempPolicy policy(version_a);
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text; // keeps the library loaded throughout
    Tally tally;
    std::atomic<bool> done{false};

    std::jthread rewriter([&] {
        repeat_until(done, [&](int i) { policy.replace(i % 2 == 0 ? version_b : version_a); });
        policy.replace(version_b);
    });
    std::jthread sharers([&] { run_threads(2, [&](int) { repeat_until(done, [&](int) { init_and_release(tally); }); }); });
    run_threads(checker_threads, [&](int) { check_repeatedly(tally, VREL2_OK); });
    done = true;
    rewriter.join();
    sharers.join();

    EXPECT_EQ(tally.wrong, 0) << "first wrong code " << tally.first_code;
    EXPECT_TRUE(allows("carol", "org.sample.lamp.write.level")); // the last version, b, is in force
}

TEST_F(Vrel2Concurrent, ChecksFailCleanlyWhileRewritesBreakThePolicy)
{
    TempPolicy policy(version_a);
    vrel2_error error{};
    ASSERT_TRUE(init(&error)) << error.text;
    Tally tally;
    std::atomic<bool> done{false};

    std::jthread rewriter([&] {
        repeat_until(done, [&](int i) { policy.replace(i % 2 == 0 ? "grant alice org.sample.lamp.read\n" : version_a); });
        policy.replace(version_b);
    });
    run_threads(checker_threads, [&](int) { check_repeatedly(tally, VREL2_POLICY_ERROR); });
    done = true;
    rewriter.join();

    EXPECT_EQ(tally.wrong, 0) << "first wrong code " << tally.first_code;
    EXPECT_TRUE(allows("carol", "org.sample.lamp.write.level")); // recovered: version b is in force
}

TEST_F(Vrel2Concurrent, ChecksRacingTheLastReleaseFailAsNotInitialised)
{
    TempPolicy policy(version_a);
    Tally tally;
    std::atomic<bool> done{false};
    std::jthread sharers([&] { run_threads(2, [&](int) { repeat_until(done, [&](int) { init_and_release(tally); }); }); });
    run_threads(checker_threads, [&](int) { check_repeatedly(tally, VREL2_NOT_INITIALISED); });
    done = true;
    sharers.join();

    EXPECT_EQ(tally.wrong, 0) << "first wrong code " << tally.first_code;
}

TEST_F(Vrel2Concurrent, InitsAndReleasesFromManyThreadsBalance)
{
    TempPolicy policy(version_a);
    Tally tally;
    run_threads(checker_threads, [&](int) {
        for (int i = 0; i < init_cycles; ++i)
            init_and_release(tally);
    });
    EXPECT_EQ(tally.wrong, 0) << "first wrong code " << tally.first_code;

    vrel2_error error{};
    EXPECT_FALSE(vrel2_check_username("alice", "org.sample.lamp.read", &error));
    EXPECT_EQ(error.code, VREL2_NOT_INITIALISED);
}

} // namespace
} // namespace vrel2_test
