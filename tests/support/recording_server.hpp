// SPDX-License-Identifier: LGPL-2.1-or-later
// RecordingServer: a protocol server for tests that behaves as the runtime requires of a
// real one. Every notification only queues a task on the server's own executor and returns;
// drive() runs those tasks, which take over objects, call get_changed after a change
// notification, and record what they saw. Requests (set, get, call) go through the object's
// glue::IInterface as a real server's would, with the answer taken in a continuation on the
// server's executor.
//
// Threads: notifications arrive on any thread. drive() runs on one thread at a time, the
// server's. Requests may be made from any thread: they hold the object table shared, and the
// server's tasks that destroy objects hold it exclusively, so a wrapper is never destroyed
// during a request on it. Records are read through copies, from any thread.
#pragma once

#include "support/test_iterators.hpp"
#include "support/test_values.hpp"

#include <tarvek/executors/executor_base.hpp>
#include <tarvek/executors/injector.hpp>
#include <tarvek/glue/protocol_server.hpp>

#include <boost/exception_ptr.hpp>

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tarvek::test {

// The answer to one request, filled in on the server's thread or, for a failure thrown out
// of the request itself, at once.
template <class T> class Outcome {
public:
    bool ready() const
    {
        std::lock_guard lock(mutex_);
        return ready_;
    }
    bool succeeded() const
    {
        std::lock_guard lock(mutex_);
        return ready_ && !error_;
    }
    // The request raised at once, rather than failing its future.
    bool thrown() const
    {
        std::lock_guard lock(mutex_);
        return thrown_;
    }
    std::string message() const
    {
        std::lock_guard lock(mutex_);
        return message_;
    }
    T value() const
    {
        std::lock_guard lock(mutex_);
        return value_;
    }
    // Raises the stored failure with its class, for EXPECT_THROW.
    void rethrow() const
    {
        boost::exception_ptr error;
        {
            std::lock_guard lock(mutex_);
            error = error_;
        }
        if (error)
            boost::rethrow_exception(error);
    }

    void succeed(T value)
    {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
        ready_ = true;
    }
    // To be called inside a catch block.
    void fail(bool thrown)
    {
        auto error = boost::current_exception();
        std::string message;
        try {
            boost::rethrow_exception(error);
        } catch (std::exception const& e) {
            message = e.what();
        } catch (...) {
            message = "unknown exception";
        }
        std::lock_guard lock(mutex_);
        error_ = error;
        message_ = std::move(message);
        thrown_ = thrown;
        ready_ = true;
    }

private:
    mutable std::mutex mutex_;
    bool ready_ = false;
    bool thrown_ = false;
    boost::exception_ptr error_;
    std::string message_;
    T value_{};
};

using SetOutcome = Outcome<std::monostate>;
using CallOutcome = Outcome<Values>;

class RecordingServer : public glue::IProtocolServer {
public:
    struct Change {
        ObjectPath path;
        std::string interface;
        std::vector<std::string> names;
        Values values;
    };
    struct Signal {
        ObjectPath path;
        std::string interface;
        std::string signal;
        Values values;
    };

    explicit RecordingServer(std::string name = "recording-server")
        : name_(std::move(name))
    {
    }

    ~RecordingServer() override
    {
        // Queued tasks may hold objects: drop them first, then the objects still held.
        executor_.close();
        std::unique_lock lock(table_mutex_);
        objects_.clear();
    }

    std::string const& name() const override { return name_; }

    void on_object_added(std::unique_ptr<glue::IObject> object, ObjectPath const& path) override
    {
        ++added_calls;
        injector_.submit([this, object = std::move(object), path]() mutable {
            {
                std::unique_lock lock(table_mutex_);
                objects_.push_back({path, std::move(object), false});
            }
            std::lock_guard lock(records_mutex_);
            added_.push_back(path);
        });
    }

    void on_object_removed(ObjectPath const& path) override
    {
        ++removed_calls;
        injector_.submit([this, path] {
            {
                std::unique_lock lock(table_mutex_);
                if (keep_removed) {
                    for (auto& entry : objects_)
                        entry.retired = entry.retired || entry.path == path;
                } else {
                    std::erase_if(objects_, [&path](Entry const& entry) { return entry.path == path; });
                }
            }
            std::lock_guard lock(records_mutex_);
            removed_.push_back(path);
        });
    }

    void on_properties_changed(
        glue::IObject& object, ObjectPath const& path, glue::IInterface& interface) override
    {
        ++changed_calls;
        injector_.submit([this, object = &object, interface = &interface, path] {
            std::shared_lock lock(table_mutex_);
            // The object may have gone since: a real server finds it no longer in its tree.
            if (!owns(object))
                return;
            Change change{path, interface->interface_name().str(), {}, {}};
            interface->get_changed([&change](glue::ICollection<glue::IProperty>& properties) {
                for (unsigned long i = 0; i < properties.size(); ++i) {
                    ValueSink sink;
                    properties[i].serialize(sink);
                    change.names.push_back(properties[i].name().str());
                    change.values.push_back(sink.values.at(0));
                }
            });
            std::lock_guard records(records_mutex_);
            changes_.push_back(std::move(change));
        });
    }

    void on_signal(glue::IObject& object, ObjectPath const& path, glue::IInterface& interface,
        glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value) override
    {
        ++signal_calls;
        injector_.submit([this, object = &object, interface = &interface, signal = &signal, path,
                             value = std::move(value)] {
            std::shared_lock lock(table_mutex_);
            if (!owns(object))
                return;
            ValueSink sink;
            value->serialize(sink);
            std::lock_guard records(records_mutex_);
            signals_.push_back({path, interface->interface_name().str(), signal->name().str(), sink.values});
        });
    }

    // Runs the server's queue dry on the calling thread, which is the server's thread.
    void drive() { executor_.run_dry(); }
    detail::executors::ExecutorBase& executor() { return executor_; }

    // The interface of the most recent object added under `path`, retired ones included.
    // Raises std::out_of_range if there is none.
    glue::IInterface& interface(ObjectPath const& path, std::string const& name)
    {
        std::shared_lock lock(table_mutex_);
        return find_interface(path, name);
    }
    glue::IObject& object(ObjectPath const& path)
    {
        std::shared_lock lock(table_mutex_);
        return find_object(path);
    }

    // Writes and resets properties by name through set_many.
    std::shared_ptr<SetOutcome> set(ObjectPath const& path, std::string const& interface,
        std::vector<std::pair<std::string, Value>> const& values, std::vector<std::string> const& resets = {})
    {
        auto outcome = std::make_shared<SetOutcome>();
        std::shared_lock lock(table_mutex_);
        try {
            auto& target = find_interface(path, interface);
            WriteIterator writes;
            for (auto const& [name, value] : values)
                writes.add(find_property(target, name), value);
            ResetIterator reset;
            for (auto const& name : resets)
                reset.add(find_property(target, name));
            auto future = target.set_many(writes, reset);
            injector_.then(std::move(future), [outcome](boost::future<void> done) {
                try {
                    done.get();
                    outcome->succeed({});
                } catch (...) {
                    outcome->fail(false);
                }
            });
        } catch (...) {
            outcome->fail(true);
        }
        return outcome;
    }

    // Reads properties by name through get_many.
    Values get(ObjectPath const& path, std::string const& interface, std::vector<std::string> const& names)
    {
        std::shared_lock lock(table_mutex_);
        auto& target = find_interface(path, interface);
        ReadIterator reads;
        for (auto const& name : names)
            reads.add(find_property(target, name));
        reads.prepare();
        target.get_many(reads);
        Values values;
        for (auto const& sink : reads.sinks)
            values.push_back(sink.values.at(0));
        return values;
    }

    // Calls a method by name through call_method.
    std::shared_ptr<CallOutcome> call(ObjectPath const& path, std::string const& interface,
        std::string const& method, Values const& arguments)
    {
        auto outcome = std::make_shared<CallOutcome>();
        std::shared_lock lock(table_mutex_);
        try {
            auto& target = find_interface(path, interface);
            ArgumentIterator cursor(arguments);
            auto future = target.call_method(find_method(target, method), cursor);
            injector_.then(
                std::move(future), [outcome](boost::future<std::unique_ptr<glue::IMethodReturnValue>> done) {
                    try {
                        auto result = done.get();
                        ValueSink sink;
                        result->serialize(sink);
                        outcome->succeed(std::move(sink.values));
                    } catch (...) {
                        outcome->fail(false);
                    }
                });
        } catch (...) {
            outcome->fail(true);
        }
        return outcome;
    }

    std::vector<ObjectPath> added() const
    {
        std::lock_guard lock(records_mutex_);
        return added_;
    }
    std::vector<ObjectPath> removed() const
    {
        std::lock_guard lock(records_mutex_);
        return removed_;
    }
    std::vector<Change> changes() const
    {
        std::lock_guard lock(records_mutex_);
        return changes_;
    }
    std::vector<Signal> signals() const
    {
        std::lock_guard lock(records_mutex_);
        return signals_;
    }
    std::size_t object_count() const
    {
        std::shared_lock lock(table_mutex_);
        return objects_.size();
    }

    // Counts of notifications, taken when they arrive.
    std::atomic<int> added_calls{0};
    std::atomic<int> removed_calls{0};
    std::atomic<int> changed_calls{0};
    std::atomic<int> signal_calls{0};

    // Keep objects on removal, so that a test can make requests through them afterwards.
    // Set before the server is used.
    bool keep_removed = false;

private:
    struct Entry {
        ObjectPath path;
        std::unique_ptr<glue::IObject> object;
        bool retired;
    };

    bool owns(glue::IObject const* object) const
    {
        return std::any_of(objects_.begin(), objects_.end(),
            [object](Entry const& entry) { return entry.object.get() == object; });
    }

    glue::IObject& find_object(ObjectPath const& path)
    {
        for (auto entry = objects_.rbegin(); entry != objects_.rend(); ++entry) {
            if (entry->path == path)
                return *entry->object;
        }
        throw std::out_of_range("no object at " + path.str());
    }

    glue::IInterface& find_interface(ObjectPath const& path, std::string const& name)
    {
        auto& interfaces = find_object(path).interfaces();
        for (unsigned long i = 0; i < interfaces.size(); ++i) {
            if (interfaces[i].interface_name().view() == name)
                return interfaces[i];
        }
        throw std::out_of_range("no interface " + name);
    }

    static glue::IProperty& find_property(glue::IInterface& interface, std::string const& name)
    {
        auto& properties = interface.properties();
        for (unsigned long i = 0; i < properties.size(); ++i) {
            if (properties[i].name().view() == name)
                return properties[i];
        }
        throw std::out_of_range("no property " + name);
    }

    static glue::IMethod& find_method(glue::IInterface& interface, std::string const& name)
    {
        auto& methods = interface.methods();
        for (unsigned long i = 0; i < methods.size(); ++i) {
            if (methods[i].name().view() == name)
                return methods[i];
        }
        throw std::out_of_range("no method " + name);
    }

    std::string name_;
    mutable std::shared_mutex table_mutex_;
    std::vector<Entry> objects_;
    mutable std::mutex records_mutex_;
    std::vector<ObjectPath> added_;
    std::vector<ObjectPath> removed_;
    std::vector<Change> changes_;
    std::vector<Signal> signals_;
    // Last, so that it closes first: queued tasks refer to the members above.
    detail::executors::ExecutorBase executor_;
    detail::executors::Injector injector_{executor_};
};

} // namespace tarvek::test
