// SPDX-License-Identifier: LGPL-2.1-or-later
// D-Bus signatures: whether one is well formed, and which C++ type stands for a complete
// type in a generated header. The C++ side is what tarvek/provider/value_codec.hpp maps;
// the table of basic types in types.cpp is the one place that says which codes are mapped
// and what waits for library support.
#pragma once

#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tarvek::codegen {

// What is wrong with `signature`, or an empty string if it is a valid D-Bus signature
// (with `single`: exactly one complete type, as an argument or a property has).
std::string signature_problem(std::string_view signature, bool single);

// A type that is valid D-Bus but that generated code cannot carry yet.
class UnsupportedType : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The C++ type of one valid complete type, such as "std::map<std::string, std::vector<int>>";
// adds the headers it needs to `includes`. Raises UnsupportedType naming the code.
std::string cpp_type(std::string_view complete_type, std::set<std::string>& includes);

} // namespace tarvek::codegen
