// SPDX-License-Identifier: LGPL-2.1-or-later
// FileDescriptor owns one Linux descriptor; EventFd is a counting wake-up primitive on top
// of it. Both are move-only single-owner handles that hold -1 when they own nothing.
// FileDescriptor has no synchronisation. EventFd::increment and EventFd::poll may be called
// from any thread while another waits on the descriptor; closing concurrently with them is
// the caller's fault. No operation of EventFd ever blocks: a caller that wants to wait puts
// fd() into poll(2) or epoll.
#pragma once

#include <cstdint>

namespace tarvek::common {

class FileDescriptor {
public:
    // Owns nothing.
    FileDescriptor() noexcept : fd_(-1) {}
    // Takes ownership of `fd` as it is; a negative value means nothing is owned.
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    // Closes the own descriptor first. Assigning a handle to itself therefore closes it
    // and leaves -1: there is deliberately no self-check.
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(FileDescriptor const&) = delete;
    FileDescriptor& operator=(FileDescriptor const&) = delete;
    ~FileDescriptor() { close(); }

    // The result of close(2) is ignored; a second call does nothing.
    void close() noexcept;

    int fd() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }

    // Gives the descriptor up to the caller; the handle then owns nothing.
    int release() noexcept
    {
        int const fd = fd_;
        fd_ = -1;
        return fd;
    }

    // A new handle of the same open file (F_DUPFD_CLOEXEC), for a descriptor that stays
    // someone else's. Raises tarvek::system_error "could not duplicate a descriptor".
    static FileDescriptor duplicate(int fd);

private:
    int fd_;
};

// A non-blocking eventfd counter (not in semaphore mode), created at 0: increments add up,
// and one poll() drains them all.
class EventFd {
public:
    // Raises tarvek::system_error with errno if eventfd(2) fails.
    EventFd();

    // One write of the 8 bytes of `n`, without retry: a counter that would overflow
    // (EAGAIN) or an interrupted call raises tarvek::system_error, as does a closed object.
    void increment(std::uint64_t n);

    // The counter's value, reset to 0 by the read; 0 if nothing was counted.
    std::uint64_t poll() { return poll_fd(descriptor_.fd()); }

    // Drains a counter known by its bare number. Raises tarvek::system_error for a negative
    // `fd` and for any outcome of read(2) but 8 bytes or EAGAIN.
    static std::uint64_t poll_fd(int fd);

    void close() noexcept { descriptor_.close(); }

    int fd() const noexcept { return descriptor_.fd(); }

private:
    FileDescriptor descriptor_;
};

} // namespace tarvek::common
