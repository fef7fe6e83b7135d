// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/testing/other_user.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarvek::test {

namespace {

struct Account {
    uid_t uid = 0;
    gid_t gid = 0;
};

std::optional<Account> look_up(std::string const& user)
{
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return std::nullopt;
    return Account{found->pw_uid, found->pw_gid};
}

[[noreturn]] void refuse(std::string const& why)
{
    boost::throw_exception(tarvek::invalid_state_error(why));
}

// Writes all of `text`, as far as the reader takes it.
void write_all(int fd, std::string const& text) noexcept
{
    char const* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t const n = ::write(fd, data, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        left -= static_cast<std::size_t>(n);
    }
}

} // namespace

std::optional<std::string> cannot_run_as(std::string const& user)
{
    auto const account = look_up(user);
    if (!account)
        return "no user " + user + " on this system";
    if (::geteuid() == account->uid)
        return std::nullopt;
    if (::geteuid() != 0)
        return "switching to user " + user + " needs root (this test runs as uid " + std::to_string(::geteuid()) + ")";
    return std::nullopt;
}

std::string run_as(std::string const& user, std::function<std::string()> const& body, std::chrono::milliseconds timeout)
{
    if (auto why = cannot_run_as(user))
        refuse("run_as: " + *why);
    Account const account = *look_up(user);

    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        boost::throw_exception(tarvek::system_error(errno, "run_as: pipe2 failed"));
    pid_t const parent = ::getpid();
    pid_t const child = ::fork();
    if (child < 0) {
        int const error = errno;
        ::close(pipe[0]);
        ::close(pipe[1]);
        boost::throw_exception(tarvek::system_error(error, "run_as: fork failed"));
    }
    if (child == 0) {
        ::close(pipe[0]);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(126);
        // Groups first: after setuid the right to change them is gone.
        if (::setgroups(0, nullptr) != 0 || ::setgid(account.gid) != 0 || ::setuid(account.uid) != 0 ||
            ::getuid() != account.uid || ::geteuid() != account.uid) {
            write_all(pipe[1], "cannot become " + user + ": " + std::strerror(errno));
            ::_exit(125);
        }
        // _exit, never exit: the test's objects (a PrivateBus, its fixtures) belong to the
        // parent, and no destructor or atexit handler of theirs may run here.
        try {
            write_all(pipe[1], body());
            ::_exit(0);
        } catch (std::exception const& error) {
            write_all(pipe[1], error.what());
        } catch (...) {
            write_all(pipe[1], "an exception of unknown type");
        }
        ::_exit(1);
    }
    ::close(pipe[1]);

    // Read everything until the child closes its end, then reap it.
    auto const deadline = std::chrono::steady_clock::now() + timeout;
    std::string output;
    bool timed_out = false;
    for (;;) {
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            timed_out = true;
            break;
        }
        pollfd p{pipe[0], POLLIN, 0};
        int const r = ::poll(&p, 1, static_cast<int>(left.count()));
        if (r < 0 && errno != EINTR)
            break;
        if (r <= 0)
            continue;
        std::array<char, 4096> buffer{};
        ssize_t const n = ::read(pipe[0], buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        output.append(buffer.data(), static_cast<std::size_t>(n));
    }
    ::close(pipe[0]);
    if (timed_out)
        ::kill(child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (timed_out)
        refuse("run_as " + user + ": the child did not finish within " + std::to_string(timeout.count()) + " ms");
    if (WIFSIGNALED(status))
        refuse("run_as " + user + ": the child was killed by signal " + std::to_string(WTERMSIG(status)));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        refuse("run_as " + user + ": the child failed: " + output);
    return output;
}

} // namespace tarvek::test
