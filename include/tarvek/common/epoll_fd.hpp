// SPDX-License-Identifier: LGPL-2.1-or-later
// EPollFD: an epoll set used as a readiness aggregate. The owner polls fd() to learn that
// one of the member descriptors is ready; nothing here calls epoll_wait, and the event data
// word is always zero. Besides the kernel's set, the object keeps a table of what each
// descriptor wants while enabled: enable(fd, false) sets the kernel's mask to 0 and keeps
// the wanted mask, so that enable(fd, true) restores it without the caller repeating it.
// Every operation may be called from any thread; each holds the object's mutex for its
// whole length, system call and raising included, and takes no other lock under it.
// Descriptors in the set are not owned and are not closed.
#pragma once

#include <tarvek/common/file_descriptor.hpp>

#include <map>
#include <mutex>

namespace tarvek::common {

class EPollFD {
public:
    // Raises tarvek::system_error "could not create epoll_fd".
    EPollFD();
    // Takes the epoll descriptor but not the table: the new object knows none of the
    // descriptors in the kernel's set. The source keeps its table and holds -1.
    EPollFD(EPollFD&& other);
    EPollFD& operator=(EPollFD&&) = delete;

    // The table entry is made before epoll_ctl and stays if it fails, so that a repeated
    // add of the same descriptor reports it as existing. Raises tarvek::internal_error for
    // a known descriptor, tarvek::system_error if epoll_ctl fails.
    void add(int fd, unsigned events, bool enabled);
    // The entry is gone even if epoll_ctl fails. Raises tarvek::invalid_argument for an
    // unknown descriptor, tarvek::system_error if epoll_ctl fails.
    void del(int fd);
    // Stores and applies `events`, which makes a disabled descriptor live again. Raises
    // tarvek::invalid_argument for an unknown descriptor, tarvek::system_error if
    // epoll_ctl fails.
    void mod(int fd, unsigned events);
    // Applies the wanted mask (on) or 0 (off). Unknown descriptors are left to the kernel
    // and, when enabled, entered with the mask 0. Raises tarvek::system_error.
    void enable(int fd, bool on);

    int fd() const noexcept { return epoll_.fd(); }

private:
    std::mutex mutex_;
    FileDescriptor epoll_;
    std::map<int, unsigned> wanted_;
};

} // namespace tarvek::common
