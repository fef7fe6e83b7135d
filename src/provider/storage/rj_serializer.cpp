// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/rj_serializer.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>
#include <rapidjson/document.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace tarvek::provider::storage {

namespace {

[[noreturn]] void fail(char const* what)
{
    boost::throw_exception(serialize_error(what));
}

GenericValue* to_value(RJ_Serializer::Pointer const& pointer)
{
    auto const* value = std::get_if<GenericValue*>(&pointer);
    if (value == nullptr)
        fail("Not a pointer to a value");
    return *value;
}

// A dictionary key as the text that RJ_Deserializer parses back: JSON member names are
// strings, so a key of another basic type is stored as its text. Integers in decimal, a
// bool as "true" or "false", a double in the shortest form that reads back to the same
// bits (std::to_chars: "0.30000000000000004", "1e-310", "-0"; "inf" and "nan" too, the
// latter without its payload). Containers and null cannot be keys.
GenericValue key_text(GenericValue const& key, MemoryPoolAllocator& allocator)
{
    if (key.IsBool())
        return GenericValue(key.GetBool() ? "true" : "false", allocator);
    if (!key.IsNumber())
        fail("Object member name must be string");
    char text[32];
    std::to_chars_result printed{};
    if (key.IsDouble())
        printed = std::to_chars(std::begin(text), std::end(text), key.GetDouble());
    else if (key.IsUint64())
        printed = std::to_chars(std::begin(text), std::end(text), key.GetUint64());
    else
        printed = std::to_chars(std::begin(text), std::end(text), key.GetInt64());
    return GenericValue(text, static_cast<rapidjson::SizeType>(printed.ptr - text), allocator);
}

} // namespace

RJ_Serializer::RJ_Serializer(GenericValue& value, MemoryPoolAllocator& allocator) : allocator_(allocator)
{
    stack_.emplace_back(What::Value, &value);
}

// `v` is a temporary of the calling operation, made with the document's allocator, so it
// is moved into place rather than copied: a copy would only leave a second copy of its
// strings in the pool for the life of the document.
RJ_Serializer::Pointer RJ_Serializer::write_value(GenericValue& v)
{
    auto& [what, pointer] = stack_.back();
    switch (what) {
    case What::Value: {
        GenericValue* const target = to_value(pointer);
        *target = v;
        return target;
    }
    case What::List: {
        GenericValue* const array = to_value(pointer);
        array->PushBack(v, allocator_);
        return array->End() - 1;
    }
    case What::DictEntryKey: {
        GenericValue* const object = to_value(pointer);
        // A string key is already in the pool and moves; others become their text.
        GenericValue name;
        if (v.IsString())
            name = v;
        else
            name = key_text(v, allocator_);
        object->AddMember(name, GenericValue(), allocator_);
        // Looked up by its text up to the first NUL, from the first member on: a key
        // that is already there gets the value, and the new member stays null.
        auto const found = object->FindMember((object->MemberEnd() - 1)->name.GetString());
        if (found == object->MemberEnd())
            fail("Internal error, failed to find newly added member");
        GenericMember* const member = &*found;
        stack_.back() = {What::DictEntryValue, member};
        return member;
    }
    case What::DictEntryValue: {
        auto const* member = std::get_if<GenericMember*>(&pointer);
        if (member == nullptr)
            fail("Not a pointer to a member");
        (*member)->value = v;
        return &(*member)->value;
    }
    case What::Dict:
        break;
    }
    fail("Internal error: bad state");
}

void RJ_Serializer::begin_container(What what)
{
    if (what == What::DictEntryKey) {
        stack_.emplace_back(what, stack_.back().second);
        return;
    }
    GenericValue container(what == What::Dict ? rapidjson::kObjectType : rapidjson::kArrayType);
    Pointer const placed = write_value(container);
    stack_.emplace_back(what, placed);
}

void RJ_Serializer::end_container(What what)
{
    if (stack_.back().first != what)
        fail("Bad state");
    stack_.pop_back();
}

void RJ_Serializer::write(bool value)
{
    GenericValue v(value);
    write_value(v);
}

void RJ_Serializer::write(unsigned char value)
{
    write(static_cast<unsigned int>(value));
}

void RJ_Serializer::write(short value)
{
    write(static_cast<int>(value));
}

void RJ_Serializer::write(unsigned short value)
{
    write(static_cast<unsigned int>(value));
}

void RJ_Serializer::write(int value)
{
    GenericValue v(value);
    write_value(v);
}

void RJ_Serializer::write(unsigned int value)
{
    GenericValue v(value);
    write_value(v);
}

void RJ_Serializer::write(long value)
{
    GenericValue v(static_cast<std::int64_t>(value));
    write_value(v);
}

void RJ_Serializer::write(unsigned long value)
{
    GenericValue v(static_cast<std::uint64_t>(value));
    write_value(v);
}

void RJ_Serializer::write(double value)
{
    GenericValue v(value);
    write_value(v);
}

void RJ_Serializer::write(char const* text, unsigned long size, bool null_terminated)
{
    if (text == nullptr && size != 0)
        boost::throw_exception(std::logic_error("basic_string: construction from null is not valid"));
    if (text == nullptr)
        text = "";
    else if (size == 0 && null_terminated)
        size = std::strlen(text);
    GenericValue v(text, static_cast<rapidjson::SizeType>(size), allocator_);
    write_value(v);
}

void RJ_Serializer::write(ObjectPath const& value)
{
    GenericValue v(value.c_str(), static_cast<rapidjson::SizeType>(value.str().size()), allocator_);
    write_value(v);
}

void RJ_Serializer::tuple_begin(unsigned long /*size*/, char const* /*signature*/)
{
    begin_container(What::List);
}

void RJ_Serializer::tuple_entry_begin() {}

void RJ_Serializer::tuple_entry_end() {}

void RJ_Serializer::tuple_end()
{
    end_container(What::List);
}

void RJ_Serializer::dict_begin(unsigned long /*size*/, char const* /*signature*/)
{
    begin_container(What::Dict);
}

void RJ_Serializer::dict_entry_begin(char const* /*signature*/)
{
    begin_container(What::DictEntryKey);
}

void RJ_Serializer::dict_entry_kv_separator() {}

void RJ_Serializer::dict_entry_end()
{
    end_container(What::DictEntryValue);
}

void RJ_Serializer::dict_end()
{
    end_container(What::Dict);
}

void RJ_Serializer::list_begin(unsigned long /*size*/, char const* /*signature*/)
{
    begin_container(What::List);
}

void RJ_Serializer::list_entry_begin() {}

void RJ_Serializer::list_entry_end() {}

void RJ_Serializer::list_end()
{
    end_container(What::List);
}

void RJ_Serializer::variant_begin(char const* /*signature*/) {}

void RJ_Serializer::variant_end() {}

void RJ_Serializer::typed_variant_begin(char const* signature)
{
    // Built of the dictionary operations, so the open containers and their checks are the
    // usual ones; the value then goes into the member "value".
    dict_begin(2, "{sv}");
    dict_entry_begin("sv");
    write("signature", 0, true);
    dict_entry_kv_separator();
    write(signature, 0, true);
    dict_entry_end();
    dict_entry_begin("sv");
    write("value", 0, true);
    dict_entry_kv_separator();
}

void RJ_Serializer::typed_variant_end()
{
    dict_entry_end();
    dict_end();
}

void RJ_Serializer::write_fd(int /*fd*/)
{
    boost::throw_exception(serialize_error("A file descriptor cannot be stored in a document"));
}

} // namespace tarvek::provider::storage
