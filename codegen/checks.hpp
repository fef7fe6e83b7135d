// SPDX-License-Identifier: LGPL-2.1-or-later
// The D-Bus rules that the XML reader does not see: interface and member names,
// signatures, duplicate members and arguments, and the values of the standard annotations
// and of our own. Raises InputError at the first problem, naming its file and line.
#pragma once

#include "model.hpp"

#include <string_view>

namespace tarvek::codegen {

bool is_interface_name(std::string_view name);
bool is_member_name(std::string_view name);

void check_document(Document const& document);

// The same interface must not come from two inputs (or twice from one).
void check_distinct(std::vector<Document> const& documents);

} // namespace tarvek::codegen
