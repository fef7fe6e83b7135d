// SPDX-License-Identifier: LGPL-2.1-or-later
#include "types.hpp"

#include <vector>

namespace tarvek::codegen {
namespace {

// Every basic code of D-Bus, with the C++ type that carries it or, for the ones generated
// code can't carry yet, why not. Supporting a new one is a change of its row.
struct BasicType {
    char code;
    char const* cpp; // nullptr: not supported yet
    char const* header; // what the C++ type needs
    char const* why_not; // for an unsupported code
};

constexpr BasicType basic_types[] = {
    {'y', "std::uint8_t", "<cstdint>", nullptr},
    {'b', "bool", nullptr, nullptr},
    {'n', "std::int16_t", "<cstdint>", nullptr},
    {'q', "std::uint16_t", "<cstdint>", nullptr},
    {'i', "std::int32_t", "<cstdint>", nullptr},
    {'u', "std::uint32_t", "<cstdint>", nullptr},
    {'x', "std::int64_t", "<cstdint>", nullptr},
    {'t', "std::uint64_t", "<cstdint>", nullptr},
    {'d', "double", nullptr, nullptr},
    {'s', "std::string", "<string>", nullptr},
    {'o', "tarvek::ObjectPath", "<tarvek/common/object_path.hpp>", nullptr},
    {'g', nullptr, nullptr, "type signatures (g) have no C++ type in the library yet"},
    {'h', nullptr, nullptr, "file descriptors (h) are not supported yet"},
};

// Variants are not basic (they can't be dictionary keys) but are a single code as well.
constexpr BasicType variant_type{'v', nullptr, nullptr, "variants (v) are not supported yet"};

BasicType const* basic(char code)
{
    for (auto const& t : basic_types)
        if (t.code == code)
            return &t;
    return nullptr;
}

constexpr std::size_t max_signature = 255;
constexpr int max_depth = 32;

// A recursive-descent reader of one complete type; position advances past it.
class SignatureParser {
public:
    explicit SignatureParser(std::string_view text)
        : text_(text)
    {
    }

    // Empty on success.
    std::string complete_type(int arrays, int structs)
    {
        if (pos_ >= text_.size())
            return "a type is missing at the end";
        char const c = text_[pos_++];
        if (basic(c) || c == 'v')
            return {};
        if (c == 'a') {
            if (arrays + 1 > max_depth)
                return "arrays are nested deeper than 32";
            if (pos_ < text_.size() && text_[pos_] == '{') {
                ++pos_;
                if (structs + 1 > max_depth) // dictionary entries count as structs
                    return "structs are nested deeper than 32";
                if (pos_ >= text_.size() || !basic(text_[pos_]))
                    return "a dictionary key must be a basic type";
                ++pos_;
                if (pos_ < text_.size() && text_[pos_] == '}')
                    return "a dictionary entry needs a key and a value";
                if (auto p = complete_type(arrays + 1, structs + 1); !p.empty())
                    return p;
                if (pos_ >= text_.size() || text_[pos_] != '}')
                    return "a dictionary entry must have exactly one value type and a '}'";
                ++pos_;
                return {};
            }
            return complete_type(arrays + 1, structs);
        }
        if (c == '(') {
            if (structs + 1 > max_depth)
                return "structs are nested deeper than 32";
            if (pos_ < text_.size() && text_[pos_] == ')')
                return "an empty struct \"()\" is not allowed";
            while (pos_ < text_.size() && text_[pos_] != ')')
                if (auto p = complete_type(arrays, structs + 1); !p.empty())
                    return p;
            if (pos_ >= text_.size())
                return "a struct is not closed with ')'";
            ++pos_;
            return {};
        }
        if (c == '{')
            return "a dictionary entry '{' may only stand inside an array";
        return std::string("unknown type code '") + c + "'";
    }

    bool at_end() const { return pos_ >= text_.size(); }

private:
    std::string_view text_;
    std::size_t pos_ = 0;
};

std::string map_one(std::string_view text, std::size_t& pos, std::set<std::string>& includes)
{
    char const c = text[pos++];
    if (c == 'v')
        throw UnsupportedType(variant_type.why_not);
    if (auto const* t = basic(c)) {
        if (!t->cpp)
            throw UnsupportedType(t->why_not);
        if (t->header)
            includes.insert(t->header);
        return t->cpp;
    }
    if (c == 'a') {
        if (text[pos] == '{') {
            ++pos;
            std::string const key = map_one(text, pos, includes);
            std::string const value = map_one(text, pos, includes);
            ++pos; // '}'
            includes.insert("<map>");
            return "std::map<" + key + ", " + value + ">";
        }
        includes.insert("<vector>");
        return "std::vector<" + map_one(text, pos, includes) + ">";
    }
    // '(': a struct travels as a tuple of its members.
    std::string members;
    while (text[pos] != ')')
        members += (members.empty() ? "" : ", ") + map_one(text, pos, includes);
    ++pos;
    includes.insert("<tuple>");
    return "std::tuple<" + members + ">";
}

} // namespace

std::string signature_problem(std::string_view signature, bool single)
{
    if (signature.size() > max_signature)
        return "the signature is longer than 255 characters";
    if (single && signature.empty())
        return "the type is empty";
    SignatureParser parser(signature);
    int count = 0;
    while (!parser.at_end()) {
        if (auto p = parser.complete_type(0, 0); !p.empty())
            return p;
        ++count;
    }
    if (single && count != 1)
        return "\"" + std::string(signature) + "\" is more than one complete type";
    return {};
}

std::string cpp_type(std::string_view complete_type, std::set<std::string>& includes)
{
    std::size_t pos = 0;
    return map_one(complete_type, pos, includes);
}

} // namespace tarvek::codegen
