// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/interface.hpp"

#include "server/dbus/callback_guard.hpp"
#include "server/dbus/cursors.hpp"
#include "server/dbus/reply_budget.hpp"
#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sstream>
#include <utility>
#include <vector>

namespace tarvek::server::dbus {

namespace {

// The start entry of every table of the library: 56-byte entries, parameter names, and
// the format reference that tells sd-bus which layout it is given.
sd_bus_vtable const vtable_start = SD_BUS_VTABLE_START(0);

// The flags by which sd-bus announces a property's changes; from them it also writes the
// annotation "org.freedesktop.DBus.Property.EmitsChangedSignal" into introspection data
// ("invalidates", "const", "false"; none for the default).
std::uint64_t change_flags(glue::ChangeSignal change)
{
    switch (change) {
    case glue::ChangeSignal::invalidates:
        return SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION;
    case glue::ChangeSignal::constant:
        return SD_BUS_VTABLE_PROPERTY_CONST;
    case glue::ChangeSignal::none:
        return 0;
    case glue::ChangeSignal::emits:
        break;
    }
    return SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
}

// Whether a change of the property goes into PropertiesChanged at all; sd-bus refuses the
// whole signal for a name that its table doesn't announce.
bool announced(glue::IProperty const& property)
{
    auto const change = glue::change_signal_of(property);
    return change == glue::ChangeSignal::emits || change == glue::ChangeSignal::invalidates;
}

// The argument names of a method or signal in the form that sd-bus reads (each followed
// by a NUL, parameters before results), or "" for a member that has none.
template <class Member>
char const* argument_names(Member const& member)
{
    auto const* const named = dynamic_cast<glue::IArgumentNames const*>(&member);
    if (!named || named->argument_names().empty())
        return "";
    return named->argument_names();
}

} // namespace

Interface::Interface(sd_bus* bus, ObjectPath const& path, glue::IInterface& interface,
    detail::executors::Injector& injector, common::Vrel& vrel)
    : name(interface.interface_name())
    , interface(interface)
    , injector(injector)
    , authority(vrel)
{
    auto& property_collection = interface.properties();
    auto& method_collection = interface.methods();
    auto& signal_collection = interface.signals();
    unsigned long const property_count = property_collection.size();
    unsigned long const method_count = method_collection.size();
    unsigned long const signal_count = signal_collection.size();

    // Value-initialised: sd-bus requires the unused parts of every entry to be zero.
    vtable.reset(new sd_bus_vtable[property_count + method_count + signal_count + 2]());
    sd_bus_vtable* entry = vtable.get();
    std::memcpy(entry++, &vtable_start, sizeof(sd_bus_vtable));

    for (unsigned long index = 0; index < property_count; ++index, ++entry) {
        glue::IProperty& property = property_collection[index];
        auto const change = glue::change_signal_of(property);
        // A constant property is never written from the bus (and sd-bus takes no writable
        // constant).
        bool const read_only = property.is_readonly() || change == glue::ChangeSignal::constant;
        entry->type = read_only ? _SD_BUS_VTABLE_PROPERTY : _SD_BUS_VTABLE_WRITABLE_PROPERTY;
        // By default every changed value travels in PropertiesChanged, not just its name.
        entry->flags = change_flags(change);
        entry->x.property.member = property.name();
        entry->x.property.signature = property.signature();
        entry->x.property.get = &Interface::get_callback;
        entry->x.property.set = read_only ? nullptr : &Interface::set_callback;
        entry->x.property.offset = 0;
        if (!properties.emplace(property.name().str(), std::ref(property)).second) {
            boost::throw_exception(tarvek::invalid_argument(str::join(
                "dbus::Interface: Duplication of property: ", property.name(), " in interface: ", name)));
        }
    }
    for (unsigned long index = 0; index < method_count; ++index, ++entry) {
        glue::IMethod& method = method_collection[index];
        entry->type = _SD_BUS_VTABLE_METHOD;
        // Access is decided by the library's gate alone, not by sd-bus's privilege check.
        entry->flags = SD_BUS_VTABLE_UNPRIVILEGED;
        entry->x.method.member = method.name();
        entry->x.method.signature = method.parameter_signature();
        entry->x.method.result = method.result_signature();
        entry->x.method.handler = &Interface::method_callback;
        entry->x.method.offset = 0;
        entry->x.method.names = argument_names(method);
        if (!methods.emplace(method.name().str(), std::ref(method)).second) {
            boost::throw_exception(tarvek::invalid_argument(str::join(
                "dbus::Interface: Duplication of method: ", method.name(), " in interface: ", name)));
        }
    }
    for (unsigned long index = 0; index < signal_count; ++index, ++entry) {
        glue::ISignal& signal = signal_collection[index];
        entry->type = _SD_BUS_VTABLE_SIGNAL;
        entry->flags = 0;
        entry->x.signal.member = signal.name();
        entry->x.signal.signature = signal.signature();
        entry->x.signal.names = argument_names(signal);
    }
    entry->type = _SD_BUS_VTABLE_END;

    sd_bus_slot* new_slot = nullptr;
    int const r = sd_bus_add_object_vtable(bus, &new_slot, path.c_str(), name, vtable.get(), this);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "Could not register sd_bus_vtable"));
    slot.reset(new_slot);
}

Interface::~Interface() = default;

glue::IProperty& Interface::get_property(std::string const& property) const
{
    auto const found = properties.find(property);
    if (found == properties.end()) {
        boost::throw_exception(
            tarvek::unknown_property(str::join("Interface: ", name, " has no property named ", property)));
    }
    return found->second;
}

glue::IMethod& Interface::get_method(std::string const& method) const
{
    auto const found = methods.find(method);
    if (found == methods.end()) {
        boost::throw_exception(
            tarvek::unknown_method(str::join("Interface: ", name, " has no method named ", method)));
    }
    return found->second;
}

AuthorityChecker::Result Interface::authorize_property_read(AuthorityChecker::User const& user) const
{
    return authority.check_property_read(user, name);
}

AuthorityChecker::Result Interface::authorize_property_write(
    AuthorityChecker::User const& user, ConstString property) const
{
    return authority.check_property_write(user, name, property);
}

AuthorityChecker::Result Interface::authorize_method_call(
    AuthorityChecker::User const& user, ConstString method) const
{
    return authority.check_method_call(user, name, method);
}

int Interface::get_callback(sd_bus* bus, char const*, char const*, char const* property,
    sd_bus_message* reply, void* userdata, sd_bus_error* error)
{
    return guard_getter(error, [&] {
        auto& self = *static_cast<Interface*>(userdata);
        sd_bus_message* const current = sd_bus_get_current_message(bus);
        // Without a current message sd-bus is filling a signal that the library caused
        // itself (PropertiesChanged, InterfacesAdded): nobody is asking, so nobody is checked.
        if (current) {
            AuthorityChecker::User const user(current);
            AuthorityChecker::Result result = self.authorize_property_read(user);
            if (!result.allowed) {
                // sd-bus answers the call with this error and drops the reply it was building.
                sd_bus_error_free(error);
                int const r = sd_bus_error_move(error, &result.error);
                return r < 0 ? r : -EACCES;
            }
        }
        glue::IProperty const& found = self.get_property(property);
        SDBusOutboundMessage const value(reply);
        serialization::SDBusSerializer serializer(value);
        BoundedSerializer bounded(serializer, getter_budget(reply, current));
        found.serialize(bounded);
        return 0;
    });
}

int Interface::set_callback(
    sd_bus*, char const*, char const*, char const*, sd_bus_message*, void*, sd_bus_error* error)
{
    sd_bus_error_set(error, "org.freedesktop.DBus.Error.NotSupported",
        "This property can only be set via com.omno.ExtendedProperties.Set");
    return -1;
}

int Interface::method_callback(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return guard_handler(message, error, [&] {
        auto& self = *static_cast<Interface*>(userdata);
        char const* const member = sd_bus_message_get_member(message);
        AuthorityChecker::User const user(message);
        AuthorityChecker::Result result = self.authorize_method_call(user, ConstString::from_c_str(member));
        if (!result.allowed)
            return send_error_reply(SDBusInboundMessage(message), std::move(result.error));
        sd_bus_error_free(&result.error);

        SDBusInboundMessage inbound(message);
        MethodParameterIterator arguments(inbound);
        glue::IMethod& method = self.get_method(member);
        // The provider copies the caller while it reads the arguments, on this thread.
        tarvek::Caller const caller = user.caller();
        auto future = [&] {
            CallerScope const scope(&caller);
            return self.interface.call_method(method, arguments);
        }();
        // The continuation holds a handle of the call and nothing of this object, so the
        // object may go before the reply. The handle is dropped inside the body, on the
        // server's thread, as the message's reference count isn't thread-safe.
        self.injector.then(std::move(future),
            [pending = std::optional<SDBusInboundMessage>(inbound)](
                boost::future<std::unique_ptr<glue::IMethodReturnValue>> completed) mutable {
                SDBusInboundMessage const call = *pending;
                pending.reset();
                try {
                    SDBusOutboundMessage reply(call);
                    serialization::SDBusSerializer serializer(reply);
                    std::unique_ptr<glue::IMethodReturnValue> const value = completed.get();
                    // The results stand at the top of the body, each array on its own.
                    ReplyBudget budget(false);
                    BoundedSerializer bounded(serializer, budget);
                    value->serialize(bounded);
                    reply.send();
                } catch (std::exception const&) {
                    send_error_reply(call, std::current_exception());
                }
            });
        return 1;
    });
}

void Interface::emit_properties_changed(sd_bus* bus, ObjectPath const& path)
{
    unsigned long const count = interface.properties().size();
    std::vector<char const*> names;
    // The getters count the values of this signal afresh.
    restart_getter_budget();
    interface.get_changed([&](glue::ICollection<glue::IProperty>& changed) {
        // sd-bus sorts the names into the values and the invalidated list by the flags of
        // the table, so that one signal carries both.
        for (unsigned long index = 0; index < changed.size(); ++index)
            if (announced(changed[index]))
                names.push_back(changed[index].name());
        names.push_back(nullptr);
        // sd-bus reads each value through the getter now, without a current message.
        int const r
            = sd_bus_emit_properties_changed_strv(bus, path.c_str(), name, const_cast<char**>(names.data()));
        if (r < 0) {
            std::ostringstream joined;
            // Bound by the number of properties, and ended by the null entry when fewer
            // have changed.
            for (unsigned long index = 0; index < count && names[index]; ++index)
                joined << (index ? ", " : "") << names[index];
            boost::throw_exception(tarvek::system_error(
                -r, str::join("Failed to emit PropertiesChanged for props: ", joined.str())));
        }
    });
}

void Interface::emit_signal(
    sd_bus* bus, ObjectPath const& path, ConstString signal, std::shared_ptr<glue::ISignalValue> value)
{
    sd_bus_message* message = nullptr;
    int const r = sd_bus_message_new_signal(bus, &message, path.c_str(), name, signal);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r));
    SDBusOutboundMessage outbound(message);
    // The handle holds a reference of its own.
    sd_bus_message_unref(message);
    serialization::SDBusSerializer serializer(outbound);
    ReplyBudget budget(false);
    BoundedSerializer bounded(serializer, budget);
    value->serialize(bounded);
    outbound.send();
}

} // namespace tarvek::server::dbus
