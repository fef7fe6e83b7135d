// SPDX-License-Identifier: LGPL-2.1-or-later
// Small observations on descriptors and provocations of failing system calls, shared by the
// tests of the descriptor classes, the executors and the poll loop.
#pragma once

#include <tarvek/common/exceptions.hpp>

#include <gmock/gmock.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <system_error>
#include <vector>

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

// Makes the kernel refuse the given system calls with `error_number` for the rest of the
// process's life; for the child of a death test only. A seccomp filter rather than
// exhausting a resource: the sanitizers' runtimes need descriptors of their own in between.
inline void refuse_system_calls(std::initializer_list<long> numbers, int error_number)
{
    std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (long const number : numbers) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (static_cast<__u32>(error_number) & SECCOMP_RET_DATA)));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog const filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        std::fprintf(stderr, "seccomp filter refused\n");
        std::exit(3);
    }
}

// The end of a death test's child: exit code 0 if `call` raises tarvek::system_error with
// `error_number` and exactly `what`, 1 otherwise.
template <class F>
[[noreturn]] void exit_with_verdict(F call, int error_number, std::string const& what)
{
    try {
        call();
    } catch (tarvek::system_error const& error) {
        bool const expected = error.code() == system_code(error_number) && what == error.what();
        if (!expected)
            std::fprintf(stderr, "raised %d: %s\n", error.code().value(), error.what());
        std::exit(expected ? 0 : 1);
    }
    std::fprintf(stderr, "nothing raised\n");
    std::exit(1);
}

} // namespace tarvek::test
