// SPDX-License-Identifier: LGPL-2.1-or-later
#include "policy.hpp"

#include "accounts.hpp"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vrel2 {
namespace {

FileState state_of(struct stat const& st) noexcept
{
    FileState state;
    state.device = st.st_dev;
    state.inode = st.st_ino;
    state.size = st.st_size;
    state.modified = st.st_mtim;
    state.changed = st.st_ctim;
    return state;
}

bool same_time(timespec const& a, timespec const& b) noexcept
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string errno_text(int error)
{
    return std::generic_category().message(error);
}

// Closes the descriptor on every path out of load().
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    FileDescriptor(FileDescriptor const&) = delete;
    FileDescriptor& operator=(FileDescriptor const&) = delete;
    ~FileDescriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

} // namespace

FileState FileState::of(char const* path) noexcept
{
    struct stat st {};
    if (::stat(path, &st) != 0) {
        FileState state;
        state.error = errno;
        return state;
    }
    return state_of(st);
}

bool operator==(FileState const& a, FileState const& b) noexcept
{
    return a.error == b.error && a.device == b.device && a.inode == b.inode && a.size == b.size &&
           same_time(a.modified, b.modified) && same_time(a.changed, b.changed);
}

Policy Policy::load(std::string path, bool named)
{
    Policy policy(std::move(path), named);
    // `where_what` goes after the path: ": what", or ":line: what" as compilers write it.
    auto const fail = [&policy](std::string const& where_what) {
        policy.failure_ = {VREL2_POLICY_ERROR, policy.path_ + where_what};
        return std::move(policy);
    };

    // Non-blocking, so that a FIFO put in the file's place cannot hang the caller; it is
    // then refused as not a regular file.
    FileDescriptor const fd(::open(policy.path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0) {
        int const error = errno;
        // Remember what stands at the path now, so that its appearance or repair is
        // noticed by the next check.
        policy.source_ = FileState::of(policy.path_.c_str());
        if (error == ENOENT && !named) {
            policy.built_in_ = true;
            return policy;
        }
        return fail(": cannot open: " + errno_text(error));
    }
    // The state of what was opened, not of a fresh stat: a change after this point is
    // then seen by the next check even if it raced with this load.
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return fail(": cannot stat: " + errno_text(errno));
    policy.source_ = state_of(st);
    if (!S_ISREG(st.st_mode))
        return fail(": not a regular file");

    std::string text;
    char chunk[16384];
    for (;;) {
        ssize_t const n = ::read(fd.get(), chunk, sizeof chunk);
        if (n > 0)
            text.append(chunk, static_cast<std::size_t>(n));
        else if (n == 0)
            break;
        else if (errno != EINTR)
            return fail(": cannot read: " + errno_text(errno));
    }

    auto parsed = parse_rules(text);
    if (auto const* error = std::get_if<SyntaxError>(&parsed))
        return fail(":" + std::to_string(error->line) + ": " + error->what);
    policy.rules_ = std::get<std::vector<Rule>>(std::move(parsed));
    return policy;
}

Outcome Policy::decide(std::string_view user, std::string_view action) const
{
    if (failure_.code != VREL2_OK)
        return failure_;
    auto const refuse = [&](std::string const& why) {
        return Outcome{VREL2_NOT_PERMITTED,
                       "'" + std::string(user) + "' may not do '" + std::string(action) + "': " + why};
    };
    if (built_in_)
        return user == "root" ? Outcome{} : refuse("no policy file " + path_ + ", only root is allowed");

    Account account{std::string(user)};
    for (Rule const& rule : rules_) {
        // The pattern first: it is cheap, the group lookup may not be.
        if (!glob_match(rule.pattern, action))
            continue;
        bool applies = rule.who == Rule::Who::anyone || (rule.who == Rule::Who::user && rule.name == user);
        if (rule.who == Rule::Who::group) {
            try {
                applies = account.is_member_of(rule.name);
            } catch (LookupError const& e) {
                return {VREL2_LOOKUP_ERROR, e.what()};
            }
        }
        if (applies)
            return rule.allow ? Outcome{} : refuse("denied by " + path_ + ":" + std::to_string(rule.line));
    }
    return refuse("no rule in " + path_ + " allows it");
}

} // namespace vrel2
