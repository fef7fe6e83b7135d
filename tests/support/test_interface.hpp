// SPDX-License-Identifier: LGPL-2.1-or-later
// A hand-made interface for tests: properties of a few basic types held as variants,
// methods whose bodies are std::functions, signals carrying a list of values, and an
// interface class whose validate and on_changed can be steered and observed.
//
// Lifetime: TestMembers (methods and signals) must outlive every server's wrapper of the
// interface, as real interface code gives them static storage; a test keeps them in its
// fixture, declared before the servers.
#pragma once

#include "support/test_values.hpp"

#include <tarvek/provider/empty_range_collection.hpp>
#include <tarvek/provider/interface_implementation_base.hpp>
#include <tarvek/provider/interface_state.hpp>
#include <tarvek/provider/object.hpp>

#include <boost/exception_ptr.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace tarvek::test {

struct PropertySpec {
    std::string name;
    Value initial;
    bool readonly = false;
};

// Names and defaults live in one shared description, so that working copies can point at
// the same characters as the committed set.
class TestProperty : public provider::IPropertyEx {
public:
    TestProperty(std::shared_ptr<PropertySpec const> description, unsigned short index)
        : value(description->initial)
        , description_(std::move(description))
        , index_(index)
        , signature_{type_code(value), '\0'}
    {
    }

    ConstString name() const override { return {description_->name.c_str(), description_->name.size()}; }
    ConstString signature() const override { return {signature_, 1}; }
    void serialize(glue::ISerializer& sink) const override { write_value(sink, value); }
    bool is_default() const override { return value == description_->initial; }
    void serialize_default(glue::ISerializer& sink) const override { write_value(sink, description_->initial); }
    bool is_readonly() const override { return description_->readonly; }
    glue::ICollection<glue::IPropertyRange> const& ranges() const override
    {
        return provider::range::EmptyRangeCollection::instance;
    }

    // Marks only a change, so that rewriting the same value commits nothing.
    void deserialize(glue::IDeserializer& source) override { assign(read(source)); }
    void reset() override { assign(description_->initial); }
    void set_dirty() override { dirty = true; }
    void clear_dirty() override { dirty = false; }
    bool is_dirty() const override { return dirty; }
    unsigned short index() const override { return index_; }
    // Takes only a changed value, so that overlapping batches from several threads each
    // keep what they wrote.
    void copy_from(provider::IPropertyEx const& other) override
    {
        auto const& source = static_cast<TestProperty const&>(other);
        if (source.dirty)
            value = source.value;
    }
    bool equals(provider::IPropertyEx const& other) const override
    {
        return value == static_cast<TestProperty const&>(other).value;
    }

    Value value;
    bool dirty = false;

private:
    void assign(Value next)
    {
        if (next == value)
            return;
        value = std::move(next);
        dirty = true;
    }

    Value read(glue::IDeserializer& source) const
    {
        switch (value.index()) {
        case 0:
            return source.read_bool();
        case 1:
            return source.read_int32();
        case 2:
            return source.read_int64();
        case 3:
            return source.read_double();
        default:
            return source.read_string();
        }
    }

    std::shared_ptr<PropertySpec const> description_;
    unsigned short index_;
    char signature_[2];
};

class TestPropertySet : public provider::IPropertyExCollection {
public:
    explicit TestPropertySet(std::vector<PropertySpec> const& descriptions)
    {
        items.reserve(descriptions.size());
        for (auto const& description : descriptions)
            items.emplace_back(
                std::make_shared<PropertySpec const>(description), static_cast<unsigned short>(items.size()));
    }

    unsigned long size() const override { return items.size(); }
    TestProperty& operator[](unsigned long index) override { return items[index]; }
    TestProperty const& operator[](unsigned long index) const override { return items[index]; }

    std::vector<TestProperty> items;
};

class TestReturnValue : public glue::IMethodReturnValue {
public:
    explicit TestReturnValue(Values values)
        : values(std::move(values))
    {
    }
    void serialize(glue::ISerializer& sink) override
    {
        for (auto const& value : values)
            write_value(sink, value);
    }

    Values values;
};

struct BoundArguments : provider::IBoundCall {
    explicit BoundArguments(Values arguments)
        : arguments(std::move(arguments))
    {
    }
    Values arguments;
};

using Promise = boost::promise<std::unique_ptr<glue::IMethodReturnValue>>;

// `parameters` is a string of type codes (b, i, x, d, s); `results` the same for the result.
class TestMethod : public provider::IMethodEx {
public:
    // A body that answers at once; what it raises goes into the promise.
    using Body = std::function<Values(Values const& arguments)>;
    // A body that takes over the promise and answers when it likes.
    using AsyncBody = std::function<void(Values const& arguments, Promise& promise)>;

    TestMethod(std::string name, std::string parameters, std::string results, Body body)
        : TestMethod(std::move(name), std::move(parameters), std::move(results),
            [body = std::move(body)](Values const& arguments, Promise& promise) {
                promise.set_value(std::make_unique<TestReturnValue>(body(arguments)));
            })
    {
    }
    TestMethod(std::string name, std::string parameters, std::string results, AsyncBody body)
        : name_(std::move(name))
        , parameters_(std::move(parameters))
        , results_(std::move(results))
        , body_(std::move(body))
    {
    }

    ConstString name() const override { return {name_.c_str(), name_.size()}; }
    ConstString result_signature() const override { return {results_.c_str(), results_.size()}; }
    ConstString parameter_signature() const override { return {parameters_.c_str(), parameters_.size()}; }

    void invoke(provider::IBoundCall& call, Promise& promise) override
    {
        ++invocations;
        try {
            body_(static_cast<BoundArguments&>(call).arguments, promise);
        } catch (...) {
            promise.set_exception(boost::current_exception());
        }
    }

    std::unique_ptr<provider::IBoundCall> bind(
        void* target, glue::IIterator<glue::IDeserializer&>& arguments) override
    {
        last_target = target;
        Values read;
        for (char const code : parameters_) {
            if (arguments.at_end())
                boost::throw_exception(length_error("No more elements to read"));
            auto& source = arguments.value();
            switch (code) {
            case 'b':
                read.emplace_back(source.read_bool());
                break;
            case 'i':
                read.emplace_back(source.read_int32());
                break;
            case 'x':
                read.emplace_back(source.read_int64());
                break;
            case 'd':
                read.emplace_back(source.read_double());
                break;
            default:
                read.emplace_back(source.read_string());
                break;
            }
            arguments.advance();
        }
        return std::make_unique<BoundArguments>(std::move(read));
    }

    std::atomic<int> invocations{0};
    std::atomic<void*> last_target{nullptr};

private:
    std::string name_;
    std::string parameters_;
    std::string results_;
    AsyncBody body_;
};

class TestSignal : public glue::ISignal {
public:
    TestSignal(std::string name, std::string signature)
        : name_(std::move(name))
        , signature_(std::move(signature))
    {
    }
    ConstString name() const override { return {name_.c_str(), name_.size()}; }
    ConstString signature() const override { return {signature_.c_str(), signature_.size()}; }

private:
    std::string name_;
    std::string signature_;
};

class TestSignalValue : public glue::ISignalValue {
public:
    explicit TestSignalValue(Values values)
        : values(std::move(values))
    {
    }
    void serialize(glue::ISerializer& sink) const override
    {
        for (auto const& value : values)
            write_value(sink, value);
    }

    Values values;
};

// A collection over owned members that don't move.
template <class Element, class Interface> class OwningCollection : public glue::ICollection<Interface> {
public:
    unsigned long size() const override { return elements.size(); }
    Interface& operator[](unsigned long index) override { return *elements.at(index); }
    Interface const& operator[](unsigned long index) const override { return *elements.at(index); }

    template <class... Args> Element& add(Args&&... args)
    {
        return *elements.emplace_back(std::make_unique<Element>(std::forward<Args>(args)...));
    }

    std::vector<std::unique_ptr<Element>> elements;
};

struct TestMembers {
    OwningCollection<TestMethod, glue::IMethod> methods;
    OwningCollection<TestSignal, glue::ISignal> signals;
};

class TestInterface : public provider::InterfaceImplementationBase {
public:
    // `name` must outlive the interface's wrappers (a literal does).
    TestInterface(ConstString name, std::vector<PropertySpec> const& properties, TestMembers& members)
        : InterfaceImplementationBase(std::make_shared<provider::InterfaceState>(
            *this, name, std::make_shared<TestPropertySet>(properties), members.methods, members.signals))
    {
    }
    // Moves the tie to the state; counters and records start afresh.
    TestInterface(TestInterface&& other)
        : InterfaceImplementationBase(std::move(other))
        , validator(std::move(other.validator))
        , on_changed_hook(std::move(other.on_changed_hook))
    {
    }

    std::unique_ptr<provider::IPropertyExCollection> get_properties() const override
    {
        return std::make_unique<TestPropertySet>(committed_set());
    }
    void set_properties(provider::IPropertyExCollection& context) override
    {
        state_->set_properties(context);
    }
    void* method_target() override { return this; }
    bool validate(provider::IPropertyExCollection& context) override
    {
        ++validate_calls;
        return validator ? validator(static_cast<TestPropertySet&>(context)) : true;
    }
    void on_changed(provider::IPropertyExCollection& context, provider::IChangedProperties& changed) override
    {
        std::vector<unsigned long> indices;
        for (unsigned long i = 0; i < changed.size(); ++i)
            indices.push_back(static_cast<provider::IPropertyEx&>(changed[i]).index());
        {
            std::lock_guard lock(record_mutex_);
            changes_.push_back(std::move(indices));
        }
        if (on_changed_hook)
            on_changed_hook(static_cast<TestPropertySet&>(context));
    }

    provider::InterfaceState& state() { return *state_; }

    // The committed value, read as a server would: under the shared lock.
    Value committed(unsigned long index) const
    {
        std::shared_lock lock(state_->state_mutex());
        return committed_set().items.at(index).value;
    }
    // Changes a live property as interface code does: under the exclusive lock, then tells.
    void change_live(unsigned long index, Value value)
    {
        {
            std::unique_lock lock(state_->state_mutex());
            auto& property = const_cast<TestPropertySet&>(committed_set()).items.at(index);
            property.value = std::move(value);
            property.dirty = true;
        }
        state_->notify_property_dirty(index);
    }
    void emit(glue::ISignal& signal, Values values)
    {
        state_->emit_signal(signal, std::make_shared<TestSignalValue>(std::move(values)));
    }
    std::vector<std::vector<unsigned long>> recorded_changes() const
    {
        std::lock_guard lock(record_mutex_);
        return changes_;
    }

    // Steering, set before the interface is used.
    std::function<bool(TestPropertySet&)> validator;
    std::function<void(TestPropertySet&)> on_changed_hook;

    std::atomic<int> validate_calls{0};

private:
    TestPropertySet const& committed_set() const
    {
        return static_cast<TestPropertySet const&>(std::as_const(*state_).properties());
    }

    mutable std::mutex record_mutex_;
    std::vector<std::vector<unsigned long>> changes_;
};

// Adds the interface the way an application's interface-adding helper would.
inline TestInterface& add_interface(Object& object, std::unique_ptr<TestInterface> implementation)
{
    object.check_can_add_interface(implementation->interface_name());
    return static_cast<TestInterface&>(*object.add_interface_internal(std::move(implementation)));
}

} // namespace tarvek::test
