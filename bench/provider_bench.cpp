// SPDX-License-Identifier: LGPL-2.1-or-later
// The provider runtime's request paths as a protocol server drives them: atomic writes with
// the commit on the object's executor thread, consistent reads, a method call that returns
// through a second executor, and the heap allocations of one write.
#include "provider/wrappers.hpp"

#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/provider/empty_range_collection.hpp>
#include <tarvek/provider/interface_implementation_base.hpp>
#include <tarvek/provider/interface_state.hpp>
#include <tarvek/provider/object.hpp>

#include <benchmark/benchmark.h>

#include <poll.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// Every allocation of the process is counted, so that a benchmark can report its own.
std::atomic<long> allocations{0};

} // namespace

void* operator new(std::size_t size)
{
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* block = std::malloc(size == 0 ? 1 : size))
        return block;
    throw std::bad_alloc();
}

// Not inlined, so that the compiler doesn't take a new/free pair at a call site for a mismatch.
[[gnu::noinline]] void operator delete(void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

namespace tarvek::bench {
namespace {

// A sink and a source for int values only, which is all the bench interface has.
class IntSink : public glue::ISerializer {
public:
    void write(bool) override { }
    void write(unsigned char) override { }
    void write(short) override { }
    void write(unsigned short) override { }
    void write(int value) override { last = value; }
    void write(unsigned int) override { }
    void write(long) override { }
    void write(unsigned long) override { }
    void write(double) override { }
    void write(char const*, unsigned long, bool) override { }
    void write(ObjectPath const&) override { }
    void tuple_begin(unsigned long, char const*) override { }
    void tuple_entry_begin() override { }
    void tuple_entry_end() override { }
    void tuple_end() override { }
    void dict_begin(unsigned long, char const*) override { }
    void dict_entry_begin(char const*) override { }
    void dict_entry_kv_separator() override { }
    void dict_entry_end() override { }
    void dict_end() override { }
    void list_begin(unsigned long, char const*) override { }
    void list_entry_begin() override { }
    void list_entry_end() override { }
    void list_end() override { }
    void variant_begin(char const*) override { }
    void variant_end() override { }
    void typed_variant_begin(char const*) override { }
    void typed_variant_end() override { }
    void write_fd(int) override { }

    int last = 0;
};

class IntSource : public glue::IDeserializer {
public:
    bool read_bool() override { return false; }
    unsigned char read_byte() override { return 0; }
    short read_int16() override { return 0; }
    unsigned short read_uint16() override { return 0; }
    int read_int32() override { return next++; }
    unsigned int read_uint32() override { return 0; }
    long read_int64() override { return 0; }
    unsigned long read_uint64() override { return 0; }
    double read_double() override { return 0; }
    std::string read_string() override { return {}; }
    ObjectPath read_path() override { return {}; }
    void tuple_enter() override { }
    void tuple_read_separator() override { }
    void tuple_exit() override { }
    int list_enter() override { return 0; }
    void list_read_separator() override { }
    bool list_try_exit() override { return true; }
    int dict_enter() override { return 0; }
    bool dict_entry_try_enter(bool) override { return false; }
    void dict_entry_read_kv_separator() override { }
    void dict_entry_exit() override { }
    void dict_exit() override { }
    void variant_enter() override { }
    void variant_exit() override { }
    std::string typed_variant_enter() override { return "i"; }
    void typed_variant_exit() override { }
    common::FileDescriptor read_fd() override { return common::FileDescriptor(); }

    int next = 1;
};

class IntProperty : public provider::IPropertyEx {
public:
    explicit IntProperty(unsigned short index)
        : index_(index)
    {
    }

    ConstString name() const override { return "p"; }
    ConstString signature() const override { return "i"; }
    void serialize(glue::ISerializer& sink) const override { sink.write(value_); }
    bool is_default() const override { return value_ == 0; }
    void serialize_default(glue::ISerializer& sink) const override { sink.write(0); }
    bool is_readonly() const override { return false; }
    glue::ICollection<glue::IPropertyRange> const& ranges() const override
    {
        return provider::range::EmptyRangeCollection::instance;
    }
    void deserialize(glue::IDeserializer& source) override
    {
        value_ = source.read_int32();
        dirty_ = true;
    }
    void reset() override
    {
        value_ = 0;
        dirty_ = true;
    }
    void set_dirty() override { dirty_ = true; }
    void clear_dirty() override { dirty_ = false; }
    bool is_dirty() const override { return dirty_; }
    unsigned short index() const override { return index_; }
    void copy_from(provider::IPropertyEx const& other) override
    {
        value_ = static_cast<IntProperty const&>(other).value_;
    }
    bool equals(provider::IPropertyEx const& other) const override
    {
        return value_ == static_cast<IntProperty const&>(other).value_;
    }

private:
    unsigned short index_;
    int value_ = 0;
    bool dirty_ = false;
};

class IntPropertySet : public provider::IPropertyExCollection {
public:
    explicit IntPropertySet(unsigned short count)
    {
        items.reserve(count);
        for (unsigned short i = 0; i < count; ++i)
            items.emplace_back(i);
    }

    unsigned long size() const override { return items.size(); }
    IntProperty& operator[](unsigned long index) override { return items[index]; }
    IntProperty const& operator[](unsigned long index) const override { return items[index]; }

    std::vector<IntProperty> items;
};

class Result : public glue::IMethodReturnValue {
public:
    explicit Result(int value)
        : value_(value)
    {
    }
    void serialize(glue::ISerializer& sink) override { sink.write(value_); }

private:
    int value_;
};

struct Argument : provider::IBoundCall {
    int value = 0;
};

// Echo (i -> i).
class EchoMethod : public provider::IMethodEx {
public:
    ConstString name() const override { return "Echo"; }
    ConstString result_signature() const override { return "i"; }
    ConstString parameter_signature() const override { return "i"; }
    void invoke(provider::IBoundCall& call,
        boost::promise<std::unique_ptr<glue::IMethodReturnValue>>& promise) override
    {
        promise.set_value(std::make_unique<Result>(static_cast<Argument&>(call).value));
    }
    std::unique_ptr<provider::IBoundCall> bind(
        void*, glue::IIterator<glue::IDeserializer&>& arguments) override
    {
        auto bound = std::make_unique<Argument>();
        bound->value = arguments.value().read_int32();
        arguments.advance();
        return bound;
    }
};

class Methods : public glue::ICollection<glue::IMethod> {
public:
    unsigned long size() const override { return 1; }
    glue::IMethod& operator[](unsigned long) override { return echo; }
    glue::IMethod const& operator[](unsigned long) const override { return echo; }

private:
    EchoMethod echo;
};

class NoSignals : public glue::ICollection<glue::ISignal> {
public:
    unsigned long size() const override { return 0; }
    glue::ISignal& operator[](unsigned long) override { throw std::out_of_range("no signals"); }
    glue::ISignal const& operator[](unsigned long) const override { throw std::out_of_range("no signals"); }
};

// Static, as interface code keeps its members: they outlive every wrapper.
Methods methods;
NoSignals signals;

class BenchInterface : public provider::InterfaceImplementationBase {
public:
    BenchInterface()
        : InterfaceImplementationBase(std::make_shared<provider::InterfaceState>(
            *this, "com.example.Bench", std::make_shared<IntPropertySet>(20), methods, signals))
    {
    }

    std::unique_ptr<provider::IPropertyExCollection> get_properties() const override
    {
        return std::make_unique<IntPropertySet>(
            static_cast<IntPropertySet const&>(std::as_const(*state_).properties()));
    }
    void set_properties(provider::IPropertyExCollection& context) override
    {
        state_->set_properties(context);
    }
    void* method_target() override { return this; }
    bool validate(provider::IPropertyExCollection&) override { return true; }
    void on_changed(provider::IPropertyExCollection&, provider::IChangedProperties&) override { }
};

// Takes notifications and does nothing, as cheaply as a server that queues them.
class QuietServer : public glue::IProtocolServer {
public:
    std::string const& name() const override { return name_; }
    void on_object_added(std::unique_ptr<glue::IObject>, ObjectPath const&) override { }
    void on_object_removed(ObjectPath const&) override { }
    void on_properties_changed(glue::IObject&, ObjectPath const&, glue::IInterface&) override { }
    void on_signal(glue::IObject&, ObjectPath const&, glue::IInterface&, glue::ISignal&,
        std::shared_ptr<glue::ISignalValue>) override
    {
    }

private:
    std::string name_ = "quiet";
};

template <class T> class ListIterator : public glue::IIterator<T> {
public:
    void advance() override { ++position; }
    bool at_end() const override { return position == entries.size(); }
    T value() override { return *entries[position]; }

    std::vector<std::remove_reference_t<T>*> entries;
    std::size_t position = 0;
};

class WriteIterator : public glue::IIterator<std::pair<glue::IProperty&, glue::IDeserializer&>> {
public:
    void advance() override { ++position; }
    bool at_end() const override { return position == properties.size(); }
    std::pair<glue::IProperty&, glue::IDeserializer&> value() override
    {
        return {*properties[position], source};
    }

    std::vector<glue::IProperty*> properties;
    IntSource source;
    std::size_t position = 0;
};

class ReadIterator : public glue::IIterator<std::pair<glue::IProperty const&, glue::ISerializer&>> {
public:
    void advance() override { ++position; }
    bool at_end() const override { return position == properties.size(); }
    std::pair<glue::IProperty const&, glue::ISerializer&> value() override
    {
        return {*properties[position], sink};
    }

    std::vector<glue::IProperty const*> properties;
    IntSink sink;
    std::size_t position = 0;
};

// Short timeouts, so that a driver notices that it is to stop.
void wait_readable(int fd)
{
    pollfd entry{fd, POLLIN, 0};
    ::poll(&entry, 1, 10);
}

// An object with the bench interface and one server's wrapper of it; the object's
// executor runs on a thread of its own while `on_thread` is set.
class Setup {
public:
    explicit Setup(bool on_thread)
    {
        auto implementation = std::make_unique<BenchInterface>();
        object.check_can_add_interface(implementation->interface_name());
        object.add_interface_internal(std::move(implementation));
        wrapper = std::make_unique<provider::ObjectWrapper>(object.state(), server);
        if (on_thread) {
            // Driven as an application drives it: wait for the event descriptor, run dry.
            auto state = object.executor().state();
            int const fd = object.executor().event_fd();
            executor_thread = std::thread([this, state, fd] {
                while (!stop.load(std::memory_order_relaxed)) {
                    wait_readable(fd);
                    while (state->try_executing_one()) { }
                }
            });
        }
    }
    ~Setup()
    {
        stop.store(true);
        if (executor_thread.joinable())
            executor_thread.join();
    }

    glue::IInterface& interface() { return wrapper->interfaces()[0]; }

    WriteIterator writes(unsigned long count)
    {
        WriteIterator iterator;
        for (unsigned long i = 0; i < count; ++i)
            iterator.properties.push_back(&interface().properties()[i]);
        return iterator;
    }

    QuietServer server;
    Object object;
    std::unique_ptr<provider::ObjectWrapper> wrapper;
    std::atomic<bool> stop{false};
    std::thread executor_thread;
};

void set_many_round_trip(benchmark::State& state)
{
    Setup setup(true);
    auto const count = static_cast<unsigned long>(state.range(0));
    auto writes = setup.writes(count);
    ListIterator<glue::IProperty&> resets;
    for (auto _ : state) {
        writes.position = 0;
        setup.interface().set_many(writes, resets).get();
    }
    state.SetItemsProcessed(static_cast<long>(state.iterations() * count));
}
BENCHMARK(set_many_round_trip)->Arg(1)->Arg(20)->UseRealTime();

void get_many_of_20(benchmark::State& state)
{
    Setup setup(false);
    ReadIterator reads;
    for (unsigned long i = 0; i < 20; ++i)
        reads.properties.push_back(&setup.interface().properties()[i]);
    for (auto _ : state) {
        reads.position = 0;
        setup.interface().get_many(reads);
        benchmark::DoNotOptimize(reads.sink.last);
    }
    state.SetItemsProcessed(state.iterations() * 20);
}
BENCHMARK(get_many_of_20);

// The caller's thread plays the server: it calls, and its own executor runs the
// continuation that the object's executor thread completes.
void method_call_round_trip(benchmark::State& state)
{
    Setup setup(true);
    detail::executors::ExecutorBase server_executor;
    detail::executors::Injector server_injector(server_executor);
    auto& method = setup.interface().methods()[0];
    IntSource source;
    int answered = 0;
    for (auto _ : state) {
        ListIterator<glue::IDeserializer&> arguments;
        arguments.entries.push_back(&source);
        int const before = answered;
        server_injector.then(setup.interface().call_method(method, arguments),
            [&answered](boost::future<std::unique_ptr<glue::IMethodReturnValue>> done) {
                IntSink sink;
                done.get()->serialize(sink);
                ++answered;
            });
        while (answered == before) {
            wait_readable(server_executor.event_fd());
            server_executor.run_dry();
        }
    }
}
BENCHMARK(method_call_round_trip)->UseRealTime();

// One write of one property, its commit run on the same thread so that nothing else
// allocates meanwhile; the counters are per write.
void set_many_allocations(benchmark::State& state)
{
    Setup setup(false);
    auto writes = setup.writes(1);
    ListIterator<glue::IProperty&> resets;
    long in_call = 0;
    long in_commit = 0;
    for (auto _ : state) {
        writes.position = 0;
        long const start = allocations.load();
        auto future = setup.interface().set_many(writes, resets);
        long const queued = allocations.load();
        setup.object.execute();
        in_commit += allocations.load() - queued;
        in_call += queued - start;
        future.get();
    }
    auto const iterations = static_cast<double>(state.iterations());
    state.counters["allocs_in_call"] = static_cast<double>(in_call) / iterations;
    state.counters["allocs_in_commit"] = static_cast<double>(in_commit) / iterations;
}
BENCHMARK(set_many_allocations);

} // namespace
} // namespace tarvek::bench

BENCHMARK_MAIN();
