// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/object_path.hpp>

#include <gtest/gtest.h>

#include <map>

using tarvek::ObjectPath;

TEST(ObjectPath, RootIsValid)
{
    EXPECT_TRUE(ObjectPath::is_valid("/"));
}

TEST(ObjectPath, RejectsMalformedTexts)
{
    for (char const* text : {"", "a", "//", "/a/", "/a//b", "/a-b", "/a.b", "/\xc3\xa9", "/a b", "/a[", "/a`"})
        EXPECT_FALSE(ObjectPath::is_valid(text)) << text;
}

TEST(ObjectPath, AcceptsEveryAllowedCharacter)
{
    EXPECT_TRUE(ObjectPath::is_valid("/azAZ09_/x_1"));
}

TEST(ObjectPath, LimitIsThreeHundredBytes)
{
    std::string const exactly = "/" + std::string(299, 'a');
    ASSERT_EQ(exactly.size(), 300U);
    EXPECT_TRUE(ObjectPath::is_valid(exactly));
    EXPECT_FALSE(ObjectPath::is_valid(exactly + "a"));
}

TEST(ObjectPath, ConstructorRejectsAnInvalidText)
{
    try {
        ObjectPath const bad("/a/");
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "String is not a valid ObjectPath");
    }
}

TEST(ObjectPath, EmptyTextEqualsTheDefault)
{
    ObjectPath const from_empty{std::string()};
    EXPECT_EQ(from_empty, ObjectPath());
    EXPECT_TRUE(from_empty.empty());
}

TEST(ObjectPath, EmptyElementLeavesThePathAsItIs)
{
    EXPECT_EQ(ObjectPath("/a") / "", ObjectPath("/a"));
    EXPECT_EQ(ObjectPath() / "", ObjectPath());
}

TEST(ObjectPath, ElementMayHoldSlashes)
{
    EXPECT_EQ(ObjectPath("/a") / "b/c", ObjectPath("/a/b/c"));
    EXPECT_THROW(ObjectPath("/a") / "b/", tarvek::invalid_argument);
}

TEST(ObjectPath, RootHasNoSpecialCase)
{
    EXPECT_THROW(ObjectPath("/") / "a", tarvek::invalid_argument);
    EXPECT_EQ(ObjectPath() / "a", ObjectPath("/a"));
    EXPECT_THROW(ObjectPath() / "/a", tarvek::invalid_argument);
}

TEST(ObjectPath, AppendFormsBehaveAlike)
{
    ObjectPath const base("/a");
    EXPECT_EQ(base / std::string("b"), base / std::string_view("b"));
    EXPECT_EQ(base / "b", base / std::string_view("b"));
}

TEST(ObjectPath, OrdersByBytesWithTheShorterFirst)
{
    std::map<ObjectPath, int> const ordered{{ObjectPath("/a0"), 3}, {ObjectPath("/a/b"), 2}, {ObjectPath("/a"), 1}};
    std::vector<int> seen;
    for (auto const& [path, n] : ordered)
        seen.push_back(n);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
}

TEST(ObjectPath, FileNameReplacesSlashesWithColons)
{
    EXPECT_EQ(ObjectPath("/com/example_1/dev").as_filename(".json"), "com:example_1:dev.json");
    EXPECT_EQ(ObjectPath("/a/b").as_filename(""), "a:b");
    EXPECT_EQ(ObjectPath("/").as_filename(".json"), ".json");
}

TEST(ObjectPath, FileNameOfTheEmptyPathRaises)
{
    try {
        (void)ObjectPath().as_filename(".json");
        FAIL() << "no exception";
    } catch (tarvek::invalid_argument const& e) {
        EXPECT_STREQ(e.what(), "ObjectPath is empty");
    }
}

TEST(ObjectPath, StreamsItsCharacters)
{
    std::ostringstream out;
    out << ObjectPath("/x/y");
    EXPECT_EQ(out.str(), "/x/y");
}
