// SPDX-License-Identifier: LGPL-2.1-or-later
// Small observations and provocations on descriptors, shared by the tests of the descriptor
// classes, the executors and the poll loop.
#pragma once

#include <tarvek/common/exceptions.hpp>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <string>
#include <system_error>

namespace tarvek::test {

inline bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// Whether poll(2) reports `fd` readable right now, without waiting.
inline bool is_readable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

inline std::error_code system_code(int error_number) { return {error_number, std::system_category()}; }

inline auto raises_system_error(int error_number)
{
    return testing::Throws<tarvek::system_error>(
        testing::Property(&std::system_error::code, testing::Eq(system_code(error_number))));
}

// The code and the whole what() of one raised tarvek::system_error.
inline auto raises_system_error(int error_number, std::string const& what)
{
    return testing::Throws<tarvek::system_error>(
        testing::AllOf(testing::Property(&std::system_error::code, testing::Eq(system_code(error_number))),
                       testing::Property(&std::system_error::what, testing::StrEq(what))));
}

// Lowers the soft limit of open descriptors for its lifetime: with 0 no descriptor can be
// made, and poll(2) refuses sets larger than the limit. Keep its scope to the one call that
// is to fail: the sanitizers' runtimes need descriptors of their own.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t soft)
    {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit lowered = saved_;
        lowered.rlim_cur = soft;
        ::setrlimit(RLIMIT_NOFILE, &lowered);
    }
    DescriptorLimit(DescriptorLimit const&) = delete;
    DescriptorLimit& operator=(DescriptorLimit const&) = delete;
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &saved_); }

private:
    rlimit saved_{};
};

} // namespace tarvek::test
