// SPDX-License-Identifier: LGPL-2.1-or-later
// Storage documents: the saved state of a tarvek::Object as a JSON document, and views of
// its interfaces and properties.
//
//     {"interfaces": {"org.sample.Lamp": {"properties": {"Level": 3, "Label": null}}},
//      "path": "/lamp1"}
//
// A property's value has the form that RJ_Serializer gives it (rj_serializer.hpp): for
// instance a dictionary with integer keys is an object whose member names are the keys'
// decimal text. Doubles are written with just enough digits to read back to the same bits,
// and read with full precision. NaN and infinities have no JSON form: write_json stops
// at such a value.
//
// A property that is null stands for the default value: applying it resets the live
// property, and capturing a live property at its default stores null. A property or an
// interface that is absent is left alone by apply, and so is one that the live object lacks.
// Anything else in a document that was read is kept and written back, and equals ignores it.
//
// Ownership. A top-level Object, Interface or Property owns its document, and copies of
// it share that document; Object's own copy constructor and assignment are the exception,
// and copy deeply.
// What properties(), interfaces(), try_find and iteration give are views into the
// parent's document: a change through them changes the parent, and they are valid only
// while a holder of that document lives and the member is not removed. read_json replaces
// the document. add copies deeply into the receiver's document.
//
// Threads. Nothing here locks: a document and all its views belong to one thread at a
// time. apply runs on the caller's thread and calls the interface implementations'
// get_properties and set_properties there.
//
// A value of the wrong JSON type in a document that was read (a "properties" that is no
// JSON object, say) is reported on std::cerr as "RAPIDJSON_ASSERT(<expression>)" and then
// read as empty or absent; adding a member to it raises tarvek::invalid_argument "Not a JSON
// object" after that line.
#pragma once

#include <tarvek/provider/interface_implementation.hpp>
#include <tarvek/provider/storage/rapidjson_fwd.hpp>
#include <tarvek/provider/storage/rj_value.hpp>

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

namespace tarvek {
class Object;
} // namespace tarvek

namespace tarvek::provider::storage {

// The deepest nesting of JSON arrays and objects, the root included, that read_json
// takes. A stored bus value nests far less (D-Bus allows 64 levels of containers), and the
// document adds four levels above the values.
inline constexpr std::size_t max_document_depth = 512;

class ConstProperty;
class Property;
class ConstInterface;
class Interface;

// A position in a MemberConstCollection. Dereferencing gives a T made from the member's
// name and a view of its value.
template <class T>
class MemberIterator {
public:
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::forward_iterator_tag;
    // Elements are made on dereference, so this is no LegacyForwardIterator.
    using iterator_category = std::input_iterator_tag;

    MemberIterator() = default;
    MemberIterator(detail::RJ_Value::tag, detail::RJ_Value const& members, std::size_t index)
        : members_(&members.value())
        , allocator_(&members.allocator())
        , index_(index)
    {
    }

    T operator*() const;
    MemberIterator& operator++()
    {
        ++index_;
        return *this;
    }
    MemberIterator operator++(int)
    {
        MemberIterator before = *this;
        ++index_;
        return before;
    }
    bool operator==(MemberIterator const& other) const = default;

private:
    GenericValue* members_ = nullptr;
    MemoryPoolAllocator* allocator_ = nullptr;
    std::size_t index_ = 0;
};

// The members of a JSON object, read as T (ConstProperty, Property, ConstInterface or
// Interface), in document order. Lookups walk the members.
template <class T>
class MemberConstCollection {
public:
    using iterator = MemberIterator<T>;

    // `members` is the JSON object that holds the members.
    MemberConstCollection(detail::RJ_Value::tag, detail::RJ_Value members)
        : members_(std::move(members))
    {
    }

    std::size_t size() const;
    // The first member of that name, or nothing.
    std::optional<T> try_find(std::string const& name) const;

    iterator begin() const { return iterator(detail::RJ_Value::tag(), members_, 0); }
    iterator end() const { return iterator(detail::RJ_Value::tag(), members_, size()); }

protected:
    detail::RJ_Value members_;
};

// The same, and removal. Removing a member moves the last member into its place, so the
// order of the others is not kept; views and iterators past that place are then stale.
template <class T>
class MemberCollection : public MemberConstCollection<T> {
public:
    using MemberConstCollection<T>::MemberConstCollection;

    // Removes the first member of that name; false if there is none.
    bool try_remove(std::string const& name);
    // Raises tarvek::invalid_argument "No such member: " and the name.
    void remove(std::string const& name);
};

// A property's name and stored value.
class ConstProperty {
public:
    ConstProperty(detail::RJ_Value::tag, std::string name, detail::RJ_Value value);

    std::string const& name() const { return name_; }
    // At the default.
    bool is_null() const;
    GenericValue const& json_value() const;
    // The names are equal and the values are equal as RapidJSON compares them: members in
    // any order, and numbers as doubles if either is a double.
    bool equals(ConstProperty const& other) const;
    // A null value resets `target` to its default; any other value is read by
    // target.deserialize, which raises what the property raises for a value that does not
    // fit (such as tarvek::deserialize_error).
    void apply(provider::IPropertyEx& target) const;

protected:
    std::string name_;
    detail::RJ_Value value_;
};

class Property : public ConstProperty {
public:
    using ConstProperty::ConstProperty;
    using ConstProperty::json_value;

    // A document of its own, with a null value.
    explicit Property(std::string name);
    // Captures a live property: null if it is at its default, and otherwise its value.
    explicit Property(provider::IPropertyEx const& live);

    // The value is null again; its memory stays in the document's pool.
    void clear();
    // For changes with RapidJSON, which needs the document's allocator.
    GenericValue& json_value();
    MemoryPoolAllocator& allocator() const;
};

// An interface's name and the JSON object that holds its "properties".
class ConstInterface {
public:
    ConstInterface(detail::RJ_Value::tag, std::string name, detail::RJ_Value value);

    std::string const& name() const { return name_; }
    GenericValue const& json_value() const;
    // Raises tarvek::invalid_argument "No such member: properties".
    MemberConstCollection<ConstProperty> properties() const;
    // The names are equal, and the properties are equal by name, in any order.
    bool equals(ConstInterface const& other) const;
    // Changes a working copy from live.get_properties() by the stored properties and hands
    // it back through one live.set_properties: the interface changes as a whole or, if a
    // property or validation refuses (tarvek::validation_failed), not at all.
    void apply(provider::IInterfaceImplementation& live) const;

protected:
    std::string name_;
    detail::RJ_Value value_;
};

class Interface : public ConstInterface {
public:
    using ConstInterface::ConstInterface;
    using ConstInterface::properties;

    // A document of its own, with no properties.
    explicit Interface(std::string name);
    Interface(std::string name, std::initializer_list<Property> properties);
    // Captures a live interface from a working copy of its properties.
    explicit Interface(provider::IInterfaceImplementation const& live);

    // Raises as the const form.
    MemberCollection<Property> properties();
    // Copies the property into this document; one of the same name is replaced, and the
    // new one goes to the end.
    void add(Property const& property);
    // add of each, in order; other properties stay.
    void set_properties(std::initializer_list<Property> properties);
    // Raises tarvek::invalid_argument "No such member: " and the name.
    void remove(std::string const& name);
};

// A stored object: the root of a document.
class ConstObject {
public:
    // Shares the value.
    explicit ConstObject(detail::RJ_Value value);

    GenericValue const& json_value() const;
    // Raises tarvek::invalid_argument "No such member: interfaces".
    MemberConstCollection<ConstInterface> interfaces() const;
    // The "path" member, or the empty string if there is none.
    std::string path() const;
    // The paths are equal, and the interfaces are equal by name, in any order.
    bool equals(ConstObject const& other) const;
    // Applies each stored interface to the live interface of that name, in the live
    // object's order. Raises tarvek::invalid_argument "Path differs: <live> != <stored>"
    // before changing anything. An interface that fails stays unchanged, while those
    // applied before it keep their new values.
    void apply(tarvek::Object& live) const;
    // With keep_defaults false, null properties are left out, and so is an interface that
    // has nothing else. A NaN or infinite double ends the output at that value, unterminated.
    void write_json(std::ostream& out, bool keep_defaults) const;

protected:
    detail::RJ_Value value_;
};

class Object : public ConstObject {
public:
    using ConstObject::interfaces;

    // A document of its own with no interfaces and no path.
    Object();
    explicit Object(std::string const& path);
    Object(std::string const& path, std::initializer_list<Interface> interfaces);
    // Shares the value.
    explicit Object(detail::RJ_Value value);
    // Deep copies into a new document: the copy and the source are independent.
    explicit Object(ConstObject const& other);
    Object(Object const& other);
    Object(Object&& other) noexcept = default;
    Object& operator=(Object const& other);
    Object& operator=(Object&& other) noexcept = default;
    // Captures a live object: its path and every interface.
    explicit Object(tarvek::Object const& live);

    // Raises as the const form.
    MemberCollection<Interface> interfaces();
    // Copies the interface into this document; one of the same name is replaced, and the
    // new one goes to the end.
    void add(Interface const& interface);
    // Raises tarvek::invalid_argument "No such member: " and the name.
    void remove(std::string const& name);
    // Not checked to be a valid object path.
    void set_path(std::string const& path);
    // Replaces the document by one parsed from `in`: one JSON value, and nothing after it
    // but white space. Malformed input raises nothing and leaves a null root, on which
    // path() is empty and interfaces() raises; any well-formed value is taken as it is.
    // Numbers are read with full precision, so a double comes back with the bits that
    // write_json wrote. Containers nested deeper than max_document_depth count as
    // malformed: the parse itself needs no stack for nesting, but copying, comparing and
    // writing a value do.
    void read_json(std::istream& in);
    // For callers that must tell a bad file from a good one: as read_json, but input that
    // read_json would take as malformed raises tarvek::deserialize_error "Malformed JSON
    // document", and a root that is no JSON object with an "interfaces" object (and, if it
    // has a "path", a string there) raises "Not a stored object". This object is left as
    // it was on either.
    void read_json_checked(std::istream& in);
};

// write_json(out, false).
std::ostream& operator<<(std::ostream& out, ConstObject const& object);
// read_json(in).
std::istream& operator>>(std::istream& in, Object& object);

extern template class MemberIterator<ConstProperty>;
extern template class MemberIterator<Property>;
extern template class MemberIterator<ConstInterface>;
extern template class MemberIterator<Interface>;
extern template class MemberConstCollection<ConstProperty>;
extern template class MemberConstCollection<Property>;
extern template class MemberConstCollection<ConstInterface>;
extern template class MemberConstCollection<Interface>;
extern template class MemberCollection<Property>;
extern template class MemberCollection<Interface>;

} // namespace tarvek::provider::storage
