// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/rj_deserializer.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>
#include <rapidjson/document.h>

#include <charconv>
#include <string_view>
#include <system_error>
#include <utility>

namespace tarvek::provider::storage {

namespace {

[[noreturn]] void fail(char const* what)
{
    boost::throw_exception(deserialize_error(what));
}

template <class Narrow, class Wide>
Narrow narrow(Wide value)
{
    if (!std::in_range<Narrow>(value))
        fail("Integer value out of range");
    return static_cast<Narrow>(value);
}

[[noreturn]] void fail_key(char const* kind, std::string_view text)
{
    boost::throw_exception(deserialize_error(str::join("Dictionary key is not a valid ", kind, ": ", text)));
}

// A dictionary key stored as text (see RJ_Serializer), parsed as a whole: no white space,
// no sign where the type has none, nothing after the number, and within the type's range.
template <class T>
T parse_key(std::string_view text, char const* kind)
{
    T value{};
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        fail_key(kind, text);
    return value;
}

template <>
bool parse_key<bool>(std::string_view text, char const* kind)
{
    if (text == "true")
        return true;
    if (text != "false")
        fail_key(kind, text);
    return false;
}

std::string_view text_of(GenericValue const& name)
{
    return {name.GetString(), name.GetStringLength()};
}

// A member iterator's position, taken without dereferencing it: an empty object has no
// member array at all.
GenericMember const* position(GenericValue::ConstMemberIterator iterator)
{
    return iterator.operator->();
}

} // namespace

RJ_Deserializer::RJ_Deserializer(GenericValue const& value)
{
    stack_.emplace_back(&value);
}

template <class Cursor>
Cursor& RJ_Deserializer::top()
{
    auto* cursor = std::get_if<Cursor>(&stack_.back());
    if (cursor == nullptr)
        boost::throw_exception(std::bad_variant_access());
    return *cursor;
}

GenericValue const* RJ_Deserializer::key_name() const
{
    auto const* dict = std::get_if<DictCursor>(&stack_.back());
    if (dict == nullptr || dict->key_passed || dict->current == dict->end)
        return nullptr;
    return &dict->current->name;
}

GenericValue const& RJ_Deserializer::next_value()
{
    State& state = stack_.back();
    if (auto* const root = std::get_if<GenericValue const*>(&state))
        return **root;
    if (auto* const list = std::get_if<ListCursor>(&state)) {
        if (list->current == list->end)
            fail("Array overflow");
        return *list->current++;
    }
    // A dictionary: the key until the separator has been read, then the value. The end
    // is not looked at; the reader has asked dict_entry_try_enter.
    auto const& dict = std::get<DictCursor>(state);
    return dict.key_passed ? dict.current->value : dict.current->name;
}

bool RJ_Deserializer::read_bool()
{
    if (auto const* key = key_name())
        return parse_key<bool>(text_of(*key), "bool");
    return next_value().GetBool();
}

unsigned char RJ_Deserializer::read_byte()
{
    if (auto const* key = key_name())
        return parse_key<unsigned char>(text_of(*key), "byte");
    return narrow<unsigned char>(next_value().GetUint());
}

short RJ_Deserializer::read_int16()
{
    if (auto const* key = key_name())
        return parse_key<short>(text_of(*key), "int16");
    return narrow<short>(next_value().GetInt());
}

unsigned short RJ_Deserializer::read_uint16()
{
    if (auto const* key = key_name())
        return parse_key<unsigned short>(text_of(*key), "uint16");
    return narrow<unsigned short>(next_value().GetUint());
}

int RJ_Deserializer::read_int32()
{
    if (auto const* key = key_name())
        return parse_key<int>(text_of(*key), "int32");
    return next_value().GetInt();
}

unsigned int RJ_Deserializer::read_uint32()
{
    if (auto const* key = key_name())
        return parse_key<unsigned int>(text_of(*key), "uint32");
    return next_value().GetUint();
}

long RJ_Deserializer::read_int64()
{
    if (auto const* key = key_name())
        return parse_key<long>(text_of(*key), "int64");
    return next_value().GetInt64();
}

unsigned long RJ_Deserializer::read_uint64()
{
    if (auto const* key = key_name())
        return parse_key<unsigned long>(text_of(*key), "uint64");
    return next_value().GetUint64();
}

double RJ_Deserializer::read_double()
{
    if (auto const* key = key_name())
        return parse_key<double>(text_of(*key), "double");
    return next_value().GetDouble();
}

std::string RJ_Deserializer::read_string()
{
    return next_value().GetString();
}

ObjectPath RJ_Deserializer::read_path()
{
    // A key that is no path is a fault of the stored text, like any other key that does
    // not parse as its type.
    if (key_name() != nullptr) {
        std::string text = read_string();
        if (!text.empty() && !ObjectPath::is_valid(text))
            fail_key("object path", text);
        return ObjectPath(std::move(text));
    }
    return ObjectPath(read_string());
}

void RJ_Deserializer::tuple_enter()
{
    list_enter();
}

void RJ_Deserializer::tuple_read_separator() {}

void RJ_Deserializer::tuple_exit()
{
    if (!list_try_exit())
        fail("Failed to exit tuple");
}

int RJ_Deserializer::list_enter()
{
    GenericValue const& array = next_value();
    // Checked here rather than left to RapidJSON, which would report it at every access
    // and then walk whatever the value's storage holds; a wrong kind reads as empty.
    if (!array.IsArray()) {
        detail::rapidjson_assertion_failed("IsArray()");
        stack_.emplace_back(ListCursor{nullptr, nullptr});
        return 0;
    }
    stack_.emplace_back(ListCursor{array.Begin(), array.End()});
    return static_cast<int>(array.Size());
}

void RJ_Deserializer::list_read_separator() {}

bool RJ_Deserializer::list_try_exit()
{
    ListCursor const& cursor = top<ListCursor>();
    if (cursor.current != cursor.end)
        return false;
    stack_.pop_back();
    return true;
}

int RJ_Deserializer::dict_enter()
{
    GenericValue const& object = next_value();
    // As in list_enter: a wrong kind is reported once and reads as empty.
    if (!object.IsObject()) {
        detail::rapidjson_assertion_failed("IsObject()");
        stack_.emplace_back(DictCursor{nullptr, nullptr, false});
        return 0;
    }
    stack_.emplace_back(DictCursor{position(object.MemberBegin()), position(object.MemberEnd()), false});
    return static_cast<int>(object.MemberCount());
}

bool RJ_Deserializer::dict_entry_try_enter(bool /*first*/)
{
    DictCursor const& cursor = top<DictCursor>();
    return cursor.current != cursor.end;
}

void RJ_Deserializer::dict_entry_read_kv_separator()
{
    top<DictCursor>().key_passed = true;
}

void RJ_Deserializer::dict_entry_exit()
{
    DictCursor& cursor = top<DictCursor>();
    if (cursor.current != cursor.end)
        ++cursor.current;
    cursor.key_passed = false;
}

void RJ_Deserializer::dict_exit()
{
    if (!std::holds_alternative<DictCursor>(stack_.back()))
        fail("Internal error - illegal state");
    stack_.pop_back();
}

void RJ_Deserializer::variant_enter() {}

void RJ_Deserializer::variant_exit() {}

std::string RJ_Deserializer::typed_variant_enter()
{
    // Checked strictly, unlike plain values: the signature decides how everything inside
    // is read, so a wrong shape must not be read leniently.
    GenericValue const& object = next_value();
    if (!object.IsObject() || object.MemberCount() != 2)
        fail("A stored Variant is an object of \"signature\" and \"value\"");
    auto const signature = object.FindMember("signature");
    auto const value = object.FindMember("value");
    if (signature == object.MemberEnd() || value == object.MemberEnd() || !signature->value.IsString())
        fail("A stored Variant is an object of \"signature\" and \"value\"");
    // The contents are read as a root value, which reads do not move past.
    stack_.emplace_back(&value->value);
    return std::string(text_of(signature->value));
}

void RJ_Deserializer::typed_variant_exit()
{
    if (!std::holds_alternative<GenericValue const*>(stack_.back()) || stack_.size() < 2)
        fail("Internal error - illegal state");
    stack_.pop_back();
}

common::FileDescriptor RJ_Deserializer::read_fd()
{
    fail("A file descriptor cannot be read from a document");
}

} // namespace tarvek::provider::storage
