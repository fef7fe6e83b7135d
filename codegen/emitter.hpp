// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes the C++ header for mapped interfaces: per interface a class derived from
// tarvek::provider::Interface with its properties, signals (with an emit function that
// names the arguments) and methods bound to pure virtual handlers, the XML's doc text as
// comments, and on request a stub class that fails every call.
#pragma once

#include "mapping.hpp"

#include <string>
#include <vector>

namespace tarvek::codegen {

// One header holding every interface in `interfaces`; `source` names the XML file in the
// header's first comment.
std::string emit_header(
    std::vector<MappedInterface> const& interfaces, std::string const& source, Options const& options);

} // namespace tarvek::codegen
