// SPDX-License-Identifier: LGPL-2.1-or-later
// Account: what the user database says about one user, asked lazily: the lookups go
// through NSS and may be slow or remote, so they happen only when a group rule is reached,
// and at most once per user per check. Lookup failures raise LookupError. One Account
// belongs to one check on one thread; the lookups themselves are reentrant.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vrel2 {

class LookupError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Account {
public:
    explicit Account(std::string user) : user_(std::move(user)) {}

    // Primary or supplementary membership. An unknown user is in no group, and an unknown
    // group has no members: the policy may name accounts this host does not have.
    bool is_member_of(std::string const& group_name);

private:
    std::string user_;
    std::optional<std::vector<gid_t>> groups_; // empty list for an unknown user
};

} // namespace vrel2
