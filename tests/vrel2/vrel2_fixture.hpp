// SPDX-License-Identifier: LGPL-2.1-or-later
// Helpers for the vrel2 tests. TempPolicy owns a private temporary directory with one
// policy file in it, named by VREL2_POLICY for the object's lifetime. Vrel2Test counts
// the successful inits of a test and balances them at its end, so every test starts
// uninitialised. Both are for the test's main thread; worker threads only read the file.
#pragma once

#include <vrel2.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace vrel2_test {

class TempPolicy {
public:
    explicit TempPolicy(std::string_view content = "")
    {
        char const* const tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vrel2-test-XXXXXX";
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
        dir_ = pattern;
        path_ = dir_ + "/policy.conf";
        write(content);
        ::setenv("VREL2_POLICY", path_.c_str(), 1);
    }
    TempPolicy(TempPolicy const&) = delete;
    TempPolicy& operator=(TempPolicy const&) = delete;
    ~TempPolicy()
    {
        ::unsetenv("VREL2_POLICY");
        std::error_code ignored;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(dir_, ignored);
    }

    std::string const& path() const { return path_; }
    std::string const& dir() const { return dir_; }

    // Rewrites the file in place: same inode, so only its size and times show the change.
    void write(std::string_view content) const { write_file(path_, content); }

    // Writes a new file and renames it over the policy, as careful editors do.
    void replace(std::string_view content) const
    {
        std::string const next = dir_ + "/policy.conf.new";
        write_file(next, content);
        std::filesystem::rename(next, path_);
    }

    // Moves the modification time well away from any time a rewrite could leave.
    void push_mtime_back() const
    {
        timespec const times[2] = {{0, UTIME_OMIT}, {1000000000, 123456789}};
        if (::utimensat(AT_FDCWD, path_.c_str(), times, 0) != 0)
            throw std::runtime_error("utimensat: " + std::string(std::strerror(errno)));
    }

private:
    static void write_file(std::string const& path, std::string_view content)
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        out.close();
        if (!out)
            throw std::runtime_error("cannot write " + path);
    }

    std::string dir_;
    std::string path_;
};

class Vrel2Test : public testing::Test {
protected:
    void TearDown() override
    {
        for (; inits_ > 0; --inits_)
            vrel2_release();
    }

    bool init(vrel2_error* error)
    {
        bool const ok = vrel2_init(error);
        inits_ += ok ? 1 : 0;
        return ok;
    }

    // A check that must get an answer: true if allowed, false if refused; a failure to
    // answer fails the test.
    static bool allows(char const* user, char const* action)
    {
        vrel2_error error{};
        bool const allowed = vrel2_check_username(user, action, &error);
        if (!allowed && error.code != VREL2_NOT_PERMITTED)
            ADD_FAILURE() << "check of " << user << " " << action << " failed: " << error.code << " " << error.text;
        return allowed;
    }

    void release()
    {
        ASSERT_GT(inits_, 0);
        vrel2_release();
        --inits_;
    }

private:
    int inits_ = 0;
};

} // namespace vrel2_test
