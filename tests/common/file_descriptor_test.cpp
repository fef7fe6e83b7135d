// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/file_descriptor.hpp>

#include <common/descriptor_helpers.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <system_error>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

using tarvek::common::EventFd;
using tarvek::common::FileDescriptor;
using testing::Throws;

using tarvek::test::exit_with_verdict;
using tarvek::test::is_open;
using tarvek::test::raises_system_error;
using tarvek::test::refuse_system_calls;
using tarvek::test::system_code;

TEST(FileDescriptor, MoveConstructionLeavesMinusOneInTheSource)
{
    FileDescriptor source(::eventfd(0, EFD_CLOEXEC));
    int const number = source.fd();
    FileDescriptor target(std::move(source));
    EXPECT_EQ(target.fd(), number);
    EXPECT_EQ(source.fd(), -1); // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(is_open(number));
}

TEST(FileDescriptor, MoveAssignmentClosesItsOwnDescriptorFirst)
{
    FileDescriptor target(::eventfd(0, EFD_CLOEXEC));
    FileDescriptor source(::eventfd(0, EFD_CLOEXEC));
    int const old_number = target.fd();
    int const taken = source.fd();
    target = std::move(source);
    EXPECT_FALSE(is_open(old_number));
    EXPECT_EQ(target.fd(), taken);
    EXPECT_EQ(source.fd(), -1); // NOLINT(bugprone-use-after-move)
}

TEST(FileDescriptor, AssignmentToItselfClosesAndLeavesMinusOne)
{
    FileDescriptor descriptor(::eventfd(0, EFD_CLOEXEC));
    int const number = descriptor.fd();
    FileDescriptor& alias = descriptor;
    descriptor = std::move(alias);
    EXPECT_EQ(descriptor.fd(), -1);
    EXPECT_FALSE(is_open(number));
}

TEST(FileDescriptor, CloseStoresMinusOneAndASecondCloseDoesNothing)
{
    FileDescriptor descriptor(::eventfd(0, EFD_CLOEXEC));
    int const number = descriptor.fd();
    descriptor.close();
    EXPECT_EQ(descriptor.fd(), -1);
    EXPECT_FALSE(is_open(number));
    // Were the number closed again, a descriptor that took it meanwhile would be lost.
    FileDescriptor successor(::eventfd(0, EFD_CLOEXEC));
    descriptor.close();
    EXPECT_TRUE(is_open(successor.fd()));
}

TEST(FileDescriptor, NegativeValueOwnsNothing)
{
    FileDescriptor descriptor(-5);
    descriptor.close();
    EXPECT_EQ(descriptor.fd(), -5);
}

TEST(FileDescriptor, DestructionClosesTheDescriptor)
{
    int number = -1;
    {
        FileDescriptor descriptor(::eventfd(0, EFD_CLOEXEC));
        number = descriptor.fd();
        ASSERT_TRUE(is_open(number));
    }
    EXPECT_FALSE(is_open(number));
}

TEST(FileDescriptor, DefaultOwnsNothing)
{
    FileDescriptor const none;

    EXPECT_EQ(none.fd(), -1);
    EXPECT_FALSE(none.valid());
}

TEST(FileDescriptor, ReleaseHandsTheDescriptorOverWithoutClosingIt)
{
    FileDescriptor held(::eventfd(0, EFD_CLOEXEC));
    int const number = held.fd();

    int const released = held.release();

    EXPECT_EQ(released, number);
    EXPECT_EQ(held.fd(), -1);
    EXPECT_TRUE(is_open(released));
    ::close(released);
}

TEST(FileDescriptor, DuplicateIsANewCloseOnExecHandleOfTheSameFile)
{
    FileDescriptor const original(::eventfd(0, EFD_NONBLOCK));

    FileDescriptor const copy = FileDescriptor::duplicate(original.fd());

    ASSERT_TRUE(copy.valid());
    EXPECT_NE(copy.fd(), original.fd());
    EXPECT_GE(copy.fd(), 3);
    EXPECT_NE(::fcntl(copy.fd(), F_GETFD) & FD_CLOEXEC, 0);
    std::uint64_t const one = 1;
    ASSERT_EQ(::write(copy.fd(), &one, sizeof one), 8);
    EXPECT_EQ(EventFd::poll_fd(original.fd()), 1U); // one counter behind both numbers
}

TEST(FileDescriptor, DuplicateOfAClosedNumberRaisesWithEbadf)
{
    int const number = ::eventfd(0, EFD_CLOEXEC);
    ::close(number);

    EXPECT_THAT([&] { FileDescriptor::duplicate(number); },
                raises_system_error(EBADF, std::string("could not duplicate a descriptor: ") +
                                               std::system_category().message(EBADF)));
}

TEST(EventFd, IsCreatedNonBlockingAndCloseOnExec)
{
    EventFd event;
    EXPECT_NE(::fcntl(event.fd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(::fcntl(event.fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(EventFd, IncrementsAddUpUntilPolled)
{
    EventFd event;
    event.increment(3);
    event.increment(3);
    event.increment(4);
    EXPECT_EQ(event.poll(), 10U);
    // A second poll finds 0 and returns at once instead of blocking.
    EXPECT_EQ(event.poll(), 0U);
}

TEST(EventFd, PollFdDrainsACounterKnownOnlyByItsNumber)
{
    EventFd event;
    event.increment(7);
    EXPECT_EQ(EventFd::poll_fd(event.fd()), 7U);
    EXPECT_EQ(event.poll(), 0U);
}

TEST(EventFd, IncrementAfterCloseRaisesSystemError)
{
    EventFd event;
    event.close();
    EXPECT_EQ(event.fd(), -1);
    EXPECT_THAT([&] { event.increment(1); }, Throws<tarvek::system_error>());
}

TEST(EventFd, PollAfterCloseRaisesSystemError)
{
    EventFd event;
    event.close();
    EXPECT_THAT([&] { event.poll(); }, Throws<tarvek::system_error>());
}

TEST(EventFd, PollFdOfMinusOneRaisesSystemError)
{
    EXPECT_THAT([] { EventFd::poll_fd(-1); }, Throws<tarvek::system_error>());
}

TEST(EventFd, IncrementThatWouldOverflowRaisesEagainWithoutRetry)
{
    EventFd event;
    event.increment(0xfffffffffffffffeU);
    EXPECT_THAT([&] { event.increment(1); }, raises_system_error(EAGAIN, system_code(EAGAIN).message()));
    EXPECT_EQ(event.poll(), 0xfffffffffffffffeU);
}

TEST(EventFd, IncrementByAllOnesIsRefusedByTheKernel)
{
    EventFd event;
    EXPECT_THAT([&] { event.increment(0xffffffffffffffffU); }, raises_system_error(EINVAL));
}

TEST(EventFd, PollFdOfAClosedNumberRaisesWithEbadf)
{
    int const number = ::eventfd(0, EFD_CLOEXEC);
    ::close(number);
    EXPECT_THAT([&] { EventFd::poll_fd(number); }, raises_system_error(EBADF));
}

TEST(EventFd, PollFdRaisesWhenTheReadIsNotEightBytes)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    FileDescriptor const read_end(ends[0]);
    FileDescriptor const write_end(ends[1]);
    ASSERT_EQ(::write(write_end.fd(), "abc", 3), 3);
    EXPECT_THAT([&] { EventFd::poll_fd(read_end.fd()); }, Throws<tarvek::system_error>());
}

TEST(EventFd, PollFdOfAnEmptyPipeReturnsZeroFromEagain)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    FileDescriptor const read_end(ends[0]);
    FileDescriptor const write_end(ends[1]);
    EXPECT_EQ(EventFd::poll_fd(read_end.fd()), 0U);
}

TEST(EventFdDeathTest, RefusedCreationRaisesTheSystemTextAlone)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            refuse_system_calls({SYS_eventfd, SYS_eventfd2}, EMFILE);
            exit_with_verdict([] { EventFd event; }, EMFILE, system_code(EMFILE).message());
        },
        testing::ExitedWithCode(0), "");
}

TEST(EventFd, MovingHandsOverTheCounter)
{
    EventFd source;
    source.increment(2);
    EventFd target(std::move(source));
    EXPECT_EQ(source.fd(), -1); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(target.poll(), 2U);
}
