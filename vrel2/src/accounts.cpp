// SPDX-License-Identifier: LGPL-2.1-or-later
#include "accounts.hpp"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <grp.h>
#include <pwd.h>

namespace vrel2 {
namespace {

// Groups with very long member lists need large buffers; past this something is wrong.
constexpr std::size_t max_buffer = std::size_t{1} << 24;
// The kernel's NGROUPS_MAX.
constexpr int max_groups = 65536;

// Runs a getpwnam_r-style lookup, growing the buffer on ERANGE. Returns whether the
// entry exists; only the numeric fields of `entry` stay valid afterwards, as its strings
// point into a buffer local to the call. A failure other than "not found" raises.
template <class Entry, class Lookup>
bool look_up(Entry& entry, Lookup lookup, std::string const& what)
{
    std::vector<char> buffer(1024);
    for (;;) {
        Entry* found = nullptr;
        int const rc = lookup(&entry, buffer.data(), buffer.size(), &found);
        if (rc == ERANGE && buffer.size() < max_buffer) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        if (rc == 0)
            return found != nullptr;
        // Some NSS modules report "no such entry" as an error number.
        if (rc == ENOENT || rc == ESRCH)
            return false;
        throw LookupError("cannot look up " + what + ": " + std::generic_category().message(rc));
    }
}

} // namespace

bool Account::is_member_of(std::string const& group_name)
{
    if (!groups_) {
        passwd pw{};
        auto const user_by_name = [this](passwd* e, char* b, std::size_t n, passwd** r) {
            return getpwnam_r(user_.c_str(), e, b, n, r);
        };
        std::vector<gid_t> groups;
        if (look_up(pw, user_by_name, "user '" + user_ + "'")) {
            // getgrouplist includes the primary group; glibc reports the size it needs.
            int count = 16;
            for (;;) {
                int const given = count;
                groups.resize(static_cast<std::size_t>(given));
                if (getgrouplist(user_.c_str(), pw.pw_gid, groups.data(), &count) >= 0) {
                    groups.resize(static_cast<std::size_t>(count));
                    break;
                }
                if (given >= max_groups)
                    throw LookupError("cannot list the groups of user '" + user_ + "'");
                count = std::max(count, given * 2);
            }
        }
        groups_ = std::move(groups);
    }
    if (groups_->empty())
        return false;

    group gr{};
    auto const group_by_name = [&group_name](group* e, char* b, std::size_t n, group** r) {
        return getgrnam_r(group_name.c_str(), e, b, n, r);
    };
    if (!look_up(gr, group_by_name, "group '" + group_name + "'"))
        return false;
    return std::find(groups_->begin(), groups_->end(), gr.gr_gid) != groups_->end();
}

} // namespace vrel2
