// SPDX-License-Identifier: LGPL-2.1-or-later
// Typed interfaces: what an application writes instead of implementing property, method,
// signal and collection classes by hand. An interface is a class derived from
// tarvek::provider::Interface whose members declare its properties, methods and signals:
//
//     class Lamp : public tarvek::provider::Interface {
//     public:
//         Lamp() : Interface("org.sample.Lamp") {}
//         Property<bool> on{*this, "On", false};
//         Property<std::uint32_t> level{*this, "Level", 0, Access::read_write, {{0U, 100U}}};
//         Signal<std::uint64_t> blinked{*this, "Blinked"};
//         Method toggle{*this, "Toggle", &Lamp::do_toggle};
//     protected:
//         bool validate(Values const& v) const override { return v[level] <= 100; }
//     private:
//         bool do_toggle() { on.set(!on.get()); return on.get(); }
//     };
//
// Members are declared once, in the class, before the interface is added to an object.
// An interface is pinned in memory (neither copied nor moved): the handles refer to it.
//
// Threads. Method handlers run on the object's executor, one at a time when one thread
// drives it; tarvek::current_caller() names the bus client during a handler and during
// validate and on_changed of a bus write, and is null for a local set or update. validate
// and on_changed run under the interface's exclusive lock: on the executor for a bus write,
// on the caller's thread for Property::set and update; they must not call set, update or
// emit (which raise std::system_error, EDEADLK). Property::get may be called from any
// thread. Destroy an interface (through its object) on the thread that drives its
// executor, or after that executor has been closed, so that no queued call runs against it.
//
// What validate sees. Always the state that will stand if it says yes: the values that
// the write names, laid over the live values of every other property as they are at the
// commit, under the exclusive lock. A bus write is read into a copy of the property set
// on the server's thread and committed later, on the executor; whatever other writes or
// setters committed in between is in what validate judges, so no interleaving of writes
// can leave a state that validate refuses. Only the properties that the write names are
// copied into the live set; the others keep their live values, and two writes that name
// different properties both survive. Property::set and update likewise compare and
// validate against the live values, not against the copy that `edit` was given.
#pragma once

#include <tarvek/common/caller.hpp>
#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/empty_range_collection.hpp>
#include <tarvek/provider/interface_implementation_base.hpp>
#include <tarvek/provider/interface_state.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/value_codec.hpp>

#include <boost/exception_ptr.hpp>
#include <boost/thread/future.hpp>
#include <boost/throw_exception.hpp>

#include <atomic>
#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarvek::provider {

class Interface;
template <BusValue T>
class Property;
template <BusValue... A>
class Signal;
class Method;
template <class R = void>
class Responder;

namespace typed {
template <class Handler, class Result, class BusArguments, class Reply>
class TypedMethod;
} // namespace typed

enum class Access { read_write, read_only };

// How a change of a property is announced on the bus (PropertiesChanged, and the annotation
// "org.freedesktop.DBus.Property.EmitsChangedSignal" in introspection data):
//   emits        with its new value (the default);
//   invalidates  by name only, in the signal's list of invalidated properties; a client
//                that wants the value reads it;
//   constant     never: the value is fixed while the object is registered. Property::set
//                and update then raise tarvek::invalid_state_error, and a bus write is
//                refused with "org.freedesktop.DBus.Error.PropertyReadOnly"; the property
//                is read-only on the bus whatever its Access says;
//   none         not at all: the value changes, and clients learn it only by reading.
using Change = glue::ChangeSignal;

// What a property's ranges are for. Published: the ranges are told to clients
// (com.omno.ExtendedProperties.GetRanges) and nothing more, validate decides alone.
// Enforced: in addition a write outside them is refused like a refusal of validate, before
// validate is asked. See Range for the bounds that an entry sets.
enum class RangeCheck { published, enforced };

// The return type of a method with several results: each member is an out argument of its
// own ("ab" for Results<bool, std::int32_t>), where a std::tuple is one struct result
// ("(bi)"). Built like the tuple: `return {true, 5};`. Usable in Responder<Results<...>>.
template <BusValue... A>
struct Results : std::tuple<A...> {
    using std::tuple<A...>::tuple;
};

// Optional names of a method's arguments, shown in introspection: the parameters (`in`,
// without a leading Responder) and the results (`out`, one per member of Results, else
// one). Either every argument has a name or none does; each is a D-Bus member name
// (ASCII letters, digits and underscores, not starting with a digit).
struct ArgumentNames {
    std::vector<std::string> in;
    std::vector<std::string> out;
};

// One entry of a property's ranges: a first value, and optionally a second and a third,
// told apart only by their place (for example a minimum and a maximum).
//
// Where a property's ranges are enforced, an entry bounds the value as follows: one value
// admits that value alone (it is the minimum and the maximum); two or three values admit
// everything from the first (the minimum) to the second (the maximum), both included, and a
// third value (a step or a hint for clients) bounds nothing. A value is admitted when one
// entry of the property admits it; a property without entries admits every value.
template <BusValue T>
class Range final : public glue::IPropertyRange {
public:
    Range(T first) : first_(std::move(first)) {} // NOLINT(google-explicit-constructor)
    Range(T first, T second) : first_(std::move(first)), second_(std::move(second)) {}
    Range(T first, T second, T third)
        : first_(std::move(first)), second_(std::move(second)), third_(std::move(third))
    {}

    T const& first() const { return first_; }
    std::optional<T> const& second() const { return second_; }
    std::optional<T> const& third() const { return third_; }

    T const& minimum() const { return first_; }
    T const& maximum() const { return second_ ? *second_ : first_; }
    // Whether the value lies within the bounds above. Needs an ordered type.
    bool contains(T const& value) const
        requires std::totally_ordered<T>
    {
        // Asked this way round, a value that compares with nothing (NaN) lies outside.
        return minimum() <= value && value <= maximum();
    }

    bool has_second() const override { return second_.has_value(); }
    bool has_third() const override { return third_.has_value(); }
    void serialize_first(glue::ISerializer& sink) const override { write_value(sink, first_); }
    void serialize_second(glue::ISerializer& sink) const override { write_value(sink, *second_); }
    void serialize_third(glue::ISerializer& sink) const override { write_value(sink, *third_); }

private:
    T first_;
    std::optional<T> second_;
    std::optional<T> third_;
};

namespace typed {

// A random-access collection over owned elements, seen through their base class.
template <class Base, class Element = Base>
class OwningCollection final : public glue::ICollection<Base> {
public:
    unsigned long size() const override { return elements.size(); }
    Base& operator[](unsigned long index) override { return *elements.at(index); }
    Base const& operator[](unsigned long index) const override { return *elements.at(index); }

    std::vector<std::unique_ptr<Element>> elements;
};

// What every typed property adds to IPropertyEx: a copy for working sets, and the check of
// enforced ranges that a commit makes before validate.
class TypedPropertyBase : public IPropertyEx {
public:
    virtual std::unique_ptr<TypedPropertyBase> clone() const = 0;
    // True unless the property's ranges are enforced and its value lies outside all of them.
    virtual bool within_enforced_ranges() const = 0;
};

// The parts of a property that never change, shared by the live property and its copies.
template <class T>
struct PropertyDescriptor {
    std::string name;
    T default_value;
    bool read_only;
    unsigned short index;
    std::vector<Range<T>> entries;
    glue::ChangeSignal change = glue::ChangeSignal::emits;
    bool enforce_ranges = false;

    class Ranges final : public glue::ICollection<glue::IPropertyRange> {
    public:
        explicit Ranges(std::vector<Range<T>> const& e) : entries_(e) {}
        unsigned long size() const override { return entries_.size(); }
        glue::IPropertyRange& operator[](unsigned long i) override
        {
            return const_cast<Range<T>&>(entries_.at(i)); // NOLINT: entries are never written
        }
        glue::IPropertyRange const& operator[](unsigned long i) const override { return entries_.at(i); }

    private:
        std::vector<Range<T>> const& entries_;
    } ranges{entries};

    PropertyDescriptor(std::string n, T d, bool ro, unsigned short i, std::vector<Range<T>> r,
        glue::ChangeSignal c = glue::ChangeSignal::emits, bool enforce = false)
        : name(std::move(n))
        , default_value(std::move(d))
        , read_only(ro)
        , index(i)
        , entries(std::move(r))
        , change(c)
        , enforce_ranges(enforce)
    {}
    PropertyDescriptor(PropertyDescriptor const&) = delete;
    PropertyDescriptor& operator=(PropertyDescriptor const&) = delete;
};

// One typed value. Its own mutex keeps the reads that servers make without the state lock
// (is_default, and serialize during a commit of another interface's copy) safe against a
// concurrent commit.
template <class T>
class TypedProperty final : public TypedPropertyBase, public glue::IPropertyChange {
public:
    explicit TypedProperty(std::shared_ptr<PropertyDescriptor<T> const> descriptor)
        : descriptor_(std::move(descriptor)), value_(descriptor_->default_value)
    {}

    ConstString name() const override { return {descriptor_->name.c_str(), descriptor_->name.size()}; }
    ConstString signature() const override { return {signature_of<T>, signature_size_of<T>}; }
    void serialize(glue::ISerializer& sink) const override
    {
        std::lock_guard lock(mutex_);
        write_value(sink, value_);
    }
    bool is_default() const override
    {
        std::lock_guard lock(mutex_);
        return value_ == descriptor_->default_value;
    }
    void serialize_default(glue::ISerializer& sink) const override { write_value(sink, descriptor_->default_value); }
    bool is_readonly() const override { return descriptor_->read_only; }
    glue::ICollection<glue::IPropertyRange> const& ranges() const override
    {
        if (descriptor_->entries.empty())
            return range::EmptyRangeCollection::instance;
        return descriptor_->ranges;
    }
    glue::ChangeSignal change_signal() const override { return descriptor_->change; }

    void deserialize(glue::IDeserializer& source) override { assign(read_value<T>(source)); }
    void reset() override { assign(descriptor_->default_value); }
    void set_dirty() override { dirty_ = true; }
    void clear_dirty() override { dirty_ = false; }
    bool is_dirty() const override { return dirty_; }
    unsigned short index() const override { return descriptor_->index; }

    // Takes only a changed value (see the file comment); a clean source leaves this as it is.
    void copy_from(IPropertyEx const& other) override
    {
        auto const& source = static_cast<TypedProperty const&>(other);
        if (!source.dirty_ || &source == this)
            return;
        T value = source.get();
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    bool equals(IPropertyEx const& other) const override
    {
        auto const& source = static_cast<TypedProperty const&>(other);
        if (&source == this)
            return true;
        // A commit compares every property of a batch with its live value: both locks,
        // always in address order, so that no value is copied just to be compared.
        bool const this_first = std::less<TypedProperty const*>()(this, &source);
        std::lock_guard first(this_first ? mutex_ : source.mutex_);
        std::lock_guard second(this_first ? source.mutex_ : mutex_);
        return value_ == source.value_;
    }

    std::unique_ptr<TypedPropertyBase> clone() const override
    {
        return std::make_unique<TypedProperty>(descriptor_, get());
    }
    bool within_enforced_ranges() const override
    {
        if constexpr (std::totally_ordered<T>) {
            if (!descriptor_->enforce_ranges || descriptor_->entries.empty())
                return true;
            std::lock_guard lock(mutex_);
            for (auto const& entry : descriptor_->entries)
                if (entry.contains(value_))
                    return true;
            return false;
        } else {
            // A declaration can't enforce ranges on a type without order (Property refuses it).
            return true;
        }
    }

    T get() const
    {
        std::lock_guard lock(mutex_);
        return value_;
    }
    // Sets the value and the dirty mark if the value differs; an equal value changes nothing.
    void assign(T value)
    {
        std::lock_guard lock(mutex_);
        if (value_ == value)
            return;
        value_ = std::move(value);
        dirty_ = true;
    }
    // For working copies, which no other thread sees: no lock.
    T const& peek() const { return value_; }

    TypedProperty(std::shared_ptr<PropertyDescriptor<T> const> descriptor, T value)
        : descriptor_(std::move(descriptor)), value_(std::move(value))
    {}

private:
    std::shared_ptr<PropertyDescriptor<T> const> descriptor_;
    mutable std::mutex mutex_;
    T value_;
    std::atomic<bool> dirty_ = false;
};

// A property set: the committed one (InterfaceTable) or a working copy.
class PropertyList : public IPropertyExCollection {
public:
    unsigned long size() const override { return properties.size(); }
    IPropertyEx& operator[](unsigned long index) override { return *properties.at(index); }
    IPropertyEx const& operator[](unsigned long index) const override { return *properties.at(index); }

    template <class T>
    TypedProperty<T>& at(unsigned short index)
    {
        return static_cast<TypedProperty<T>&>(*properties.at(index));
    }
    template <class T>
    TypedProperty<T> const& at(unsigned short index) const
    {
        return static_cast<TypedProperty<T> const&>(*properties.at(index));
    }

    std::vector<std::unique_ptr<TypedPropertyBase>> properties;
};

// Everything an interface declares. The state shares ownership of it through the committed
// property set, so the methods, signals and names outlive the interface object for as long
// as any protocol server holds a wrapper.
class InterfaceTable final : public PropertyList {
public:
    explicit InterfaceTable(std::string n) : name(std::move(n)) {}

    std::string const name;
    OwningCollection<glue::IMethod, IMethodEx> methods;
    OwningCollection<glue::ISignal> signals;
    // Cleared when the interface object is destroyed; a call queued before that is then
    // answered with "Object removed" instead of running against a destroyed object.
    std::atomic<bool> alive = true;
};

template <class F>
struct Callable : Callable<decltype(&F::operator())> {};
template <class C, class R, class... A>
struct Callable<R (C::*)(A...)> {
    using result = R;
    using arguments = std::tuple<A...>;
};
template <class C, class R, class... A>
struct Callable<R (C::*)(A...) const> : Callable<R (C::*)(A...)> {};
template <class C, class R, class... A>
struct Callable<R (C::*)(A...) noexcept> : Callable<R (C::*)(A...)> {};
template <class C, class R, class... A>
struct Callable<R (C::*)(A...) const noexcept> : Callable<R (C::*)(A...)> {};

using MethodPromise = boost::promise<std::unique_ptr<glue::IMethodReturnValue>>;

// How a method's reply travels: nothing, one value, or each member of Results as an out
// argument of its own.
template <class R>
struct ResultCodec {
    static_assert(BusValue<R>, "a method returns void, a D-Bus value type or Results<...>");
    static constexpr std::size_t count = 1;
    static ConstString signature() { return {signature_of<R>, signature_size_of<R>}; }
    static void write(glue::ISerializer& sink, R const& value) { write_value(sink, value); }
};
template <>
struct ResultCodec<void> {
    static constexpr std::size_t count = 0;
    static ConstString signature() { return {"", 0}; }
};
template <class... A>
struct ResultCodec<Results<A...>> {
    using Codec = TupleCodec<A...>;
    static constexpr std::size_t count = sizeof...(A);
    static ConstString signature() { return {Codec::members_signature.text, Codec::members_signature.size()}; }
    static void write(glue::ISerializer& sink, Results<A...> const& value)
    {
        // At the top of the reply, one after the other, without tuple brackets.
        std::apply([&](auto const&... member) { (write_value(sink, member), ...); },
                   static_cast<std::tuple<A...> const&>(value));
    }
};

// Checks `in` and `out` against the counts of parameters and results of `member` and joins
// them in the form of glue::IArgumentNames. Raises tarvek::invalid_argument for a wrong
// count or a name that D-Bus wouldn't take.
std::string join_argument_names(std::string const& member, std::vector<std::string> const& in,
                                std::size_t in_count, std::vector<std::string> const& out, std::size_t out_count);

} // namespace typed

// The handle by which a method answers later, from any thread. Copyable; the first answer
// counts, and a later one raises boost::promise_already_satisfied. If every copy is dropped
// unanswered, the client receives "com.omno.Error.RequestLost".
template <class R>
class Responder {
public:
    template <class V = R>
        requires(!std::is_void_v<V>)
    void reply(V value)
    {
        state_->answered = true;
        state_->promise.set_value(std::make_unique<Result>(std::move(value)));
    }
    void reply()
        requires std::is_void_v<R>
    {
        state_->answered = true;
        state_->promise.set_value(std::make_unique<Result>());
    }
    // Fails the call with `error`, whose class decides the bus error (for example
    // tarvek::invalid_argument for "org.freedesktop.DBus.Error.InvalidArgs").
    template <class E>
    void fail(E const& error)
    {
        fail(boost::copy_exception(error));
    }
    void fail(boost::exception_ptr error)
    {
        state_->answered = true;
        state_->promise.set_exception(std::move(error));
    }
    bool answered() const { return state_->answered; }

private:
    template <class, class, class, class>
    friend class typed::TypedMethod;

    class Result final : public glue::IMethodReturnValue {
    public:
        template <class... V>
        explicit Result(V&&... value) : value_(std::forward<V>(value)...)
        {}
        void serialize(glue::ISerializer& sink) override
        {
            if constexpr (!std::is_void_v<R>)
                typed::ResultCodec<R>::write(sink, value_);
        }

    private:
        struct Nothing {};
        [[no_unique_address]] std::conditional_t<std::is_void_v<R>, Nothing, R> value_;
    };

    struct State {
        typed::MethodPromise promise;
        std::atomic<bool> answered = false;
    };

    explicit Responder(typed::MethodPromise&& promise) : state_(std::make_shared<State>())
    {
        state_->promise = std::move(promise);
    }

    std::shared_ptr<State> state_;
};

namespace typed {

template <class T>
struct is_responder : std::false_type {};
template <class R>
struct is_responder<Responder<R>> : std::true_type {
    using value_type = R;
};

// The arguments of one call, read on the server's thread.
template <class... A>
struct BoundArguments final : IBoundCall {
    std::tuple<A...> values;
};

// Splits a handler's parameters into an optional leading Responder and the bus arguments.
template <class Arguments>
struct HandlerShape;
template <class... A>
struct HandlerShape<std::tuple<A...>> {
    static constexpr bool asynchronous = false;
    using Bus = std::tuple<std::remove_cvref_t<A>...>;
    using Reply = void;
};
template <class First, class... A>
    requires is_responder<std::remove_cvref_t<First>>::value
struct HandlerShape<std::tuple<First, A...>> {
    static constexpr bool asynchronous = true;
    using Bus = std::tuple<std::remove_cvref_t<A>...>;
    using Reply = std::remove_cvref_t<First>;
};

template <class Handler, class Result, class... A, class Reply>
class TypedMethod<Handler, Result, std::tuple<A...>, Reply> final : public IMethodEx, public glue::IArgumentNames {
    static_assert((BusValue<A> && ...), "every method argument must be a D-Bus value type");
    static constexpr bool asynchronous = !std::is_void_v<Reply>;
    using Answer = std::conditional_t<asynchronous, Reply, Responder<Result>>;
    static_assert(!asynchronous || std::is_void_v<Result>, "a handler that takes a Responder returns void");

public:
    TypedMethod(std::string name, Handler handler, InterfaceTable const& table, ArgumentNames const& names)
        : name_(std::move(name))
        , names_(join_argument_names(name_, names.in, sizeof...(A), names.out, ResultCodec<reply_type>::count))
        , handler_(std::move(handler))
        , table_(table)
    {}

    ConstString name() const override { return {name_.c_str(), name_.size()}; }
    ConstString result_signature() const override { return ResultCodec<reply_type>::signature(); }
    ConstString argument_names() const override { return {names_.c_str(), names_.size()}; }
    ConstString parameter_signature() const override
    {
        using Codec = TupleCodec<A...>;
        return {Codec::members_signature.text, Codec::members_signature.size()};
    }

    std::unique_ptr<IBoundCall> bind(void*, glue::IIterator<glue::IDeserializer&>& arguments) override
    {
        auto call = std::make_unique<BoundArguments<A...>>();
        std::apply([&](auto&... values) { (read_argument(arguments, values), ...); }, call->values);
        if (!arguments.at_end())
            boost::throw_exception(tarvek::invalid_argument("Too many arguments"));
        return call;
    }

    void invoke(IBoundCall& call, MethodPromise& promise) override
    {
        if (!table_.alive) {
            promise.set_exception(boost::copy_exception(tarvek::invalid_argument("Object removed")));
            return;
        }
        auto& values = static_cast<BoundArguments<A...>&>(call).values;
        Answer answer(std::move(promise));
        try {
            std::apply(
                [&](auto&... value) {
                    if constexpr (asynchronous)
                        std::invoke(handler_, answer, std::move(value)...);
                    else if constexpr (std::is_void_v<Result>) {
                        std::invoke(handler_, std::move(value)...);
                        answer.reply();
                    } else
                        answer.reply(std::invoke(handler_, std::move(value)...));
                },
                values);
        } catch (...) {
            if (!answer.answered())
                answer.fail(capture_current_exception());
            else
                throw; // the answer itself failed; nothing is left to tell the client
        }
    }

private:
    using reply_type = typename is_responder<Answer>::value_type;

    template <class T>
    static void read_argument(glue::IIterator<glue::IDeserializer&>& arguments, T& value)
    {
        if (arguments.at_end())
            boost::throw_exception(tarvek::invalid_argument("Missing argument"));
        value = read_value<T>(arguments.value());
        arguments.advance();
    }

    std::string const name_;
    std::string const names_;
    Handler handler_;
    InterfaceTable const& table_;
};

template <class... A>
class SignalEntry final : public glue::ISignal, public glue::IArgumentNames {
public:
    SignalEntry(std::string name, std::vector<std::string> const& names)
        : name_(std::move(name)), names_(join_argument_names(name_, names, sizeof...(A), {}, 0))
    {}
    ConstString name() const override { return {name_.c_str(), name_.size()}; }
    ConstString argument_names() const override { return {names_.c_str(), names_.size()}; }
    ConstString signature() const override
    {
        using Codec = TupleCodec<A...>;
        return {Codec::members_signature.text, Codec::members_signature.size()};
    }

private:
    std::string const name_;
    std::string const names_;
};

template <class... A>
class SignalValue final : public glue::ISignalValue {
public:
    explicit SignalValue(A const&... values) : values_(values...) {}
    void serialize(glue::ISerializer& sink) const override
    {
        std::apply([&](auto const&... value) { (write_value(sink, value), ...); }, values_);
    }

private:
    std::tuple<A...> values_;
};

} // namespace typed

// A consistent set of property values: the working copy in validate and on_changed, or a
// snapshot of the live values.
class Values {
public:
    explicit Values(IPropertyExCollection& values) : values_(static_cast<typed::PropertyList&>(values)) {}

    template <BusValue T>
    T const& operator[](Property<T> const& property) const
    {
        return values_.at<T>(property.index()).peek();
    }
    // Changes a value of a working copy (in update); marks it for the commit even when it
    // equals the copy's value, since the commit compares it with the live value, which may
    // have moved since the copy was taken.
    template <BusValue T, class V>
    void set(Property<T> const& property, V&& value)
    {
        auto& target = values_.at<T>(property.index());
        target.assign(T(std::forward<V>(value)));
        target.set_dirty();
    }

private:
    typed::PropertyList& values_;
};

// The properties that a commit changed.
class Changed {
public:
    explicit Changed(IChangedProperties& changed) : changed_(changed) {}

    template <BusValue T>
    bool contains(Property<T> const& property) const
    {
        for (unsigned long i = 0; i < changed_.size(); ++i)
            if (static_cast<IPropertyEx const&>(changed_[i]).index() == property.index())
                return true;
        return false;
    }
    unsigned long size() const { return changed_.size(); }

private:
    IChangedProperties& changed_;
};

class Interface : public InterfaceImplementationBase {
public:
    // The name is copied; it must be a valid D-Bus interface name for a bus server to
    // accept the object.
    explicit Interface(std::string name);
    Interface(Interface const&) = delete;
    Interface& operator=(Interface const&) = delete;
    ~Interface() override;

    std::unique_ptr<IPropertyExCollection> get_properties() const override;
    void set_properties(IPropertyExCollection& context) override;
    void* method_target() override { return this; }
    bool validate(IPropertyExCollection& context) final;
    void on_changed(IPropertyExCollection& context, IChangedProperties& changed) final;

    // A consistent copy of all live values.
    std::unique_ptr<IPropertyExCollection> snapshot() const { return get_properties(); }

    // Changes several live properties as one validated, atomic commit that servers report
    // in one notification. `edit` receives the Values of a consistent copy and runs with no
    // lock held; what it sets is then laid over the live values, and validate judges that
    // (so a change committed by another thread meanwhile is in what validate sees). Only
    // values that differ from the live ones are committed and reported. Raises
    // tarvek::validation_failed when validate refuses (then nothing changes).
    template <class F>
    void update(F&& edit)
    {
        auto copy = [this] {
            std::shared_lock lock(state_->state_mutex());
            return get_properties();
        }();
        Values values(*copy);
        std::forward<F>(edit)(values);
        set_properties(*copy);
    }

protected:
    // So that an interface class names its members without qualification.
    using Values = provider::Values;
    using Changed = provider::Changed;
    using Access = provider::Access;
    using Change = provider::Change;
    using RangeCheck = provider::RangeCheck;
    using Method = provider::Method;
    template <BusValue T>
    using Property = provider::Property<T>;
    template <BusValue T>
    using Range = provider::Range<T>;
    template <BusValue... A>
    using Signal = provider::Signal<A...>;
    template <class R = void>
    using Responder = provider::Responder<R>;
    template <BusValue... A>
    using Results = provider::Results<A...>;
    using ArgumentNames = provider::ArgumentNames;

    // False refuses a whole batch of writes (the client gets
    // "org.freedesktop.DBus.Error.InvalidArgs"). Sees all values, changed or not: exactly
    // the state that stands if it returns true (see the file comment).
    virtual bool validate(Values const& values) const;
    // After a commit that changed something; `changed` names what.
    virtual void on_changed(Values const& values, Changed const& changed);

private:
    template <BusValue T>
    friend class provider::Property;
    template <BusValue... A>
    friend class provider::Signal;
    friend class provider::Method;

    static std::shared_ptr<InterfaceState> make_state(Interface& self, std::string name);
    void check_can_declare() const;
    unsigned short next_index() const;

    typed::InterfaceTable& table_;
};

// A property of an interface. The options after the default value say whether clients may
// write it (Access), which values it publishes as its ranges and whether writes must keep
// within them (RangeCheck), and how its changes are announced (Change):
//
//     Property<std::uint32_t> level{*this, "Level", 0, Access::read_write, {{0U, 100U}}, RangeCheck::enforced};
//     Property<std::string> serial{*this, "Serial", "", Access::read_only, Change::constant};
//     Property<std::uint64_t> counter{*this, "Counter", 0, Access::read_only, {}, Change::invalidates};
//
// Raises tarvek::invalid_argument for enforced ranges on a type without an order, or with
// an entry whose minimum lies above its maximum.
template <BusValue T>
class Property {
    static_assert(!carries_fd<T>, "a file descriptor cannot be a property value");

public:
    Property(Interface& owner, std::string name, T default_value, Access access = Access::read_write,
             std::vector<Range<T>> ranges = {}, Change change = Change::emits,
             RangeCheck check = RangeCheck::published)
        : owner_(owner)
    {
        owner.check_can_declare();
        if (check == RangeCheck::enforced)
            check_enforceable(name, ranges);
        index_ = owner.next_index();
        auto descriptor = std::make_shared<typed::PropertyDescriptor<T> const>(std::move(name),
            std::move(default_value), access == Access::read_only, index_, std::move(ranges), change,
            check == RangeCheck::enforced);
        owner.table_.properties.push_back(std::make_unique<typed::TypedProperty<T>>(std::move(descriptor)));
    }
    Property(Interface& owner, std::string name, T default_value, Access access, Change change)
        : Property(owner, std::move(name), std::move(default_value), access, {}, change)
    {}
    Property(Interface& owner, std::string name, T default_value, Access access, std::vector<Range<T>> ranges,
             RangeCheck check, Change change = Change::emits)
        : Property(owner, std::move(name), std::move(default_value), access, std::move(ranges), change, check)
    {}
    Property(Property const&) = delete;
    Property& operator=(Property const&) = delete;

    // The live value; any thread.
    T get() const { return owner_.table_.template at<T>(index_).get(); }
    // Commits a new live value through validate, and reports it to every server. An equal
    // value changes nothing. Raises tarvek::validation_failed when validate refuses or the
    // value lies outside enforced ranges, and tarvek::invalid_state_error for a constant
    // property of a registered object.
    template <class V>
    void set(V&& value)
    {
        owner_.update([&](Values& values) { values.set(*this, std::forward<V>(value)); });
    }
    unsigned short index() const { return index_; }

private:
    static void check_enforceable(std::string const& name, std::vector<Range<T>> const& ranges)
    {
        if constexpr (std::totally_ordered<T>) {
            for (auto const& entry : ranges)
                if (entry.maximum() < entry.minimum())
                    boost::throw_exception(tarvek::invalid_argument(
                        "Property " + name + ": a range's minimum lies above its maximum"));
        } else {
            boost::throw_exception(tarvek::invalid_argument(
                "Property " + name + ": ranges can be enforced only on a type with an order"));
        }
    }

    Interface& owner_;
    unsigned short index_;
};

// A signal. `names`, if given, names every value, for introspection; it raises
// tarvek::invalid_argument for a wrong count or a name that D-Bus wouldn't take.
template <BusValue... A>
class Signal {
public:
    Signal(Interface& owner, std::string name, std::vector<std::string> const& names = {}) : owner_(owner)
    {
        owner.check_can_declare();
        auto entry = std::make_unique<typed::SignalEntry<A...>>(std::move(name), names);
        entry_ = entry.get();
        owner.table_.signals.elements.push_back(std::move(entry));
    }
    Signal(Signal const&) = delete;
    Signal& operator=(Signal const&) = delete;

    // Hands the values to every server that has the object. Not from validate/on_changed.
    void emit(A const&... values) const
    {
        owner_.state_->emit_signal(*entry_, std::make_shared<typed::SignalValue<A...>>(values...));
    }

private:
    Interface& owner_;
    glue::ISignal* entry_;
};

// A method. The handler is a member function of the interface class or any callable; it
// runs on the object's executor with the arguments read from the request. It may return a
// value (the reply: one out argument, a std::tuple being one struct; Results<...> for
// several), raise (the client gets the bus error of the exception's class, or the name and
// text of a tarvek::named_error), or take a Responder<R> as its first parameter, keep it,
// and answer later from any thread. tarvek::current_caller() tells it who called, for as
// long as it runs. `names` optionally names the arguments:
//
//     Method dim{*this, "Dim", &Lamp::do_dim, {.in = {"level"}, .out = {"previous"}}};
//
// A wrong number of names or a name that D-Bus wouldn't take raises tarvek::invalid_argument.
class Method {
public:
    template <class Owner, class R, class... A>
        requires std::is_base_of_v<Interface, Owner>
    Method(Owner& owner, std::string name, R (Owner::*handler)(A...), ArgumentNames const& names = {})
        : Method(owner, std::move(name),
                 [&owner, handler](A... arguments) -> R { return (owner.*handler)(std::forward<A>(arguments)...); },
                 names)
    {}

    template <class F>
        requires(!std::is_member_function_pointer_v<F>)
    Method(Interface& owner, std::string name, F handler, ArgumentNames const& names = {})
    {
        using Traits = typed::Callable<F>;
        using Shape = typed::HandlerShape<typename Traits::arguments>;
        using Reply = std::conditional_t<Shape::asynchronous, typename Shape::Reply, void>;
        using Impl = typed::TypedMethod<F, typename Traits::result, typename Shape::Bus, Reply>;
        owner.check_can_declare();
        owner.table_.methods.elements.push_back(
            std::make_unique<Impl>(std::move(name), std::move(handler), owner.table_, names));
    }
    Method(Method const&) = delete;
    Method& operator=(Method const&) = delete;
};

// Creates an interface of class I in `object`, which must not be registered yet, and
// returns it; the object owns it. Raises tarvek::invalid_argument when the object is
// registered already or has an interface of that name.
template <std::derived_from<Interface> I, class... A>
I& add_interface(tarvek::Object& object, A&&... arguments)
{
    auto implementation = std::make_unique<I>(std::forward<A>(arguments)...);
    object.check_can_add_interface(implementation->interface_name());
    I& added = *implementation;
    object.add_interface_internal(std::move(implementation));
    return added;
}

} // namespace tarvek::provider
