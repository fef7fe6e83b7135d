// SPDX-License-Identifier: LGPL-2.1-or-later
#include "chaos/random_calls.hpp"

#include <cmath>
#include <limits>

namespace tarvek::test::chaos {

namespace {

constexpr char const* lamp = "org.sample.Lamp";
constexpr char const* info = "org.sample.Info";
constexpr char const* manager = "org.sample.LampManager";
constexpr char const* properties = "org.freedesktop.DBus.Properties";
constexpr char const* extended = "com.omno.ExtendedProperties";
constexpr char const* root = "/org/sample/lamps";

template <class T>
T const& one_of(Rng& rng, std::vector<T> const& items)
{
    return items[static_cast<std::size_t>(pick(rng, static_cast<int>(items.size())))];
}

std::vector<std::string> const lamp_properties{"On", "Level", "MaxLevel", "Label", "Color", "Tags", "Settings",
    "Serial", "BlinkCount"};
std::vector<std::string> const odd_properties{"Model", "Firmware", "Nope", "", "level", "On.", "Level\t"};
std::vector<std::string> const sample_interfaces{lamp, info, manager};
std::vector<std::string> const other_interfaces{properties, extended, "org.freedesktop.DBus.ObjectManager",
    "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer", "org.sample.Nothing", "com.omno.Nope",
    "org.sample.lamp"};
std::vector<std::string> const unknown_paths{"/", "/org", "/org/sample", "/org/sample/lamps/nope",
    "/org/sample/lamps/lamp1/deeper", "/x/y/z", "/org/sample/lamps/empty"};

std::string random_path(Rng& rng, CallOptions const& options)
{
    if (options.lamps.empty() || chance(rng, 0.15))
        return chance(rng, 0.3) ? std::string(root) : one_of(rng, unknown_paths);
    return one_of(rng, options.lamps);
}

std::string random_interface(Rng& rng)
{
    return chance(rng, 0.75) ? one_of(rng, sample_interfaces) : one_of(rng, other_interfaces);
}

std::string random_property(Rng& rng)
{
    return chance(rng, 0.85) ? one_of(rng, lamp_properties) : one_of(rng, odd_properties);
}

bool is_sample(std::string const& interface) { return interface.rfind("org.sample.", 0) == 0; }

// The end of the complete type that starts at `p`.
std::size_t type_end(std::string const& s, std::size_t p)
{
    char const c = s[p];
    if (c == 'a')
        return type_end(s, p + 1);
    if (c == '(' || c == '{') {
        char const close = c == '(' ? ')' : '}';
        ++p;
        while (p < s.size() && s[p] != close)
            p = type_end(s, p);
        return p + 1;
    }
    return p + 1;
}

std::string random_type(Rng& rng, int depth)
{
    static char const basics[] = "bynqiuxtdsog";
    int const k = pick(rng, depth > 3 ? 12 : 17);
    if (k < 12)
        return std::string(1, basics[k]);
    switch (k) {
    case 12: return "a" + random_type(rng, depth + 1);
    case 13: return std::string("a{") + basics[pick(rng, 12)] + random_type(rng, depth + 1) + "}";
    case 14: {
        std::string s = "(";
        for (int i = 0, n = 1 + pick(rng, 3); i < n; ++i)
            s += random_type(rng, depth + 1);
        return s + ")";
    }
    default: return "v";
    }
}

double random_double(Rng& rng)
{
    switch (pick(rng, 12)) {
    case 0: return std::numeric_limits<double>::quiet_NaN();
    case 1: return std::numeric_limits<double>::infinity();
    case 2: return -std::numeric_limits<double>::infinity();
    case 3: return -0.0;
    case 4: return 1e308;
    default: return std::uniform_real_distribution<double>(-0.25, 1.25)(rng);
    }
}

std::uint64_t random_number(Rng& rng)
{
    switch (pick(rng, 6)) {
    case 0: return 0;
    case 1: return std::numeric_limits<std::uint64_t>::max();
    case 2: return rng();
    default: return static_cast<std::uint64_t>(pick(rng, 140));
    }
}

int append_value(sd_bus_message* m, Rng& rng, std::string const& sig, std::size_t& pos, int depth);

int append_basic(sd_bus_message* m, Rng& rng, char c)
{
    std::uint64_t const n = random_number(rng);
    switch (c) {
    case 'b': { int v = pick(rng, 2); return sd_bus_message_append_basic(m, c, &v); }
    case 'y': { auto v = static_cast<std::uint8_t>(n); return sd_bus_message_append_basic(m, c, &v); }
    case 'n': { auto v = static_cast<std::int16_t>(n); return sd_bus_message_append_basic(m, c, &v); }
    case 'q': { auto v = static_cast<std::uint16_t>(n); return sd_bus_message_append_basic(m, c, &v); }
    case 'i': { auto v = static_cast<std::int32_t>(n); return sd_bus_message_append_basic(m, c, &v); }
    case 'u': { auto v = static_cast<std::uint32_t>(n); return sd_bus_message_append_basic(m, c, &v); }
    case 'x': { auto v = static_cast<std::int64_t>(n); return sd_bus_message_append_basic(m, c, &v); }
    case 't': return sd_bus_message_append_basic(m, c, &n);
    case 'd': { double v = random_double(rng); return sd_bus_message_append_basic(m, c, &v); }
    case 's': { std::string v = random_text(rng, 24); return sd_bus_message_append_basic(m, c, v.c_str()); }
    case 'o': {
        static std::vector<std::string> const paths{"/", "/org/sample/lamps/lamp1", "/a/b_c/D9", "/org/sample/lamps"};
        return sd_bus_message_append_basic(m, c, one_of(rng, paths).c_str());
    }
    case 'g': {
        static std::vector<std::string> const sigs{"", "u", "a{sv}", "(ddd)", "aav"};
        return sd_bus_message_append_basic(m, c, one_of(rng, sigs).c_str());
    }
    default: return -EINVAL;
    }
}

int append_value(sd_bus_message* m, Rng& rng, std::string const& sig, std::size_t& pos, int depth)
{
    char const c = sig[pos];
    int r = 0;
    if (c == 'a') {
        std::size_t const end = type_end(sig, pos + 1);
        std::string const element = sig.substr(pos + 1, end - pos - 1);
        if ((r = sd_bus_message_open_container(m, 'a', element.c_str())) < 0)
            return r;
        int const n = chance(rng, 0.3) ? 0 : 1 + pick(rng, 3);
        for (int i = 0; i < n && r >= 0; ++i) {
            std::size_t p = 0;
            if (element[0] == '{') {
                std::string const inner = element.substr(1, element.size() - 2);
                if ((r = sd_bus_message_open_container(m, 'e', inner.c_str())) < 0)
                    return r;
                while (p < inner.size() && r >= 0)
                    r = append_value(m, rng, inner, p, depth + 1);
                if (r >= 0)
                    r = sd_bus_message_close_container(m);
            } else {
                r = append_value(m, rng, element, p, depth + 1);
            }
        }
        pos = end;
        return r < 0 ? r : sd_bus_message_close_container(m);
    }
    if (c == '(') {
        std::size_t const end = type_end(sig, pos);
        std::string const inner = sig.substr(pos + 1, end - pos - 2);
        if ((r = sd_bus_message_open_container(m, 'r', inner.c_str())) < 0)
            return r;
        std::size_t p = 0;
        while (p < inner.size() && r >= 0)
            r = append_value(m, rng, inner, p, depth + 1);
        pos = end;
        return r < 0 ? r : sd_bus_message_close_container(m);
    }
    if (c == 'v') {
        std::string const inner = depth > 6 ? "u" : random_type(rng, depth + 1);
        if ((r = sd_bus_message_open_container(m, 'v', inner.c_str())) < 0)
            return r;
        std::size_t p = 0;
        r = append_value(m, rng, inner, p, depth + 1);
        ++pos;
        return r < 0 ? r : sd_bus_message_close_container(m);
    }
    ++pos;
    return append_basic(m, rng, c);
}

// A variant of random type; sometimes a variant holding a variant.
int append_random_variant(sd_bus_message* m, Rng& rng, std::string& note)
{
    std::string const type = random_type(rng, 1);
    note += "<" + type + ">";
    int r = sd_bus_message_open_container(m, 'v', type.c_str());
    std::size_t p = 0;
    if (r >= 0)
        r = append_value(m, rng, type, p, 1);
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int append_string_array(sd_bus_message* m, std::size_t count, std::size_t length, char fill)
{
    int r = sd_bus_message_open_container(m, 'a', "s");
    std::string const item(length, fill);
    for (std::size_t i = 0; i < count && r >= 0; ++i)
        r = sd_bus_message_append_basic(m, 's', item.c_str());
    return r < 0 ? r : sd_bus_message_close_container(m);
}

// A value for `property` as a variant: mostly of its own type, with random content that
// validation may refuse, sometimes of another type, sometimes wrapped in a variant again.
int append_property_value(sd_bus_message* m, Rng& rng, std::string const& property, Features const& features,
    std::string& note)
{
    if (chance(rng, 0.2))
        return append_random_variant(m, rng, note);
    bool const wrapped = chance(rng, 0.05);
    int r = 0;
    if (wrapped) {
        note += "<v>";
        if ((r = sd_bus_message_open_container(m, 'v', "v")) < 0)
            return r;
    }
    if (property == "On") {
        r = sd_bus_message_append(m, "v", "b", pick(rng, 2));
    } else if (property == "Level" || property == "MaxLevel") {
        auto const v = static_cast<std::uint32_t>(chance(rng, 0.9) ? pick(rng, 120) : rng());
        note += "=" + std::to_string(v);
        r = sd_bus_message_append(m, "v", "u", v);
    } else if (property == "Color") {
        r = sd_bus_message_append(m, "v", "(ddd)", random_double(rng), random_double(rng), random_double(rng));
    } else if (property == "Tags") {
        if (features.big && chance(rng, 0.03)) {
            std::size_t const count = 1000 + static_cast<std::size_t>(pick(rng, 50000));
            note += " " + std::to_string(count) + " tags";
            if ((r = sd_bus_message_open_container(m, 'v', "as")) >= 0)
                r = append_string_array(m, count, 16, 't');
            r = r < 0 ? r : sd_bus_message_close_container(m);
        } else if ((r = sd_bus_message_open_container(m, 'v', "as")) >= 0) {
            int const n = pick(rng, 5);
            r = sd_bus_message_open_container(m, 'a', "s");
            for (int i = 0; i < n && r >= 0; ++i)
                r = sd_bus_message_append_basic(m, 's', random_text(rng, 12).c_str());
            r = r < 0 ? r : sd_bus_message_close_container(m);
            r = r < 0 ? r : sd_bus_message_close_container(m);
        }
    } else if (property == "Settings") {
        if ((r = sd_bus_message_open_container(m, 'v', "a{ss}")) >= 0)
            r = sd_bus_message_open_container(m, 'a', "{ss}");
        int const n = features.big && chance(rng, 0.03) ? 20000 : pick(rng, 4);
        for (int i = 0; i < n && r >= 0; ++i)
            r = sd_bus_message_append(m, "{ss}", ("k" + std::to_string(i) + random_text(rng, 4)).c_str(),
                random_text(rng, 10).c_str());
        r = r < 0 ? r : sd_bus_message_close_container(m);
        r = r < 0 ? r : sd_bus_message_close_container(m);
    } else if (property == "BlinkCount") {
        r = sd_bus_message_append(m, "v", "t", random_number(rng));
    } else {
        std::string text = random_text(rng, 30);
        if (features.big && chance(rng, 0.02)) {
            text.assign(static_cast<std::size_t>(65536 + pick(rng, 4 << 20)), 'L');
            note += " " + std::to_string(text.size()) + " bytes";
        }
        r = sd_bus_message_append(m, "v", "s", text.c_str());
    }
    if (wrapped && r >= 0)
        r = sd_bus_message_close_container(m);
    return r;
}

int append_names(sd_bus_message* m, Rng& rng, Features const& features, std::string& note)
{
    int r = sd_bus_message_open_container(m, 'a', "s");
    int const n = features.empty && chance(rng, 0.1) ? 0 : 1 + pick(rng, 4);
    if (n == 0)
        note += " []";
    for (int i = 0; i < n && r >= 0; ++i) {
        std::string const name = random_property(rng);
        note += " " + name;
        r = sd_bus_message_append_basic(m, 's', name.c_str());
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

// Arguments of a random signature, whatever the member wants.
int append_random_arguments(sd_bus_message* m, Rng& rng, std::string& note)
{
    int r = 0;
    for (int i = 0, n = pick(rng, 4); i < n && r >= 0; ++i) {
        std::string const type = random_type(rng, 0);
        std::size_t p = 0;
        note += " " + type;
        r = append_value(m, rng, type, p, 0);
    }
    return r;
}

// A value nested up to the depth that D-Bus allows: variants in variants, arrays of arrays
// or structures in structures.
int append_deep(sd_bus_message* m, Rng& rng, std::string& note)
{
    // Beyond 32 levels dbus-daemon itself refuses the message and drops the client, so
    // the service would never see it.
    int const kind = pick(rng, 3);
    int const depth = 1 + pick(rng, kind == 0 ? 32 : 31);
    note += " depth " + std::to_string(depth) + (kind == 0 ? " variants" : kind == 1 ? " arrays" : " structs");
    int r = 0;
    if (kind == 0) {
        for (int i = 0; i < depth && r >= 0; ++i)
            r = sd_bus_message_open_container(m, 'v', i + 1 < depth ? "v" : "u");
        if (r >= 0)
            r = sd_bus_message_append_basic(m, 'u', &depth);
        for (int i = 0; i < depth && r >= 0; ++i)
            r = sd_bus_message_close_container(m);
        return r;
    }
    std::string type = "u";
    for (int i = 0; i < depth; ++i)
        type = kind == 1 ? "a" + type : "(" + type + ")";
    if ((r = sd_bus_message_open_container(m, 'v', type.c_str())) < 0)
        return r;
    std::size_t p = 0;
    r = append_value(m, rng, type, p, 0);
    return r < 0 ? r : sd_bus_message_close_container(m);
}

std::string describe(sd_bus_message* m, std::string const& note)
{
    char const* path = sd_bus_message_get_path(m);
    char const* interface = sd_bus_message_get_interface(m);
    char const* member = sd_bus_message_get_member(m);
    std::string text = std::string(member ? member : "?") + " " + (path ? path : "?") + " " +
        (interface ? interface : "?") + note;
    if (text.size() > 240)
        text = text.substr(0, 240) + "...";
    return text;
}

Call finish(MessagePtr message, int r, std::string const& note, bool guarded)
{
    Call call;
    if (r < 0 || !message)
        return call;
    call.description = describe(message.get(), note);
    call.message = std::move(message);
    call.guarded = guarded;
    return call;
}

} // namespace

std::string random_text(Rng& rng, std::size_t max_length)
{
    static std::vector<std::string> const pieces{"a", "b", "z", "0", "9", " ", "\"", "\\", "/", "\n", "\t",
        "\x01", "\x7f", "{", "}", "[", "]", ",", ":", "\xc3\xa9", "\xe2\x9c\x93", "\xf0\x9f\x92\xa1", "null",
        "lamp", "-"};
    std::string text;
    std::size_t const length = static_cast<std::size_t>(pick(rng, static_cast<int>(max_length) + 1));
    while (text.size() < length)
        text += one_of(rng, pieces);
    return text;
}

MessagePtr make_call(sd_bus* bus, std::string const& path, std::string const& interface, std::string const& member)
{
    sd_bus_message* raw = nullptr;
    // sd-bus checks names and paths here; the generator only makes valid ones, but an empty
    // interface is allowed on the wire.
    int const r = sd_bus_message_new_method_call(bus, &raw, "org.sample.Lamps", path.c_str(),
        interface.empty() ? nullptr : interface.c_str(), member.c_str());
    if (r < 0)
        return {};
    return MessagePtr(raw);
}

Call random_call(sd_bus* bus, Rng& rng, CallOptions const& options)
{
    Features const& f = options.features;
    std::string note;
    int r = 0;
    int const kind = pick(rng, 100);
    std::string const path = random_path(rng, options);

    if (kind < 14) { // a method of org.sample.Lamp with its own arguments
        static std::vector<std::string> const methods{"Toggle", "Blink", "Sleep", "Fail", "Nope"};
        std::string const member = one_of(rng, methods);
        auto m = make_call(bus, path, lamp, member);
        if (!m)
            return {};
        if (member == "Blink" || member == "Sleep") {
            auto const n = static_cast<std::uint32_t>(pick(rng, member == "Blink" ? 20 : 8));
            note = " " + std::to_string(n);
            r = sd_bus_message_append(m.get(), "u", n);
        }
        else if (member == "Fail") {
            static std::vector<std::string> const kinds{"invalid", "validation", "denied", "runtime", "other", ""};
            std::string const k = one_of(rng, kinds);
            note = " " + k;
            r = sd_bus_message_append(m.get(), "s", k.c_str());
        }
        if (f.badsig && chance(rng, 0.1))
            r = r < 0 ? r : append_random_arguments(m.get(), rng, note);
        return finish(std::move(m), r, note, true);
    }
    if (kind < 28) { // Properties.Get and GetAll
        std::string const interface = random_interface(rng);
        bool const all = chance(rng, 0.3);
        auto m = make_call(bus, path, properties, all ? "GetAll" : "Get");
        if (!m)
            return {};
        std::string const property = random_property(rng);
        note = " " + interface + (all ? "" : " " + property);
        r = all ? sd_bus_message_append(m.get(), "s", interface.c_str())
                : sd_bus_message_append(m.get(), "ss", interface.c_str(), property.c_str());
        // A GetAll of an interface without properties reads nothing that a policy guards.
        return finish(std::move(m), r, note, is_sample(interface) && !(all && interface == manager));
    }
    if (kind < 42) { // Properties.Set, sometimes with a wrong frame
        std::string const interface = chance(rng, 0.85) ? std::string(lamp) : random_interface(rng);
        std::string const property = random_property(rng);
        auto m = make_call(bus, path, properties, "Set");
        if (!m)
            return {};
        note = " " + interface + " " + property;
        if (f.badsig && chance(rng, 0.1)) {
            // Set is taken before sd-bus checks the signature: the frame itself may be wrong.
            switch (pick(rng, 4)) {
            case 0: r = sd_bus_message_append(m.get(), "s", interface.c_str()); break;
            case 1: r = sd_bus_message_append(m.get(), "ssu", interface.c_str(), property.c_str(), 3U); break;
            case 2: break;
            default:
                r = sd_bus_message_append(m.get(), "ss", interface.c_str(), property.c_str());
                r = r < 0 ? r : append_random_arguments(m.get(), rng, note);
            }
            note += " (bad frame)";
        } else {
            r = sd_bus_message_append(m.get(), "ss", interface.c_str(), property.c_str());
            r = r < 0 ? r : append_property_value(m.get(), rng, property, f, note);
        }
        return finish(std::move(m), r, note, is_sample(interface));
    }
    if (kind < 62) { // the writes of ExtendedProperties
        std::string const interface = chance(rng, 0.85) ? std::string(lamp) : random_interface(rng);
        static std::vector<std::string> const members{"Set", "SetMany", "SetMany", "Reset"};
        std::string const member = one_of(rng, members);
        auto m = make_call(bus, path, extended, member);
        if (!m)
            return {};
        note = " " + interface;
        bool empty = false;
        r = sd_bus_message_append_basic(m.get(), 's', interface.c_str());
        if (member == "Set") {
            std::string const property = random_property(rng);
            note += " " + property;
            r = r < 0 ? r : sd_bus_message_append_basic(m.get(), 's', property.c_str());
            r = r < 0 ? r : append_property_value(m.get(), rng, property, f, note);
        } else if (member == "SetMany") {
            r = r < 0 ? r : sd_bus_message_open_container(m.get(), 'a', "(sv)");
            int const n = f.empty && chance(rng, 0.08) ? 0 : 1 + pick(rng, 6);
            if (n == 0) {
                // Nothing named, nothing to authorise: an empty write may succeed anywhere.
                note += " []";
                empty = true;
            }
            for (int i = 0; i < n && r >= 0; ++i) {
                std::string const property = random_property(rng);
                note += " " + property;
                r = sd_bus_message_open_container(m.get(), 'r', "sv");
                r = r < 0 ? r : sd_bus_message_append_basic(m.get(), 's', property.c_str());
                if (r >= 0 && chance(rng, 0.05)) {
                    // An object path where the property wants something else.
                    note += "<o>";
                    r = sd_bus_message_append(m.get(), "v", "o", "/org/sample/lamps/lamp1");
                } else if (r >= 0) {
                    r = append_property_value(m.get(), rng, property, f, note);
                }
                r = r < 0 ? r : sd_bus_message_close_container(m.get());
            }
            r = r < 0 ? r : sd_bus_message_close_container(m.get());
        } else {
            r = r < 0 ? r : append_names(m.get(), rng, f, note);
            empty = note.ends_with(" []");
        }
        if (f.badsig && chance(rng, 0.05))
            r = r < 0 ? r : append_random_arguments(m.get(), rng, note);
        return finish(std::move(m), r, note, is_sample(interface) && !empty);
    }
    if (kind < 78) { // the reads of ExtendedProperties
        std::string const interface = chance(rng, 0.85) ? std::string(lamp) : random_interface(rng);
        static std::vector<std::string> const members{"GetMany", "IsDefaulted", "GetDefault", "GetRanges",
            "GetAllRanges"};
        std::string const member = one_of(rng, members);
        auto m = make_call(bus, path, extended, member);
        if (!m)
            return {};
        note = " " + interface;
        r = sd_bus_message_append_basic(m.get(), 's', interface.c_str());
        if (member != "GetAllRanges")
            r = r < 0 ? r : append_names(m.get(), rng, f, note);
        if (f.badsig && chance(rng, 0.05))
            r = r < 0 ? r : append_random_arguments(m.get(), rng, note);
        return finish(std::move(m), r, note, is_sample(interface));
    }
    if (kind < 88) { // unknown members, interfaces and random arguments
        std::string const interface = random_interface(rng);
        static std::vector<std::string> const members{"Toggle", "Get", "SetMany", "Nope", "AddLamp", "Ping",
            "GetManagedObjects", "Introspect", "X"};
        auto m = make_call(bus, path, interface, one_of(rng, members));
        if (!m)
            return {};
        if (f.badsig)
            r = append_random_arguments(m.get(), rng, note);
        return finish(std::move(m), r, note, false);
    }
    if (kind < 94) { // the standard interfaces
        switch (pick(rng, 3)) {
        case 0: return finish(make_call(bus, chance(rng, 0.7) ? root : path, "org.freedesktop.DBus.ObjectManager",
                                  "GetManagedObjects"), 0, "", false);
        case 1: return finish(make_call(bus, path, "org.freedesktop.DBus.Introspectable", "Introspect"), 0, "", false);
        default: return finish(make_call(bus, path, "org.freedesktop.DBus.Peer", "Ping"), 0, "", false);
        }
    }
    if (kind < 97) { // deep nesting in a write
        if (!f.deep)
            return random_call(bus, rng, options);
        bool const many = chance(rng, 0.5);
        auto m = make_call(bus, path, many ? extended : properties, many ? "SetMany" : "Set");
        if (!m)
            return {};
        std::string const property = random_property(rng);
        note = " " + property;
        if (many) {
            r = sd_bus_message_append(m.get(), "s", lamp);
            r = r < 0 ? r : sd_bus_message_open_container(m.get(), 'a', "(sv)");
            r = r < 0 ? r : sd_bus_message_open_container(m.get(), 'r', "sv");
            r = r < 0 ? r : sd_bus_message_append_basic(m.get(), 's', property.c_str());
            r = r < 0 ? r : append_deep(m.get(), rng, note);
            r = r < 0 ? r : sd_bus_message_close_container(m.get());
            r = r < 0 ? r : sd_bus_message_close_container(m.get());
        } else {
            r = sd_bus_message_append(m.get(), "ss", lamp, property.c_str());
            r = r < 0 ? r : append_deep(m.get(), rng, note);
        }
        return finish(std::move(m), r, note, true);
    }
    // the manager
    static std::vector<std::string> const pool{"c1", "c2", "c3", "c4"};
    return manager_call(bus, rng, pool);
}

Call manager_call(sd_bus* bus, Rng& rng, std::vector<std::string> const& pool)
{
    std::string note;
    int r = 0;
    std::string const name = pool.empty() ? std::string("c1") : one_of(rng, pool);
    std::string const lamp_path = std::string(root) + "/" + name;
    switch (pick(rng, 10)) {
    case 0:
    case 1: {
        static std::vector<std::string> const bad{"", "bad/name", "bad-name", "lamp1", "empty", "a.b", "9"};
        std::string const added = chance(rng, 0.85) ? name : one_of(rng, bad);
        auto m = make_call(bus, root, manager, "AddLamp");
        if (!m)
            return {};
        note = " \"" + added + "\"";
        r = sd_bus_message_append(m.get(), "s", added.c_str());
        return finish(std::move(m), r, note, true);
    }
    case 2:
    case 3: {
        static std::vector<std::string> const other{"/org/sample/lamps/nope", "/", "/org/sample/lamps",
            "/org/sample/lamps/empty"};
        std::string const removed = chance(rng, 0.85) ? lamp_path : one_of(rng, other);
        auto m = make_call(bus, root, manager, "RemoveLamp");
        if (!m)
            return {};
        note = " " + removed;
        r = sd_bus_message_append(m.get(), "o", removed.c_str());
        return finish(std::move(m), r, note, true);
    }
    case 4: return finish(make_call(bus, root, manager, "List"), 0, "", true);
    case 5: {
        auto m = make_call(bus, lamp_path, lamp, "Blink");
        if (!m)
            return {};
        auto const times = static_cast<std::uint32_t>(pick(rng, 4));
        note = " " + std::to_string(times);
        r = sd_bus_message_append(m.get(), "u", times);
        return finish(std::move(m), r, note, true);
    }
    case 6: {
        auto m = make_call(bus, lamp_path, extended, "SetMany");
        if (!m)
            return {};
        r = sd_bus_message_append(m.get(), "sa(sv)", lamp, 2, "Level", "u", static_cast<std::uint32_t>(pick(rng, 60)),
            "Label", "s", name.c_str());
        return finish(std::move(m), r, note, true);
    }
    case 7: {
        auto m = make_call(bus, lamp_path, properties, "GetAll");
        if (!m)
            return {};
        r = sd_bus_message_append(m.get(), "s", lamp);
        return finish(std::move(m), r, note, true);
    }
    default: return finish(make_call(bus, lamp_path, lamp, "Toggle"), 0, "", true);
    }
}

Call slow_call(sd_bus* bus, Rng& rng, CallOptions const& options)
{
    std::string const path = options.lamps.empty() ? std::string(root) + "/lamp2" : one_of(rng, options.lamps);
    switch (pick(rng, 4)) {
    case 0: {
        auto m = make_call(bus, path, lamp, "Sleep");
        if (!m)
            return {};
        int const r = sd_bus_message_append(m.get(), "u", static_cast<std::uint32_t>(5 + pick(rng, 15)));
        return finish(std::move(m), r, "", true);
    }
    case 1: {
        auto m = make_call(bus, path, lamp, "Blink");
        if (!m)
            return {};
        int const r = sd_bus_message_append(m.get(), "u", static_cast<std::uint32_t>(1 + pick(rng, 15)));
        return finish(std::move(m), r, "", true);
    }
    case 2: return finish(make_call(bus, root, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"), 0, "", false);
    default: return random_call(bus, rng, options);
    }
}

Call refused_call(sd_bus* bus, Rng& rng, unsigned number)
{
    std::string const path = chance(rng, 0.5) ? "/org/sample/lamps/lamp1" : "/org/sample/lamps/lamp2";
    std::string const marker = "nobody-" + std::to_string(number);
    std::string note;
    int r = 0;
    static std::vector<std::string> const readable{"On", "Level", "Label", "Serial", "Color", "Tags"};
    static std::vector<std::string> const writable{"On", "Level", "MaxLevel", "Label", "Color", "Tags", "Settings"};
    MessagePtr m;
    switch (pick(rng, 14)) {
    case 0:
        m = make_call(bus, path, properties, "Get");
        if (chance(rng, 0.8))
            r = m ? sd_bus_message_append(m.get(), "ss", lamp, one_of(rng, readable).c_str()) : -ENOMEM;
        else
            r = m ? sd_bus_message_append(m.get(), "ss", info, "Model") : -ENOMEM;
        break;
    case 1:
        m = make_call(bus, path, properties, "GetAll");
        r = m ? sd_bus_message_append(m.get(), "s", chance(rng, 0.7) ? lamp : info) : -ENOMEM;
        break;
    case 2: {
        std::string const property = one_of(rng, writable);
        note = " " + property;
        m = make_call(bus, path, properties, "Set");
        if (!m)
            break;
        r = sd_bus_message_append(m.get(), "ss", lamp, property.c_str());
        if (property == "Label")
            r = r < 0 ? r : sd_bus_message_append(m.get(), "v", "s", marker.c_str());
        else
            r = r < 0 ? r : append_property_value(m.get(), rng, property, Features{}, note);
        break;
    }
    case 3:
        m = make_call(bus, path, extended, "SetMany");
        r = m ? sd_bus_message_append(m.get(), "sa(sv)", lamp, 3, "Label", "s", marker.c_str(), "Tags", "as", 1,
                    marker.c_str(), "Settings", "a{ss}", 1, "nobody", marker.c_str()) : -ENOMEM;
        break;
    case 4:
        m = make_call(bus, path, extended, "Reset");
        r = m ? sd_bus_message_append(m.get(), "sas", lamp, 2, "Level", "On") : -ENOMEM;
        break;
    case 5:
    case 6: {
        static std::vector<std::string> const reads{"GetMany", "IsDefaulted", "GetDefault", "GetRanges"};
        m = make_call(bus, path, extended, one_of(rng, reads));
        r = m ? sd_bus_message_append(m.get(), "sas", lamp, 2, "Level", "Label") : -ENOMEM;
        break;
    }
    case 7:
        m = make_call(bus, path, extended, "GetAllRanges");
        r = m ? sd_bus_message_append(m.get(), "s", lamp) : -ENOMEM;
        break;
    case 8: m = make_call(bus, path, lamp, "Toggle"); break;
    case 9:
        m = make_call(bus, path, lamp, chance(rng, 0.5) ? "Blink" : "Sleep");
        r = m ? sd_bus_message_append(m.get(), "u", 1U) : -ENOMEM;
        break;
    case 10:
        m = make_call(bus, path, lamp, "Fail");
        r = m ? sd_bus_message_append(m.get(), "s", chance(rng, 0.5) ? "runtime" : "other") : -ENOMEM;
        break;
    case 11:
        m = make_call(bus, root, manager, "AddLamp");
        r = m ? sd_bus_message_append(m.get(), "s", ("nobody" + std::to_string(number)).c_str()) : -ENOMEM;
        break;
    case 12:
        m = make_call(bus, root, manager, "RemoveLamp");
        r = m ? sd_bus_message_append(m.get(), "o", "/org/sample/lamps/lamp2") : -ENOMEM;
        break;
    default: m = make_call(bus, root, manager, "List"); break;
    }
    return finish(std::move(m), r, note, true);
}

} // namespace tarvek::test::chaos
