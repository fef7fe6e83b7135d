// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/epoll_fd.hpp>
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/file_descriptor.hpp>

#include <common/descriptor_helpers.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <sys/epoll.h>
#include <sys/syscall.h>

using tarvek::common::EPollFD;
using tarvek::common::EventFd;
using tarvek::test::exit_with_verdict;
using tarvek::test::is_readable;
using tarvek::test::raises_system_error;
using tarvek::test::refuse_system_calls;
using tarvek::test::system_code;
using testing::Optional;
using testing::StrEq;
using testing::Throws;
using testing::ThrowsMessage;

namespace {

// What the kernel holds for `fd` in the epoll set: its event mask and data word, as
// /proc/self/fdinfo shows them. EPOLLERR and EPOLLHUP, which the kernel always adds, are
// taken out of the mask.
struct KernelEntry {
    unsigned events;
    unsigned long long data;
};

std::optional<KernelEntry> kernel_entry(EPollFD const& epoll, int fd)
{
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epoll.fd()));
    std::string line;
    while (std::getline(info, line)) {
        std::istringstream fields(line);
        std::string key;
        int target = -1;
        fields >> key >> target;
        if (key != "tfd:" || target != fd)
            continue;
        std::string events_key;
        std::string data_key;
        KernelEntry entry{};
        fields >> events_key >> std::hex >> entry.events >> data_key >> entry.data;
        entry.events &= ~static_cast<unsigned>(EPOLLERR | EPOLLHUP);
        return entry;
    }
    return std::nullopt;
}

std::optional<unsigned> kernel_mask(EPollFD const& epoll, int fd)
{
    auto const entry = kernel_entry(epoll, fd);
    return entry ? std::optional(entry->events) : std::nullopt;
}

// A descriptor number that is not open.
int closed_number()
{
    EventFd event;
    return event.fd();
}

} // namespace

TEST(EPollFD, AddsEnabledWithTheGivenMaskAndAZeroDataWord)
{
    EPollFD epoll;
    EventFd event;
    epoll.add(event.fd(), EPOLLIN | EPOLLOUT, true);
    auto const entry = kernel_entry(epoll, event.fd());
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->events, static_cast<unsigned>(EPOLLIN | EPOLLOUT));
    EXPECT_EQ(entry->data, 0U);
}

TEST(EPollFD, AddedDisabledDescriptorGetsItsWantedMaskWhenEnabled)
{
    EPollFD epoll;
    EventFd event;
    epoll.add(event.fd(), EPOLLIN, false);
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(0U));
    epoll.enable(event.fd(), true);
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(static_cast<unsigned>(EPOLLIN)));
}

TEST(EPollFD, EnableAfterDisableRestoresTheMaskWithoutBeingToldAgain)
{
    EPollFD epoll;
    EventFd event;
    epoll.add(event.fd(), EPOLLIN, false);
    epoll.enable(event.fd(), true);
    epoll.enable(event.fd(), false);
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(0U));
    epoll.enable(event.fd(), true);
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(static_cast<unsigned>(EPOLLIN)));
}

TEST(EPollFD, ReadinessFollowsEnablingOfAReadyDescriptor)
{
    EPollFD epoll;
    EventFd event;
    event.increment(1);
    epoll.add(event.fd(), EPOLLIN, false);
    EXPECT_FALSE(is_readable(epoll.fd()));
    epoll.enable(event.fd(), true);
    EXPECT_TRUE(is_readable(epoll.fd()));
    epoll.enable(event.fd(), false);
    EXPECT_FALSE(is_readable(epoll.fd()));
}

TEST(EPollFD, ModOfADisabledDescriptorMakesItLiveAtOnce)
{
    EPollFD epoll;
    EventFd event;
    epoll.add(event.fd(), EPOLLIN, true);
    epoll.enable(event.fd(), false);
    epoll.mod(event.fd(), EPOLLOUT);
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(static_cast<unsigned>(EPOLLOUT)));
    // The table holds the new mask too: a disable and enable bring back EPOLLOUT.
    epoll.enable(event.fd(), false);
    epoll.enable(event.fd(), true);
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(static_cast<unsigned>(EPOLLOUT)));
}

TEST(EPollFD, EnableOfANeverAddedDescriptorRaisesFromEnoentAndEntersIt)
{
    EPollFD epoll;
    EventFd event;
    std::string const number = std::to_string(event.fd());
    EXPECT_THAT([&] { epoll.enable(event.fd(), true); },
                raises_system_error(ENOENT, "epoll failed to enable fd " + number + ": " + system_code(ENOENT).message()));
    EXPECT_THAT([&] { epoll.add(event.fd(), EPOLLIN, true); },
                ThrowsMessage<tarvek::internal_error>(StrEq("fd: " + number + " already existing")));
}

TEST(EPollFD, DisableOfANeverAddedDescriptorRaisesAndDoesNotEnterIt)
{
    EPollFD epoll;
    EventFd event;
    std::string const number = std::to_string(event.fd());
    EXPECT_THAT([&] { epoll.enable(event.fd(), false); },
                ThrowsMessage<tarvek::system_error>(
                    StrEq("epoll failed to disable fd " + number + ": " + system_code(ENOENT).message())));
    EXPECT_NO_THROW(epoll.add(event.fd(), EPOLLIN, true));
}

TEST(EPollFD, AddOfAKnownDescriptorIsAnInternalError)
{
    EPollFD epoll;
    EventFd event;
    epoll.add(event.fd(), EPOLLIN, true);
    EXPECT_THAT([&] { epoll.add(event.fd(), EPOLLOUT, true); },
                ThrowsMessage<tarvek::internal_error>(
                    StrEq("fd: " + std::to_string(event.fd()) + " already existing")));
    EXPECT_THAT(kernel_mask(epoll, event.fd()), Optional(static_cast<unsigned>(EPOLLIN)));
}

TEST(EPollFD, AddOfABadDescriptorRaisesFromEpollCtlAndThenReportsItExisting)
{
    EPollFD epoll;
    int const bad = closed_number();
    std::string const number = std::to_string(bad);
    EXPECT_THAT([&] { epoll.add(bad, EPOLLIN, true); },
                raises_system_error(EBADF, "epoll_ctl failed to add fd " + number + ": " + system_code(EBADF).message()));
    EXPECT_THAT([&] { epoll.add(bad, EPOLLIN, true); },
                ThrowsMessage<tarvek::internal_error>(StrEq("fd: " + number + " already existing")));
}

TEST(EPollFD, DelTakesTheDescriptorOutOfTheKernelSet)
{
    EPollFD epoll;
    EventFd event;
    epoll.add(event.fd(), EPOLLIN, true);
    epoll.del(event.fd());
    EXPECT_EQ(kernel_mask(epoll, event.fd()), std::nullopt);
    EXPECT_NO_THROW(epoll.add(event.fd(), EPOLLIN, true));
}

TEST(EPollFD, DelOfAnUnknownDescriptorIsAnInvalidArgument)
{
    EPollFD epoll;
    EXPECT_THAT([&] { epoll.del(42); },
                ThrowsMessage<tarvek::invalid_argument>(StrEq("fd: 42 not found, cannot be deleted")));
}

TEST(EPollFD, FailedDelOfAClosedDescriptorHasStillRemovedTheEntry)
{
    EPollFD epoll;
    auto event = std::make_optional<EventFd>();
    int const number = event->fd();
    epoll.add(number, EPOLLIN, true);
    event.reset();
    EXPECT_THAT([&] { epoll.del(number); },
                raises_system_error(EBADF, "epoll_ctl failed to del fd " + std::to_string(number) + ": " + system_code(EBADF).message()));
    EXPECT_THAT([&] { epoll.del(number); },
                ThrowsMessage<tarvek::invalid_argument>(
                    StrEq("fd: " + std::to_string(number) + " not found, cannot be deleted")));
}

TEST(EPollFD, ModOfAnUnknownDescriptorIsAnInvalidArgument)
{
    EPollFD epoll;
    EXPECT_THAT([&] { epoll.mod(42, EPOLLIN); },
                ThrowsMessage<tarvek::invalid_argument>(StrEq("fd: 42 not found, cannot be modified")));
}

TEST(EPollFD, FailedModRaisesWithTheMaskAndHasStoredItAlready)
{
    EPollFD epoll;
    auto event = std::make_optional<EventFd>();
    int const number = event->fd();
    epoll.add(number, EPOLLIN, true);
    event.reset();
    EXPECT_THAT([&] { epoll.mod(number, EPOLLOUT); },
                raises_system_error(EBADF, "epoll_ctl failed to modify fd " + std::to_string(number) + " with events 4: " + system_code(EBADF).message()));
    // A new descriptor with the same number, put into the kernel's set behind the table's
    // back, is enabled with the mask the failed mod stored.
    EventFd successor;
    ASSERT_EQ(successor.fd(), number);
    epoll_event const disabled{};
    ASSERT_EQ(::epoll_ctl(epoll.fd(), EPOLL_CTL_ADD, number, const_cast<epoll_event*>(&disabled)), 0);
    epoll.enable(number, true);
    EXPECT_THAT(kernel_mask(epoll, number), Optional(static_cast<unsigned>(EPOLLOUT)));
}

TEST(EPollFD, MaskInMessagesIsUnsignedDecimal)
{
    EPollFD epoll;
    auto event = std::make_optional<EventFd>();
    int const number = event->fd();
    epoll.add(number, EPOLLIN, true);
    event.reset();
    unsigned const mask = EPOLLIN | EPOLLET;
    EXPECT_THAT([&] { epoll.mod(number, mask); },
                ThrowsMessage<tarvek::system_error>(testing::HasSubstr(" with events " + std::to_string(mask) + ":")));
}

TEST(EPollFDDeathTest, RefusedCreationRaisesCouldNotCreate)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            refuse_system_calls({SYS_epoll_create, SYS_epoll_create1}, EMFILE);
            exit_with_verdict([] { EPollFD epoll; }, EMFILE, "could not create epoll_fd: " + system_code(EMFILE).message());
        },
        testing::ExitedWithCode(0), "");
}

TEST(EPollFD, MovedToObjectKnowsNoneOfTheKernelsDescriptors)
{
    EPollFD source;
    EventFd event;
    int const epoll_number = source.fd();
    source.add(event.fd(), EPOLLIN, true);
    EPollFD target(std::move(source));
    EXPECT_EQ(target.fd(), epoll_number);
    EXPECT_EQ(source.fd(), -1); // NOLINT(bugprone-use-after-move)
    std::string const number = std::to_string(event.fd());
    EXPECT_THAT([&] { target.del(event.fd()); },
                ThrowsMessage<tarvek::invalid_argument>(StrEq("fd: " + number + " not found, cannot be deleted")));
    EXPECT_THAT([&] { target.mod(event.fd(), EPOLLOUT); },
                ThrowsMessage<tarvek::invalid_argument>(StrEq("fd: " + number + " not found, cannot be modified")));
    // add passes the empty table and fails in the kernel, which has the descriptor.
    EXPECT_THAT([&] { target.add(event.fd(), EPOLLIN, true); }, raises_system_error(EEXIST));
    // The source keeps its table without a descriptor.
    EXPECT_THAT([&] { source.add(event.fd(), EPOLLIN, true); }, Throws<tarvek::internal_error>());
}

TEST(EPollFD, MovedToObjectEnablesAStrangerWithTheMaskZero)
{
    EPollFD source;
    EventFd event;
    source.add(event.fd(), EPOLLIN, true);
    EPollFD target(std::move(source));
    target.enable(event.fd(), true);
    EXPECT_THAT(kernel_mask(target, event.fd()), Optional(0U));
}

TEST(EPollFD, DestructionLeavesMemberDescriptorsOpen)
{
    EventFd event;
    int epoll_number = -1;
    {
        EPollFD epoll;
        epoll_number = epoll.fd();
        epoll.add(event.fd(), EPOLLIN, true);
    }
    EXPECT_FALSE(tarvek::test::is_open(epoll_number));
    EXPECT_TRUE(tarvek::test::is_open(event.fd()));
}
