// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/file_descriptor.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace tarvek::common {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept
{
    close();
    fd_ = other.fd_;
    other.fd_ = -1;
    return *this;
}

void FileDescriptor::close() noexcept
{
    if (fd_ < 0)
        return;
    ::close(fd_);
    fd_ = -1;
}

FileDescriptor FileDescriptor::duplicate(int fd)
{
    // At 3 or above, so that a copy never lands on a standard stream that was closed.
    int const copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0)
        boost::throw_exception(tarvek::system_error(errno, "could not duplicate a descriptor"));
    return FileDescriptor(copy);
}

namespace {

int create_event_fd()
{
    int const fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0)
        boost::throw_exception(tarvek::system_error(errno));
    return fd;
}

} // namespace

EventFd::EventFd() : descriptor_(create_event_fd()) {}

void EventFd::increment(std::uint64_t n)
{
    // A closed counter reports whatever errno holds: there is no call whose error to report.
    if (descriptor_.fd() < 0)
        boost::throw_exception(tarvek::system_error(errno));
    if (::write(descriptor_.fd(), &n, sizeof n) != sizeof n)
        boost::throw_exception(tarvek::system_error(errno));
}

std::uint64_t EventFd::poll_fd(int fd)
{
    if (fd < 0)
        boost::throw_exception(tarvek::system_error(errno));
    std::uint64_t value = 0;
    ssize_t const got = ::read(fd, &value, sizeof value);
    if (got == sizeof value)
        return value;
    if (got == -1 && errno == EAGAIN)
        return 0;
    boost::throw_exception(tarvek::system_error(errno));
}

} // namespace tarvek::common
