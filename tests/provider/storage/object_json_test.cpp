// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Object's own JSON form: write_json, read_json and the stream operators.
#include "live_objects.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/provider/object.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

using storage_test::LiveObject;
using storage_test::same_values;

namespace {

constexpr char level_text[] = R"({
    "interfaces": {
        "org.sample.Lamp": {
            "properties": {
                "Level": 3
            }
        }
    },
    "path": "/lamp1"
})";

} // namespace

TEST(ObjectJson, WritesOnlyWhatDiffersFromTheDefaults)
{
    LiveObject live("/lamp1");
    live.lamp.level.set(3);
    std::ostringstream out;
    live.object.write_json(out);
    EXPECT_EQ(out.str(), level_text);
}

TEST(ObjectJson, StreamOperatorWritesAndReturnsTheStream)
{
    LiveObject live("/lamp1");
    live.lamp.level.set(3);
    std::ostringstream out;
    out << live.object << '!';
    EXPECT_EQ(out.str(), std::string(level_text) + '!');
}

TEST(ObjectJson, ReadsAndAppliesADocument)
{
    LiveObject live("/lamp1");
    std::istringstream in(level_text);
    live.object.read_json(in);
    EXPECT_EQ(live.lamp.level.get(), 3);
}

TEST(ObjectJson, StreamOperatorReadsAndReturnsTheStream)
{
    LiveObject live("/lamp1");
    std::istringstream in(level_text);
    EXPECT_EQ(&(in >> live.object), &in);
    EXPECT_EQ(live.lamp.level.get(), 3);
}

TEST(ObjectJson, RestoresAnotherObjectAtTheSamePath)
{
    LiveObject source("/sample");
    LiveObject target("/sample");
    source.everything.set_all();
    source.lamp.label.set("hall");
    std::stringstream text;
    text << source.object;
    text >> target.object;
    EXPECT_TRUE(same_values(source.everything, target.everything));
    EXPECT_TRUE(same_values(source.lamp, target.lamp));
}

TEST(ObjectJson, ReadingADocumentOfAnotherPathRaisesAndChangesNothing)
{
    LiveObject live("/lamp2");
    std::istringstream in(level_text);
    try {
        in >> live.object;
        FAIL() << "no error";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Path differs: /lamp2 != /lamp1");
    }
    EXPECT_EQ(live.lamp.level.get(), 0);
}

TEST(ObjectJson, MalformedInputToARegisteredObjectRaisesPathDiffers)
{
    LiveObject live("/lamp1");
    std::istringstream in("{");
    testing::internal::CaptureStderr();
    try {
        in >> live.object;
        FAIL() << "no error";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "Path differs: /lamp1 != ");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
}
