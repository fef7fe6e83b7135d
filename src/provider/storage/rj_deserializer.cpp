// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/rj_deserializer.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>
#include <rapidjson/document.h>

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
    return next_value().GetBool();
}

unsigned char RJ_Deserializer::read_byte()
{
    return narrow<unsigned char>(next_value().GetUint());
}

short RJ_Deserializer::read_int16()
{
    return narrow<short>(next_value().GetInt());
}

unsigned short RJ_Deserializer::read_uint16()
{
    return narrow<unsigned short>(next_value().GetUint());
}

int RJ_Deserializer::read_int32()
{
    return next_value().GetInt();
}

unsigned int RJ_Deserializer::read_uint32()
{
    return next_value().GetUint();
}

long RJ_Deserializer::read_int64()
{
    return next_value().GetInt64();
}

unsigned long RJ_Deserializer::read_uint64()
{
    return next_value().GetUint64();
}

double RJ_Deserializer::read_double()
{
    return next_value().GetDouble();
}

std::string RJ_Deserializer::read_string()
{
    return next_value().GetString();
}

ObjectPath RJ_Deserializer::read_path()
{
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

} // namespace tarvek::provider::storage
