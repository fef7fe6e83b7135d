// SPDX-License-Identifier: LGPL-2.1-or-later
#include "server/dbus/extended_properties.hpp"

#include "server/dbus/callback_guard.hpp"
#include "server/dbus/cursors.hpp"
#include "server/dbus/object.hpp"
#include "server/dbus/reply_budget.hpp"
#include "server/dbus/sdbus_error.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/serialization/sdbus_deserializer.hpp>
#include <tarvek/serialization/sdbus_serializer.hpp>
#include <tarvek/server/dbus/sdbus_message.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

namespace tarvek::server::dbus {

ConstString const ExtendedProperties::name("com.omno.ExtendedProperties");

namespace {

using User = AuthorityChecker::User;
using Values = std::pair<glue::IProperty&, glue::IDeserializer&>;

ExtendedProperties& self_of(void* userdata)
{
    return *static_cast<ExtendedProperties*>(userdata);
}

bool is_type_mismatch(std::system_error const& error)
{
    return error.code() == std::error_code(ENXIO, std::system_category());
}

// The client's reply waits for the commit on the object's executor: an empty return once
// the whole change has been validated and committed, an error if it hasn't happened.
void arrange_reply(Interface const& interface, SDBusInboundMessage const& call, boost::future<void> future)
{
    // The handle is dropped inside the body, on the server's thread, as the message's
    // reference count isn't thread-safe.
    interface.server_injector().then(std::move(future),
        [pending = std::optional<SDBusInboundMessage>(call)](boost::future<void> completed) mutable {
            SDBusInboundMessage const reply_to = *pending;
            pending.reset();
            try {
                completed.get();
                SDBusOutboundMessage reply(reply_to);
                reply.send();
            } catch (std::exception const&) {
                send_error_reply(reply_to, std::current_exception());
            }
        });
}

void append_bool(sd_bus_message* message, bool value)
{
    int const word = value;
    int const r = sd_bus_message_append_basic(message, SD_BUS_TYPE_BOOLEAN, &word);
    if (r < 0)
        boost::throw_exception(tarvek::system_error(-r, "could not append bool"));
}

// The name at a position of a NameList walk; null where an empty array has no first name.
char const* name_at(NameList::Iterator const& position)
{
    return *position.position();
}

void write_range_value(SDBusOutboundMessage& reply, ReplyBudget& budget, glue::IProperty const& property,
    glue::IPropertyRange const& range, void (glue::IPropertyRange::*write)(glue::ISerializer&) const)
{
    budget.charge(2 + std::strlen(property.signature()));
    OutboundContainerGuard variant(reply, SD_BUS_TYPE_VARIANT, property.signature());
    {
        // One serializer per value, so that a throwing writer can't leave the levels of
        // the reply in disorder.
        serialization::SDBusSerializer serializer(reply);
        BoundedSerializer bounded(serializer, budget);
        (range.*write)(bounded);
    }
    variant.end();
}

void write_ranges(SDBusOutboundMessage& reply, ReplyBudget& budget, glue::IProperty const& property)
{
    budget.charge_entry(property.name().size());
    OutboundContainerGuard entry(reply, SD_BUS_TYPE_DICT_ENTRY, "saav");
    append_string_argument(reply.get(), property.name());
    budget.charge(11);
    OutboundContainerGuard entries(reply, SD_BUS_TYPE_ARRAY, "av");
    auto const& ranges = property.ranges();
    for (unsigned long index = 0; index < ranges.size(); ++index) {
        glue::IPropertyRange const& range = ranges[index];
        budget.charge(7);
        OutboundContainerGuard values(reply, SD_BUS_TYPE_ARRAY, "v");
        write_range_value(reply, budget, property, range, &glue::IPropertyRange::serialize_first);
        if (range.has_second())
            write_range_value(reply, budget, property, range, &glue::IPropertyRange::serialize_second);
        if (range.has_third())
            write_range_value(reply, budget, property, range, &glue::IPropertyRange::serialize_third);
        values.end();
    }
    entries.end();
    entry.end();
}

// The common frame of the read family: authorise the read once for the interface, enter
// the names (unless `with_names` is false), build the reply's dictionary of `contents`
// with `fill`, and send it; a failure while filling sends only the error.
template <class Fill>
int answer_read(sd_bus_message* message, void* userdata, sd_bus_error* error, char const* contents,
    bool with_names, Fill fill)
{
    return guard_handler(message, error, [&] {
        SDBusInboundMessage call(message);
        std::string const interface_name = read_string_argument(message);
        Interface& interface = self_of(userdata).get_interface(interface_name);
        User const user(message);
        AuthorityChecker::Result result = interface.authorize_property_read(user);
        if (!result.allowed)
            return send_error_reply(call, std::move(result.error));
        std::optional<NameList> names;
        if (with_names)
            names.emplace(call);
        // Built, filled and dropped inside the guard: a reply that fails half-way is never
        // sent, and the guard answers with the error alone.
        SDBusOutboundMessage reply(call);
        OutboundContainerGuard dictionary(reply, SD_BUS_TYPE_ARRAY, contents);
        fill(interface, names, reply);
        dictionary.end();
        reply.send();
        return 1;
    });
}

int set_property(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return guard_handler(message, error, [&] { return self_of(userdata).call_set_property(message, error); });
}

// Answers a failure of the decoding of a write: a value of another type than the property's
// gets a name of its own, everything else goes the usual way.
int answer_write_failure(sd_bus_error* error)
{
    try {
        throw;
    } catch (std::system_error const& failure) {
        if (is_type_mismatch(failure))
            return sd_bus_error_setf(
                error, "org.freedesktop.DBus.Error.InvalidSignature", "Property type mismatch");
        throw;
    }
}

int set_many(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return guard_handler(message, error, [&] {
        SDBusInboundMessage call(message);
        std::string const interface_name = read_string_argument(message);
        Interface& interface = self_of(userdata).get_interface(interface_name);
        unsigned long count = 0;
        tarvek::Caller caller;
        {
            InboundContainerGuard array(call, SD_BUS_TYPE_ARRAY, "(sv)");
            User const user(message);
            caller = user.caller();
            // First pass: names only, so that nothing is decoded before every name is allowed.
            while (sd_bus_message_at_end(message, 0) == 0) {
                InboundContainerGuard element(call, SD_BUS_TYPE_STRUCT, "sv");
                char const* const property = read_string_argument(message);
                AuthorityChecker::Result result
                    = interface.authorize_property_write(user, ConstString::from_c_str(property));
                if (!result.allowed)
                    return send_error_reply(call, std::move(result.error));
                sd_bus_error_free(&result.error);
                int const r = sd_bus_message_skip(message, nullptr);
                if (r < 0)
                    boost::throw_exception(tarvek::system_error(-r, "could not skip"));
                element.end();
                ++count;
            }
            array.end();
        }
        int const r = sd_bus_message_rewind(message, 0);
        if (r < 0)
            boost::throw_exception(tarvek::system_error(-r, "could not rewind"));
        read_string_argument(message);
        CallerScope const scope(&caller);

        try {
            EmptyIterator<glue::IProperty&> resets;
            boost::future<void> future;
            if (count == 0) {
                // An empty batch still goes through the executor, so that its answer means
                // the same as any other: validated and committed.
                EmptyIterator<Values> values;
                future = interface.glue_interface().set_many(values, resets);
            } else {
                SetManyIterator values(call, interface.interface_name(), interface.property_map());
                future = interface.glue_interface().set_many(values, resets);
            }
            arrange_reply(interface, call, std::move(future));
            return 1;
        } catch (std::system_error const&) {
            return answer_write_failure(error);
        }
    });
}

int reset(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return guard_handler(message, error, [&] {
        SDBusInboundMessage call(message);
        std::string const interface_name = read_string_argument(message);
        Interface& interface = self_of(userdata).get_interface(interface_name);
        NameList names(call);
        User const user(message);
        bool empty = true;
        for (auto position = names.begin(); position != names.end(); ++position) {
            char const* const property = name_at(position);
            if (!property)
                break;
            empty = false;
            AuthorityChecker::Result result
                = interface.authorize_property_write(user, ConstString::from_c_str(property));
            if (!result.allowed)
                return send_error_reply(call, std::move(result.error));
        }

        tarvek::Caller const caller = user.caller();
        CallerScope const scope(&caller);
        EmptyIterator<Values> values;
        boost::future<void> future;
        if (empty) {
            // As for an empty SetMany: a no-op that still takes the way through the executor.
            EmptyIterator<glue::IProperty&> resets;
            future = interface.glue_interface().set_many(values, resets);
        } else {
            ResetIterator resets(names, interface.interface_name(), interface.property_map());
            future = interface.glue_interface().set_many(values, resets);
        }
        arrange_reply(interface, call, std::move(future));
        return 1;
    });
}

int get_many(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return answer_read(message, userdata, error, "{sv}", true,
        [](Interface& interface, std::optional<NameList>& names, SDBusOutboundMessage& reply) {
            GetManyIterator reads(*names, interface.interface_name(), interface.property_map(), reply);
            interface.glue_interface().get_many(reads);
        });
}

int is_defaulted(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return answer_read(message, userdata, error, "{sb}", true,
        [](Interface& interface, std::optional<NameList>& names, SDBusOutboundMessage& reply) {
            ReplyBudget budget;
            for (auto position = names->begin(); position != names->end(); ++position) {
                char const* const property = name_at(position);
                // Looked up before the entry opens: sd-bus can't close an
                // entry that holds a key without a value, and an unknown
                // name fails the whole reply anyway.
                glue::IProperty const& found = interface.get_property(std::string(property));
                // Counted exactly, as this reply is made of nothing else: an entry
                // starts at a multiple of 8, the key's length word and text with its
                // NUL, the boolean at the next multiple of 4.
                budget.charge(((std::strlen(property) + 5 + 3) / 4 * 4 + 4 + 7) / 8 * 8);
                OutboundContainerGuard entry(reply, SD_BUS_TYPE_DICT_ENTRY, "sb");
                append_string_argument(reply.get(), property);
                append_bool(reply.get(), found.is_default());
                entry.end();
            }
        });
}

int get_default(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return answer_read(message, userdata, error, "{sv}", true,
        [](Interface& interface, std::optional<NameList>& names, SDBusOutboundMessage& reply) {
            ReplyBudget budget;
            for (auto position = names->begin(); position != names->end(); ++position) {
                glue::IProperty const& found = interface.get_property(std::string(name_at(position)));
                budget.charge_entry(found.name().size());
                budget.charge(2 + std::strlen(found.signature()));
                OutboundContainerGuard entry(reply, SD_BUS_TYPE_DICT_ENTRY, "sv");
                append_string_argument(reply.get(), found.name());
                OutboundContainerGuard variant(reply, SD_BUS_TYPE_VARIANT, found.signature());
                {
                    serialization::SDBusSerializer serializer(reply);
                    BoundedSerializer bounded(serializer, budget);
                    found.serialize_default(bounded);
                }
                variant.end();
                entry.end();
            }
        });
}

int get_ranges(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return answer_read(message, userdata, error, "{saav}", true,
        [](Interface& interface, std::optional<NameList>& names, SDBusOutboundMessage& reply) {
            ReplyBudget budget;
            for (auto position = names->begin(); position != names->end(); ++position)
                write_ranges(reply, budget, interface.get_property(std::string(name_at(position))));
        });
}

int get_all_ranges(sd_bus_message* message, void* userdata, sd_bus_error* error)
{
    return answer_read(message, userdata, error, "{saav}", false,
        [](Interface& interface, std::optional<NameList>&, SDBusOutboundMessage& reply) {
            ReplyBudget budget;
            auto const& properties = interface.glue_interface().properties();
            for (unsigned long index = 0; index < properties.size(); ++index)
                write_ranges(reply, budget, properties[index]);
        });
}

sd_bus_vtable const table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Set", "ssv", "", set_property, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SetMany", "sa(sv)", "", set_many, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Reset", "sas", "", reset, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetMany", "sas", "a{sv}", get_many, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("IsDefaulted", "sas", "a{sb}", is_defaulted, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetDefault", "sas", "a{sv}", get_default, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetRanges", "sas", "a{saav}", get_ranges, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetAllRanges", "s", "a{saav}", get_all_ranges, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

ExtendedProperties::ExtendedProperties(sd_bus* bus, Object const& object)
    : object(object)
{
    int const r = sd_bus_add_object_vtable(bus, &slot, object.object_path().c_str(), name, table, this);
    if (r < 0)
        boost::throw_exception(
            tarvek::system_error(-r, "ExtendedProperties: Could not register sd_bus_vtable"));
}

ExtendedProperties::~ExtendedProperties()
{
    sd_bus_slot_unref(slot);
}

Interface& ExtendedProperties::get_interface(std::string const& interface) const
{
    return object.get_dbus_interface(ConstString(interface.c_str(), interface.size()));
}

int ExtendedProperties::call_set_property(sd_bus_message* message, sd_bus_error* error)
{
    SDBusInboundMessage call(message);
    std::string const interface_name = read_string_argument(message);
    std::string const property_name = read_string_argument(message);
    Interface& interface = get_interface(interface_name);
    glue::IProperty& property = interface.get_property(property_name);
    // Before authorisation on purpose: a client without rights still learns that the
    // property is read-only, or constant, which is read-only for good.
    if (glue::change_signal_of(property) == glue::ChangeSignal::constant) {
        return sd_bus_error_setf(error, "org.freedesktop.DBus.Error.PropertyReadOnly",
            "Property %s is constant", property_name.c_str());
    }
    if (property.is_readonly()) {
        return sd_bus_error_setf(error, "org.freedesktop.DBus.Error.PropertyReadOnly",
            "Property %s is readonly", property_name.c_str());
    }
    User const user(message);
    AuthorityChecker::Result result = interface.authorize_property_write(user, property.name());
    if (!result.allowed)
        return send_error_reply(call, std::move(result.error));
    sd_bus_error_free(&result.error);
    tarvek::Caller const caller = user.caller();
    CallerScope const scope(&caller);

    try {
        serialization::SDBusDeserializer deserializer(message);
        // sd-bus compares the value's signature with the property's here (ENXIO). The
        // guard skips what the write left unread: a write refused early, as on an object
        // that has just gone, reads nothing of the value.
        InboundContainerGuard variant(call, SD_BUS_TYPE_VARIANT, property.signature());
        SingleValueIterator<Values> values(Values(property, deserializer));
        EmptyIterator<glue::IProperty&> resets;
        arrange_reply(interface, call, interface.glue_interface().set_many(values, resets));
        return 1;
    } catch (std::system_error const&) {
        return answer_write_failure(error);
    }
}

} // namespace tarvek::server::dbus
