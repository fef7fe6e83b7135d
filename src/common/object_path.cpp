// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/object_path.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>

#include <cctype>

namespace tarvek {

ObjectPath::ObjectPath(std::string text) : text_(std::move(text))
{
    if (!text_.empty() && !is_valid(text_))
        boost::throw_exception(invalid_argument(str::join("String is not a valid ", class_name)));
}

bool ObjectPath::is_valid(std::string_view text) noexcept
{
    if (text.empty() || text.size() > max_length || text.front() != '/')
        return false;
    if (text.size() == 1)
        return true;
    bool after_slash = false;
    for (char const c : text) {
        if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_') {
            after_slash = false;
        } else if (c == '/') {
            if (after_slash)
                return false; // empty element
            after_slash = true;
        } else {
            return false;
        }
    }
    return !after_slash; // a trailing slash is an empty last element
}

ObjectPath ObjectPath::operator/(std::string_view element) const
{
    if (element.empty())
        return *this;
    std::string text;
    text.reserve(text_.size() + 1 + element.size());
    text.append(text_).append(1, '/').append(element);
    return ObjectPath(std::move(text));
}

std::string ObjectPath::as_filename(std::string const& suffix) const
{
    if (text_.empty())
        boost::throw_exception(invalid_argument("ObjectPath is empty"));
    std::string name;
    name.reserve(text_.size() + suffix.size());
    auto const start = text_.front() == '/' ? text_.begin() + 1 : text_.begin();
    for (auto it = start; it != text_.end(); ++it) {
        auto const byte = static_cast<unsigned char>(*it);
        name.push_back(std::isalnum(byte) || byte == '_' ? *it : ':');
    }
    name.append(suffix);
    return name;
}

} // namespace tarvek
