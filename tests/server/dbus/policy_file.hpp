// SPDX-License-Identifier: LGPL-2.1-or-later
// PolicyFile: a vrel2 policy in a fresh temporary directory, named by VREL2_POLICY while
// the object lives. libvrel2 chooses its file at the first vrel2_init, so a test makes its
// policy before its first common::Vrel.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarvek::test {

class PolicyFile {
public:
    explicit PolicyFile(std::string_view rules)
    {
        char const* const tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tarvek-policy-XXXXXX";
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
        directory = pattern;
        path = directory + "/policy.conf";
        write(rules);
        ::setenv("VREL2_POLICY", path.c_str(), 1);
    }
    PolicyFile(PolicyFile const&) = delete;
    PolicyFile& operator=(PolicyFile const&) = delete;
    ~PolicyFile()
    {
        ::unsetenv("VREL2_POLICY");
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    // Writes the rules to a new file renamed over the policy, so that libvrel2 sees a
    // change of identity at its next check.
    void write(std::string_view rules) const
    {
        std::string const next = path + ".new";
        {
            std::ofstream out(next, std::ios::trunc);
            out << rules;
            if (!out)
                throw std::runtime_error("cannot write " + next);
        }
        std::filesystem::rename(next, path);
    }

    std::string directory;
    std::string path;
};

} // namespace tarvek::test
