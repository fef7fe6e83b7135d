// SPDX-License-Identifier: LGPL-2.1-or-later
#include "output.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvek::codegen {
namespace {

[[noreturn]] void fail(std::string const& what, std::string const& path, int error)
{
    throw OutputError(path + ": " + what + ": " + std::generic_category().message(error));
}

void write_fully(int fd, std::string const& content, std::string const& path)
{
    std::size_t done = 0;
    while (done < content.size()) {
        auto const n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail("cannot write", path, errno);
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

void write_all(std::vector<std::pair<std::string, std::string>> const& files)
{
    std::vector<std::string> temporaries;
    auto remove_temporaries = [&] {
        for (auto const& t : temporaries)
            ::unlink(t.c_str());
    };
    try {
        for (auto const& [path, content] : files) {
            std::string name = path + ".tmp.XXXXXX";
            int const fd = ::mkstemp(name.data());
            if (fd < 0)
                fail("cannot create a temporary file", path, errno);
            temporaries.push_back(name);
            try {
                write_fully(fd, content, name);
            } catch (...) {
                ::close(fd);
                throw;
            }
            // mkstemp creates with 0600; a header is as readable as any other source.
            ::fchmod(fd, 0644);
            if (::close(fd) != 0)
                fail("cannot write", name, errno);
        }
        for (std::size_t i = 0; i < files.size(); ++i)
            if (::rename(temporaries[i].c_str(), files[i].first.c_str()) != 0)
                fail("cannot rename the temporary file into place", files[i].first, errno);
    } catch (...) {
        remove_temporaries();
        throw;
    }
}

} // namespace tarvek::codegen
