// SPDX-License-Identifier: LGPL-2.1-or-later
// SDBusDeserializer: the source of values that reads an sd-bus message. It is a plain
// pointer to the message and takes no reference: the read position and the container
// levels are the message's own, the message must outlive it, and two deserializers on
// one message share one position. Levels entered through it are not unwound by anybody
// if the reader stops half way; whoever owns the message deals with that.
//
// Types are read strictly by the D-Bus type mapping of SDBusSerializer: an `i` on the
// wire is no `x` to read_int64. A failing sd-bus call raises tarvek::system_error with the
// negated result and no text of its own (ENXIO for a value or container of another type).
// The separators mean nothing on the bus; lists and dictionaries are the same `a`
// container, entered without comparing signatures, and their element counts are unknown.
//
// Used by one thread at a time, together with its message.
#pragma once

#include <tarvek/glue/serializer.hpp>

struct sd_bus_message;

namespace tarvek::serialization {

class SDBusDeserializer final : public glue::IDeserializer {
public:
    explicit SDBusDeserializer(sd_bus_message* message) noexcept : message(message) {}

    bool read_bool() override;
    unsigned char read_byte() override;
    short read_int16() override;
    unsigned short read_uint16() override;
    int read_int32() override;
    unsigned int read_uint32() override;
    long read_int64() override;
    unsigned long read_uint64() override;
    double read_double() override;
    // The end of the enclosing container isn't told apart from a value here; the reading
    // protocol asks list_try_exit before every element.
    std::string read_string() override;
    // Raises tarvek::invalid_argument for a non-empty text that is no valid path.
    ObjectPath read_path() override;

    void tuple_enter() override;
    void tuple_read_separator() override;
    void tuple_exit() override;

    // Always -1.
    int list_enter() override;
    void list_read_separator() override;
    bool list_try_exit() override;

    // Always -1.
    int dict_enter() override;
    // `first` makes no difference on the bus.
    bool dict_entry_try_enter(bool first) override;
    void dict_entry_read_kv_separator() override;
    void dict_entry_exit() override;
    void dict_exit() override;

    // Accepts any contained type.
    void variant_enter() override;
    void variant_exit() override;
    // Peeks the contained signature, then enters as variant_enter does. Anything but a
    // variant at the position raises tarvek::system_error ENXIO.
    std::string typed_variant_enter() override;
    void typed_variant_exit() override;
    // The message keeps its own descriptor, so the caller gets a duplicate (close-on-exec).
    // An index past the message's descriptors raises tarvek::invalid_argument "File
    // descriptor index out of range"; other failures tarvek::system_error.
    common::FileDescriptor read_fd() override;

private:
    template <class T>
    T read(char type);
    void enter(char type);
    void exit();
    bool something_follows();

    sd_bus_message* message;
};

} // namespace tarvek::serialization
