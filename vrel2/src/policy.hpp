// SPDX-License-Identifier: LGPL-2.1-or-later
// Policy: one load of the policy file (its rules, the built-in policy when the default
// file is absent, or the reason the load failed) together with the state of the file it
// was loaded from, so that a later check can tell whether the file changed. A loaded
// Policy is never modified, so decide() may run on any number of threads at once.
#pragma once

#include "rules.hpp"

#include <vrel2.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

namespace vrel2 {

// What a call reports: VREL2_OK and no text, or a code and the reason.
struct Outcome {
    std::int32_t code = VREL2_OK;
    std::string text;
};

// What stat says about a path, reduced to what reveals a change: identity (a file
// renamed over the old one), size and times. The change time also catches permission
// changes and writes that restore the old modification time.
struct FileState {
    int error = 0; // errno of a failed stat; the other fields are then zero
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    static FileState of(char const* path) noexcept;
    friend bool operator==(FileState const& a, FileState const& b) noexcept;
};

class Policy {
public:
    // Used when VREL2_POLICY is unset; if it does not exist, the built-in policy applies.
    static constexpr char const* default_path = "/etc/vrel2/policy.conf";

    // Loads `path`; `named` says the user chose it, so that its absence is an error.
    static Policy load(std::string path, bool named);

    std::string const& path() const noexcept { return path_; }
    bool named() const noexcept { return named_; }
    FileState const& source() const noexcept { return source_; }
    // The reason the load failed; code VREL2_OK when it succeeded.
    Outcome const& failure() const noexcept { return failure_; }

    // Raises only std::bad_alloc; lookup failures become VREL2_LOOKUP_ERROR.
    Outcome decide(std::string_view user, std::string_view action) const;

private:
    Policy(std::string path, bool named) : path_(std::move(path)), named_(named) {}

    std::string path_;
    bool named_;
    FileState source_;
    Outcome failure_;
    bool built_in_ = false;
    std::vector<Rule> rules_;
};

} // namespace vrel2
