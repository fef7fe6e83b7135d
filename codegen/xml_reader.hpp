// SPDX-License-Identifier: LGPL-2.1-or-later
// Reads introspection XML (a whole <node>, nested nodes, or a single <interface>) into the
// generator's model with expat. It checks the structure only: which elements may stand
// where, and that required attributes are there with known values; names and signatures
// are judged afterwards (see checks.hpp). Every failure is an InputError with the file and
// line. <doc:...> elements and the comment right before an element become its doc text;
// other prefixed elements belong to other tools and are skipped.
#pragma once

#include "model.hpp"

#include <string>

namespace tarvek::codegen {

// `file` names the input in messages only.
Document read_xml(std::string const& text, std::string const& file);

// Reads the file at `path`; raises InputError (line 0) if it can't be read.
Document read_xml_file(std::string const& path);

} // namespace tarvek::codegen
