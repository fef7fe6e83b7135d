// SPDX-License-Identifier: LGPL-2.1-or-later
// ObjectWrapper and InterfaceWrapper: what one protocol server holds of one object and of
// each of its interfaces. The server owns the ObjectWrapper (as a glue::IObject) and
// destroys it on its own thread, possibly long after the object is gone: an InterfaceWrapper
// shares ownership of the InterfaceState, and its removed flag and its tie to the state tell
// requests apart from a live object.
//
// Each InterfaceWrapper keeps this server's own dirty marks, so that servers draining their
// changes at different speeds don't disturb each other. The first mark since the server last
// called get_changed notifies it once; later marks only set bits.
//
// Locks: the call mutex (removed flag, entry of requests) nests outside the state mutex, the
// dirty mutex (marks, `notified`, the changed view) inside it. Servers are called with both
// wrapper mutexes released. Requests may come from any thread; detach_from_state and the
// destructor must not run at the same time as a request on the same wrapper.
#pragma once

#include "provider/changed_properties_view.hpp"
#include "provider/vector_collection.hpp"

#include <tarvek/common/bit_set.hpp>
#include <tarvek/common/const_string.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/glue/interface.hpp>
#include <tarvek/glue/protocol_server.hpp>
#include <tarvek/provider/interface_state.hpp>
#include <tarvek/provider/object_state.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace tarvek::provider {

class ObjectWrapper;

class InterfaceWrapper : public glue::IInterface {
public:
    // Registers itself with `state`, with no marks set.
    InterfaceWrapper(
        ObjectWrapper& parent, std::shared_ptr<InterfaceState> state, glue::IProtocolServer& server);
    // A re-registration with the other's state; the other ends detached. Moving a detached
    // wrapper isn't defined. Only done while the wrappers are being built.
    InterfaceWrapper(InterfaceWrapper&& other);
    InterfaceWrapper(InterfaceWrapper const&) = delete;
    InterfaceWrapper& operator=(InterfaceWrapper const&) = delete;
    InterfaceWrapper& operator=(InterfaceWrapper&&) = delete;
    ~InterfaceWrapper() override;

    ConstString interface_name() const override { return name_; }
    glue::ICollection<glue::IProperty>& properties() override;
    glue::ICollection<glue::IProperty> const& properties() const override;
    glue::ICollection<glue::IMethod>& methods() override;
    glue::ICollection<glue::IMethod> const& methods() const override;
    glue::ICollection<glue::ISignal>& signals() override;
    glue::ICollection<glue::ISignal> const& signals() const override;

    // Failed futures, not exceptions, for a detached wrapper ("Interface wrapper is already
    // detached") and a removed object ("Interface/object has been removed"); otherwise
    // InterfaceState's. Both hold the call mutex until the request is queued.
    boost::future<void> set_many(glue::IIterator<std::pair<glue::IProperty&, glue::IDeserializer&>>& values,
        glue::IIterator<glue::IProperty&>& resets) override;
    // Serves the committed values whether or not the object is still there.
    void get_many(glue::IIterator<std::pair<glue::IProperty const&, glue::ISerializer&>>& reads) override;
    // Runs `receiver` with the state mutex held shared and the dirty mutex held. A receiver
    // that throws loses the marks and leaves this wrapper silent for good: it must not throw.
    void get_changed(std::function<void(glue::ICollection<glue::IProperty>&)> receiver) override;
    // Every method of the interface must be an IMethodEx.
    boost::future<std::unique_ptr<glue::IMethodReturnValue>> call_method(
        glue::IMethod& method, glue::IIterator<glue::IDeserializer&>& arguments) override;

    void set_parent(ObjectWrapper& parent) noexcept { parent_ = &parent; }
    void flag_as_removed(bool removed);
    // Marks the property at `index` for this server and notifies it if this is the first
    // mark since its last get_changed. Goes on for a removed wrapper.
    void set_dirty(unsigned long index);
    // Collects and clears the marks; to be called with the dirty mutex held.
    IChangedProperties& get_dirty_properties();
    // Passes the emission to the server at once, with no lock of the wrapper's own.
    void emit_signal(glue::ISignal& signal, std::shared_ptr<glue::ISignalValue> value);

    void attach_to_state(std::shared_ptr<InterfaceState> state);
    void detach_from_state();

private:
    ObjectWrapper* parent_;
    std::shared_ptr<InterfaceState> state_;
    glue::IProtocolServer* server_;
    ConstString name_;
    std::mutex dirty_mutex_;
    common::BitSet dirty_;
    bool notified_;
    ChangedPropertiesView changed_;
    bool removed_;
    std::mutex call_mutex_;
};

class ObjectWrapper : public glue::IObject {
public:
    // One InterfaceWrapper per interface of `state`, in the same order.
    ObjectWrapper(ObjectState& state, glue::IProtocolServer& server);
    ObjectWrapper(ObjectWrapper&& other) noexcept;
    ObjectWrapper(ObjectWrapper const&) = delete;
    ObjectWrapper& operator=(ObjectWrapper const&) = delete;
    ObjectWrapper& operator=(ObjectWrapper&&) = delete;
    ~ObjectWrapper() override = default;

    // The object's path, read live on any thread: empty once the object is detached.
    std::shared_ptr<ObjectPath const> path() const noexcept { return state_->shared_path(); }

    glue::ICollection<glue::IInterface>& interfaces() override { return interfaces_; }
    glue::ICollection<glue::IInterface> const& interfaces() const override { return interfaces_; }

private:
    ObjectState* state_;
    util::VectorCollection<InterfaceWrapper, glue::IInterface> interfaces_;
};

} // namespace tarvek::provider
