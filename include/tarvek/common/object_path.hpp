// SPDX-License-Identifier: LGPL-2.1-or-later
// ObjectPath: the validated name of a published object, empty or a well-formed
// D-Bus style path. A value type; ordering and equality are those of its bytes, so that
// "/a" < "/a/b" < "/a0".
#pragma once

#include <compare>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

namespace tarvek {

class ObjectPath {
public:
    static constexpr char const* class_name = "ObjectPath";
    // Limit on the whole text, in bytes.
    static constexpr std::size_t max_length = 300;

    // The empty path: "no path".
    ObjectPath() = default;
    // Raises tarvek::invalid_argument unless `text` is empty or a valid path.
    explicit ObjectPath(std::string text);
    explicit ObjectPath(char const* text) : ObjectPath(std::string(text)) {}
    explicit ObjectPath(std::string_view text) : ObjectPath(std::string(text)) {}

    static bool is_valid(std::string_view text) noexcept;

    // Appends one element (which may itself hold slashes); an empty element leaves the
    // path as it is. There is no special case for the root: "/" / "a" raises, and a
    // first element is appended to the empty path: ObjectPath() / "a" is "/a".
    ObjectPath operator/(char const* element) const { return *this / std::string_view(element); }
    ObjectPath operator/(std::string_view element) const;
    ObjectPath operator/(std::string const& element) const { return *this / std::string_view(element); }

    // The path as a file name: the leading slash dropped, every other byte that is not
    // alphanumeric or '_' turned into ':', then `suffix`. Raises on the empty path.
    std::string as_filename(std::string const& suffix) const;

    std::string const& str() const noexcept { return text_; }
    char const* c_str() const noexcept { return text_.c_str(); }
    bool empty() const noexcept { return text_.empty(); }

    friend bool operator==(ObjectPath const&, ObjectPath const&) = default;
    friend std::strong_ordering operator<=>(ObjectPath const& a, ObjectPath const& b) noexcept
    {
        return a.text_.compare(b.text_) <=> 0;
    }

private:
    std::string text_;
};

inline std::ostream& operator<<(std::ostream& out, ObjectPath const& path)
{
    return out << path.c_str();
}

} // namespace tarvek

template <>
struct std::hash<tarvek::ObjectPath> {
    std::size_t operator()(tarvek::ObjectPath const& path) const noexcept
    {
        return std::hash<std::string>()(path.str());
    }
};
