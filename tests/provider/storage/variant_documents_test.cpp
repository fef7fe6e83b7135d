// SPDX-License-Identifier: LGPL-2.1-or-later
// Variants in stored documents: a live object's variants are captured with their
// signatures, written and read as JSON, and applied to another object unchanged; a stored
// variant without its signature is refused. Descriptors have no stored form.
#include "support/codecs.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/interface.hpp>
#include <tarvek/provider/object.hpp>
#include <tarvek/provider/registry.hpp>
#include <tarvek/provider/storage/documents.hpp>
#include <tarvek/provider/variant.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace storage = tarvek::provider::storage;
using tarvek::Variant;

namespace {

using Meta = std::map<std::string, Variant>;

class Media : public tarvek::provider::Interface {
public:
    Media()
        : Interface("org.sample.Media")
    {
    }

    Property<Variant> current{*this, "Current", Variant(0)};
    Property<Meta> metadata{*this, "Metadata", Meta{}};
    Property<std::vector<Variant>> history{*this, "History", {}};

    void set_all()
    {
        update([&](Values& v) {
            v.set(current, Variant::of(Variant(std::vector<std::int32_t>{1, -2})));
            v.set(metadata,
                Meta{{"title", "Song"}, {"length", std::int64_t{240}}, {"rating", 0.1 + 0.2},
                    {"artists", std::vector<std::string>{"One", ""}}, {"empty", Meta{}},
                    {"byte", std::uint8_t{255}}, {"path", tarvek::ObjectPath("/a/b")}, {"flag", true}});
            v.set(history,
                std::vector<Variant>{Variant(std::uint64_t{18446744073709551615ULL}), Variant(Meta{})});
        });
    }
};

struct LiveObject {
    explicit LiveObject(std::string const& path) { registry.add_object(object, tarvek::ObjectPath(path)); }

    tarvek::API_Registry registry;
    tarvek::Object object;
    Media& media = tarvek::provider::add_interface<Media>(object);
};

std::string state_file(LiveObject& source)
{
    std::stringstream file;
    storage::Object(source.object).write_json(file, false);
    return file.str();
}

void apply_text(std::string const& text, LiveObject& target)
{
    std::istringstream file(text);
    storage::Object read;
    read.read_json(file);
    read.apply(target.object);
}

} // namespace

TEST(StoredVariant, KeepsItsSignatureBesideItsValue)
{
    LiveObject source{"/sample"};
    source.media.current.set(Variant(std::vector<std::int32_t>{1, 2}));

    std::string const text = state_file(source);

    EXPECT_NE(text.find(R"("signature": "ai")"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("value": [)"), std::string::npos) << text;
}

TEST(StoredVariant, ComesBackUnchangedThroughAStateFile)
{
    LiveObject source{"/sample"};
    LiveObject target{"/sample"};
    source.media.set_all();

    std::string const text = state_file(source);
    apply_text(text, target);

    EXPECT_EQ(target.media.current.get(), source.media.current.get()) << text;
    EXPECT_EQ(target.media.metadata.get(), source.media.metadata.get()) << text;
    EXPECT_EQ(target.media.history.get(), source.media.history.get()) << text;
}

TEST(StoredVariant, WithoutItsSignatureIsRefused)
{
    LiveObject target{"/sample"};

    EXPECT_THROW(
        apply_text(
            R"({"interfaces": {"org.sample.Media": {"properties": {"Current": 5}}}, "path": "/sample"})",
            target),
        tarvek::deserialize_error);
    EXPECT_THROW(
        apply_text(
            R"({"interfaces": {"org.sample.Media": {"properties": {"Current": {"value": 5}}}}, "path": "/sample"})",
            target),
        tarvek::deserialize_error);
    EXPECT_EQ(target.media.current.get(), Variant(0));
}

TEST(StoredVariant, WithABadSignatureIsRefused)
{
    LiveObject target{"/sample"};

    EXPECT_THROW(
        apply_text(
            R"({"interfaces": {"org.sample.Media": {"properties": {"Current": {"signature": "h", "value": 1}}}}, "path": "/sample"})",
            target),
        tarvek::invalid_argument);
    EXPECT_THROW(
        apply_text(
            R"({"interfaces": {"org.sample.Media": {"properties": {"Current": {"signature": "ii", "value": 1}}}}, "path": "/sample"})",
            target),
        tarvek::invalid_argument);
}

TEST(StoredVariant, MayListItsMembersInEitherOrder)
{
    LiveObject target{"/sample"};

    apply_text(
        R"({"interfaces": {"org.sample.Media": {"properties": {"Current": {"value": "x", "signature": "s"}}}}, "path": "/sample"})",
        target);

    EXPECT_EQ(target.media.current.get(), Variant("x"));
}

TEST(DocumentSerializer, RefusesAFileDescriptor)
{
    tarvek::test::DocumentCodec::Encoded encoded;
    auto sink = tarvek::test::DocumentCodec::writer(encoded);

    EXPECT_THROW(sink->write_fd(0), tarvek::serialize_error);
}

TEST(DocumentDeserializer, RefusesAFileDescriptor)
{
    tarvek::test::DocumentCodec::Encoded encoded;
    auto source = tarvek::test::DocumentCodec::reader(encoded);

    EXPECT_THROW(source->read_fd(), tarvek::deserialize_error);
}
