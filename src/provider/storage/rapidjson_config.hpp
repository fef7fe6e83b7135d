// SPDX-License-Identifier: LGPL-2.1-or-later
// The library's configuration of RapidJSON; include it before any RapidJSON header.
//
// A failed RapidJSON assertion (a value of the wrong JSON type, mostly) does not stop the
// process: it writes "RAPIDJSON_ASSERT(<expression>)" and a newline to std::cerr, flushes,
// and goes on with whatever the data gives. Storage relies on that to read stored values
// leniently. Every translation unit of one program must see the same definition, as
// RapidJSON's functions are inline: the unit tests and benchmarks include this header too.
#pragma once

#ifdef RAPIDJSON_RAPIDJSON_H_
#error "rapidjson_config.hpp must be included before any RapidJSON header"
#endif

#include <iostream>

namespace tarvek::provider::storage::detail {

// Also called by Storage itself where it checks a JSON type before RapidJSON would, so
// that a wrong type is reported once and in the same words.
inline void rapidjson_assertion_failed(char const* expression)
{
    std::cerr << "RAPIDJSON_ASSERT(" << expression << ")\n" << std::flush;
}

} // namespace tarvek::provider::storage::detail

#define RAPIDJSON_ASSERT(x) \
    ((x) ? static_cast<void>(0) : ::tarvek::provider::storage::detail::rapidjson_assertion_failed(#x))
