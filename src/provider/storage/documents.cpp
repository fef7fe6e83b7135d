// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/documents.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/storage/rj_deserializer.hpp>
#include <tarvek/provider/storage/rj_serializer.hpp>

#include <boost/throw_exception.hpp>
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <istream>
#include <ostream>
#include <span>
#include <string_view>
#include <vector>

namespace tarvek::provider::storage {

namespace {

using detail::RJ_Value;

constexpr char interfaces_key[] = "interfaces";
constexpr char properties_key[] = "properties";
constexpr char path_key[] = "path";

rapidjson::SizeType length_of(std::string_view text)
{
    return static_cast<rapidjson::SizeType>(text.size());
}

// The members of `object`. A value of another kind is reported once and has none, rather
// than being walked through whatever its storage holds.
std::span<GenericMember> members_of(GenericValue& object)
{
    if (!object.IsObject()) {
        detail::rapidjson_assertion_failed("IsObject()");
        return {};
    }
    // Taken without dereferencing: an empty object has no member array at all.
    return {object.MemberBegin().operator->(), object.MemberCount()};
}

// `value`, which is about to get a member. There is nothing sensible to add a member to
// in a value of another kind, so that is reported and refused.
GenericValue& object_to_change(GenericValue& value)
{
    if (!value.IsObject()) {
        detail::rapidjson_assertion_failed("IsObject()");
        boost::throw_exception(invalid_argument("Not a JSON object"));
    }
    return value;
}

bool remove_first(GenericValue& object, std::string_view name)
{
    auto const members = members_of(object);
    auto const found = std::find_if(members.begin(), members.end(), [&](GenericMember const& member) {
        return member.name.GetStringLength() == name.size()
            && std::memcmp(member.name.GetString(), name.data(), name.size()) == 0;
    });
    if (found == members.end())
        return false;
    // RapidJSON moves the last member into the gap.
    object.RemoveMember(object.MemberBegin() + (found - members.begin()));
    return true;
}

// Replaces the member `name` of `object`, or adds it, at the end, with `value` (moved).
GenericValue& put_member(
    GenericValue& object, std::string_view name, GenericValue& value, MemoryPoolAllocator& allocator)
{
    remove_first(object, name);
    object.AddMember(GenericValue(name.data(), length_of(name), allocator), value, allocator);
    return (object.MemberEnd() - 1)->value;
}

// An interface's value: an object holding an empty "properties". The key is a literal,
// which RapidJSON keeps by reference.
GenericValue new_interface_value(MemoryPoolAllocator& allocator)
{
    GenericValue value(rapidjson::kObjectType);
    value.AddMember(rapidjson::StringRef(properties_key), GenericValue(rapidjson::kObjectType), allocator);
    return value;
}

// Captures each property of a working copy of `live` into `properties`. Serialised in place
// rather than into a stand-alone Property that add then copies: the result is the same,
// without a document and a deep copy per property.
void capture_properties(
    GenericValue& properties, MemoryPoolAllocator& allocator, IInterfaceImplementation const& live)
{
    auto const copy = live.get_properties();
    IPropertyExCollection const& working = *copy;
    for (unsigned long i = 0; i < working.size(); ++i) {
        IPropertyEx const& property = working[i];
        GenericValue null_value;
        GenericValue& value = put_member(properties, property.name().view(), null_value, allocator);
        if (!property.is_default()) {
            RJ_Serializer sink(value, allocator);
            property.serialize(sink);
        }
    }
}

// Forwards the parser's events to the document that it fills, and stops the parse when
// containers nest deeper than max_document_depth.
class DepthLimit {
public:
    explicit DepthLimit(GenericDocument& document)
        : document_(document)
    {
    }

    bool Null() { return document_.Null(); }
    bool Bool(bool b) { return document_.Bool(b); }
    bool Int(int i) { return document_.Int(i); }
    bool Uint(unsigned i) { return document_.Uint(i); }
    bool Int64(std::int64_t i) { return document_.Int64(i); }
    bool Uint64(std::uint64_t i) { return document_.Uint64(i); }
    bool Double(double d) { return document_.Double(d); }
    bool RawNumber(char const* text, rapidjson::SizeType length, bool copy)
    {
        return document_.RawNumber(text, length, copy);
    }
    bool String(char const* text, rapidjson::SizeType length, bool copy)
    {
        return document_.String(text, length, copy);
    }
    bool Key(char const* text, rapidjson::SizeType length, bool copy)
    {
        return document_.Key(text, length, copy);
    }
    bool StartObject() { return enter() && document_.StartObject(); }
    bool EndObject(rapidjson::SizeType count)
    {
        --depth_;
        return document_.EndObject(count);
    }
    bool StartArray() { return enter() && document_.StartArray(); }
    bool EndArray(rapidjson::SizeType count)
    {
        --depth_;
        return document_.EndArray(count);
    }

private:
    bool enter() { return ++depth_ <= max_document_depth; }

    GenericDocument& document_;
    std::size_t depth_ = 0;
};

// Full precision, so that a double comes back with the very bits that the writer's text
// singles out (the writer gives just enough digits for that, and the default parse may be
// off in the last bit: 0.30000000000000007 would come back as 0.3000000000000001), and
// iterative, so that deep nesting costs heap and not stack. The depth limit protects what
// comes after the parse: copying, comparing and writing a value recurse on its nesting.
// False for input that fails to parse, for whatever reason; `document` then has a null root.
bool parse_document(std::istream& in, GenericDocument& document)
{
    rapidjson::IStreamWrapper stream(in);
    bool parsed = false;
    auto generate = [&stream, &parsed](GenericDocument& target) {
        DepthLimit handler(target);
        rapidjson::Reader reader;
        constexpr unsigned flags = rapidjson::kParseFullPrecisionFlag | rapidjson::kParseIterativeFlag;
        parsed = !reader.Parse<flags>(stream, handler).IsError();
        return parsed;
    };
    document.Populate(generate);
    return parsed;
}

void write_document(GenericValue const& root, std::ostream& out)
{
    rapidjson::OStreamWrapper stream(out);
    rapidjson::PrettyWriter<rapidjson::OStreamWrapper> writer(stream);
    // A false result (a NaN or an infinity) has stopped the output where it stands.
    root.Accept(writer);
}

// Leaves out every null property, and then every interface that has nothing left.
void strip_defaults(Object& document)
{
    std::vector<std::string> emptied;
    std::vector<std::string> nulls;
    for (Interface interface : document.interfaces()) {
        nulls.clear();
        for (ConstProperty const& property : interface.properties())
            if (property.is_null())
                nulls.push_back(property.name());
        for (auto const& name : nulls)
            interface.remove(name);
        if (interface.properties().size() == 0)
            emptied.push_back(interface.name());
    }
    for (auto const& name : emptied)
        document.remove(name);
}

} // namespace

// ---- collections ----

template <class T>
T MemberIterator<T>::operator*() const
{
    GenericMember& member = *(members_->MemberBegin() + static_cast<rapidjson::SizeType>(index_));
    return T(RJ_Value::tag(), std::string(member.name.GetString(), member.name.GetStringLength()),
        RJ_Value(member.value, *allocator_));
}

template <class T>
std::size_t MemberConstCollection<T>::size() const
{
    return members_of(members_.value()).size();
}

template <class T>
std::optional<T> MemberConstCollection<T>::try_find(std::string const& name) const
{
    if (auto found = members_.try_get_member(name))
        return T(RJ_Value::tag(), name, *found);
    return std::nullopt;
}

template <class T>
bool MemberCollection<T>::try_remove(std::string const& name)
{
    return remove_first(this->members_.value(), name);
}

template <class T>
void MemberCollection<T>::remove(std::string const& name)
{
    if (!try_remove(name))
        boost::throw_exception(invalid_argument(str::join("No such member: ", name)));
}

// ---- properties ----

ConstProperty::ConstProperty(RJ_Value::tag, std::string name, RJ_Value value)
    : name_(std::move(name))
    , value_(std::move(value))
{
}

bool ConstProperty::is_null() const
{
    return value_.value().IsNull();
}

GenericValue const& ConstProperty::json_value() const
{
    return value_.value();
}

bool ConstProperty::equals(ConstProperty const& other) const
{
    return name_ == other.name_ && value_.value() == other.value_.value();
}

void ConstProperty::apply(IPropertyEx& target) const
{
    if (is_null()) {
        target.reset();
        return;
    }
    RJ_Deserializer source(value_.value());
    target.deserialize(source);
}

Property::Property(std::string name)
    : ConstProperty(RJ_Value::tag(), std::move(name), RJ_Value::make_doc())
{
}

Property::Property(IPropertyEx const& live)
    : Property(live.name().str())
{
    if (!live.is_default()) {
        RJ_Serializer sink(value_.value(), value_.allocator());
        live.serialize(sink);
    }
}

void Property::clear()
{
    value_.value().SetNull();
}

GenericValue& Property::json_value()
{
    return value_.value();
}

MemoryPoolAllocator& Property::allocator() const
{
    return value_.allocator();
}

// ---- interfaces ----

ConstInterface::ConstInterface(RJ_Value::tag, std::string name, RJ_Value value)
    : name_(std::move(name))
    , value_(std::move(value))
{
}

GenericValue const& ConstInterface::json_value() const
{
    return value_.value();
}

MemberConstCollection<ConstProperty> ConstInterface::properties() const
{
    return {RJ_Value::tag(), value_.member(properties_key)};
}

bool ConstInterface::equals(ConstInterface const& other) const
{
    if (name_ != other.name_)
        return false;
    auto const mine = properties();
    auto const theirs = other.properties();
    if (mine.size() != theirs.size())
        return false;
    return std::ranges::all_of(mine, [&](ConstProperty const& property) {
        auto const found = theirs.try_find(property.name());
        return found && property.equals(*found);
    });
}

void ConstInterface::apply(IInterfaceImplementation& live) const
{
    auto copy = live.get_properties();
    IPropertyExCollection& working = *copy;
    auto const stored = properties();
    for (unsigned long i = 0; i < working.size(); ++i) {
        IPropertyEx& property = working[i];
        if (auto const found = stored.try_find(property.name().str()))
            found->apply(property);
    }
    live.set_properties(working);
}

Interface::Interface(std::string name)
    : ConstInterface(RJ_Value::tag(), std::move(name), RJ_Value::make_doc())
{
    value_.value() = new_interface_value(value_.allocator());
}

Interface::Interface(std::string name, std::initializer_list<Property> properties)
    : Interface(std::move(name))
{
    set_properties(properties);
}

Interface::Interface(IInterfaceImplementation const& live)
    : Interface(live.interface_name().str())
{
    capture_properties(value_.member(properties_key).value(), value_.allocator(), live);
}

MemberCollection<Property> Interface::properties()
{
    return {RJ_Value::tag(), value_.member(properties_key)};
}

void Interface::add(Property const& property)
{
    GenericValue& properties = object_to_change(value_.member(properties_key).value());
    // Copied before the old member goes: `property` may be a view of that very member.
    GenericValue copy(property.json_value(), value_.allocator());
    put_member(properties, property.name(), copy, value_.allocator());
}

void Interface::set_properties(std::initializer_list<Property> properties)
{
    for (Property const& property : properties)
        add(property);
}

void Interface::remove(std::string const& name)
{
    properties().remove(name);
}

// ---- objects ----

ConstObject::ConstObject(RJ_Value value)
    : value_(std::move(value))
{
}

GenericValue const& ConstObject::json_value() const
{
    return value_.value();
}

MemberConstCollection<ConstInterface> ConstObject::interfaces() const
{
    return {RJ_Value::tag(), value_.member(interfaces_key)};
}

std::string ConstObject::path() const
{
    auto const found = value_.try_get_member(path_key);
    if (!found)
        return {};
    GenericValue const& text = found->value();
    // A path of another kind is reported and read as empty, rather than through a pointer
    // that its storage does not hold.
    if (!text.IsString()) {
        detail::rapidjson_assertion_failed("IsString()");
        return {};
    }
    return {text.GetString(), text.GetStringLength()};
}

bool ConstObject::equals(ConstObject const& other) const
{
    if (path() != other.path())
        return false;
    auto const mine = interfaces();
    auto const theirs = other.interfaces();
    if (mine.size() != theirs.size())
        return false;
    return std::ranges::all_of(mine, [&](ConstInterface const& interface) {
        auto const found = theirs.try_find(interface.name());
        return found && interface.equals(*found);
    });
}

void ConstObject::apply(tarvek::Object& live) const
{
    std::string const stored = path();
    if (live.path().str() != stored)
        boost::throw_exception(invalid_argument(str::join("Path differs: ", live.path(), " != ", stored)));
    // The live object's order rules; its count is read anew for each step.
    for (unsigned long i = 0; i < live.num_interfaces(); ++i) {
        IInterfaceImplementation& interface = live.interface(i);
        if (auto const found = interfaces().try_find(interface.interface_name().str()))
            found->apply(interface);
    }
}

void ConstObject::write_json(std::ostream& out, bool keep_defaults) const
{
    if (keep_defaults) {
        write_document(value_.value(), out);
        return;
    }
    Object copy(*this);
    strip_defaults(copy);
    write_document(copy.json_value(), out);
}

Object::Object()
    : ConstObject(RJ_Value::make_doc())
{
    GenericValue& root = value_.value();
    root.SetObject();
    root.AddMember(
        rapidjson::StringRef(interfaces_key), GenericValue(rapidjson::kObjectType), value_.allocator());
}

Object::Object(std::string const& path)
    : Object()
{
    set_path(path);
}

Object::Object(std::string const& path, std::initializer_list<Interface> interfaces)
    : Object(path)
{
    for (Interface const& interface : interfaces)
        add(interface);
}

Object::Object(RJ_Value value)
    : ConstObject(std::move(value))
{
}

Object::Object(ConstObject const& other)
    : ConstObject(RJ_Value::make_doc())
{
    value_.value().CopyFrom(other.json_value(), value_.allocator());
}

Object::Object(Object const& other)
    : Object(static_cast<ConstObject const&>(other))
{
}

Object& Object::operator=(Object const& other)
{
    if (this != &other)
        *this = Object(other);
    return *this;
}

Object::Object(tarvek::Object const& live)
    : Object(live.path().str())
{
    GenericValue& interfaces = value_.member(interfaces_key).value();
    MemoryPoolAllocator& allocator = value_.allocator();
    // Captured in place, as the properties are (see capture_properties).
    for (unsigned long i = 0; i < live.num_interfaces(); ++i) {
        IInterfaceImplementation const& interface = live.interface(i);
        GenericValue entry = new_interface_value(allocator);
        GenericValue& stored = put_member(interfaces, interface.interface_name().view(), entry, allocator);
        capture_properties(stored.MemberBegin()->value, allocator, interface);
    }
}

MemberCollection<Interface> Object::interfaces()
{
    return {RJ_Value::tag(), value_.member(interfaces_key)};
}

void Object::add(Interface const& interface)
{
    GenericValue& interfaces = object_to_change(value_.member(interfaces_key).value());
    // Copied before the old member goes: `interface` may be a view of that very member.
    GenericValue copy(interface.json_value(), value_.allocator());
    put_member(interfaces, interface.name(), copy, value_.allocator());
}

void Object::remove(std::string const& name)
{
    interfaces().remove(name);
}

void Object::set_path(std::string const& path)
{
    GenericValue& root = object_to_change(value_.value());
    GenericValue text(path.data(), length_of(path), value_.allocator());
    if (auto found = value_.try_get_member(path_key))
        found->value() = text;
    else
        root.AddMember(rapidjson::StringRef(path_key), text, value_.allocator());
}

void Object::read_json(std::istream& in)
{
    GenericDocument document;
    // A parse error leaves the new document's root null; it is taken all the same.
    parse_document(in, document);
    value_ = RJ_Value::from_doc(std::move(document));
}

void Object::read_json_checked(std::istream& in)
{
    GenericDocument document;
    if (!parse_document(in, document))
        boost::throw_exception(deserialize_error("Malformed JSON document"));
    auto const is_member_of_type = [&](char const* key, rapidjson::Type type) {
        auto const found = document.FindMember(key);
        return found != document.MemberEnd() && found->value.GetType() == type;
    };
    if (!document.IsObject() || !is_member_of_type(interfaces_key, rapidjson::kObjectType)
        || (document.HasMember(path_key) && !is_member_of_type(path_key, rapidjson::kStringType)))
        boost::throw_exception(deserialize_error("Not a stored object"));
    value_ = RJ_Value::from_doc(std::move(document));
}

std::ostream& operator<<(std::ostream& out, ConstObject const& object)
{
    object.write_json(out, false);
    return out;
}

std::istream& operator>>(std::istream& in, Object& object)
{
    object.read_json(in);
    return in;
}

template class MemberIterator<ConstProperty>;
template class MemberIterator<Property>;
template class MemberIterator<ConstInterface>;
template class MemberIterator<Interface>;
template class MemberConstCollection<ConstProperty>;
template class MemberConstCollection<Property>;
template class MemberConstCollection<ConstInterface>;
template class MemberConstCollection<Interface>;
template class MemberCollection<Property>;
template class MemberCollection<Interface>;

} // namespace tarvek::provider::storage
