// SPDX-License-Identifier: LGPL-2.1-or-later
// ConstString: a non-owning view of a constant, NUL-terminated name (an interface or a
// member name). Two words, passed by value. Whoever makes the value keeps the characters
// alive at least as long as the thing they name; the view never copies them.
#pragma once

#include <cstddef>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace tarvek {

class ConstString {
public:
    constexpr ConstString() noexcept = default;

    // From a literal: the length is known at compile time.
    template <std::size_t N>
    constexpr ConstString(char const (&literal)[N]) noexcept // NOLINT(google-explicit-constructor)
        : data_(literal), size_(N - 1)
    {}

    // From a NUL-terminated string whose length is strlen(text).
    static ConstString from_c_str(char const* text) noexcept
    {
        return ConstString(text, text ? std::strlen(text) : 0);
    }

    // `text[size]` must be NUL.
    constexpr ConstString(char const* text, std::size_t size) noexcept : data_(text), size_(size) {}

    constexpr char const* c_str() const noexcept { return data_; }
    constexpr char const* data() const noexcept { return data_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    std::string str() const { return data_ ? std::string(data_, size_) : std::string(); }
    constexpr std::string_view view() const noexcept { return {data_ ? data_ : "", size_}; }

    // For output: streams see a NUL-terminated string (a null one fails the stream).
    operator char const*() const noexcept { return data_; } // NOLINT(google-explicit-constructor)

    friend bool operator==(ConstString a, ConstString b) noexcept
    {
        return a.size_ == b.size_ && (a.size_ == 0 || std::memcmp(a.data_, b.data_, a.size_) == 0);
    }

private:
    char const* data_ = nullptr;
    std::size_t size_ = 0;
};

inline std::ostream& operator<<(std::ostream& out, ConstString s)
{
    return out << static_cast<char const*>(s);
}

} // namespace tarvek

// Hashes as a std::string of the same bytes would, so that both can key the same maps.
template <>
struct std::hash<tarvek::ConstString> {
    std::size_t operator()(tarvek::ConstString s) const noexcept
    {
        return std::_Hash_bytes(s.data(), s.size(), static_cast<std::size_t>(0xc70f6907UL));
    }
};
