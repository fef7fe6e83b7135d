// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes a set of files all or nothing, as far as a file system allows: every file goes to
// a temporary beside its target first, and only when all of them are written are they
// renamed into place. A failure removes the temporaries and leaves the targets as they were.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarvek::codegen {

class OutputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Pairs of path and content. Raises OutputError naming the path that failed.
void write_all(std::vector<std::pair<std::string, std::string>> const& files);

} // namespace tarvek::codegen
