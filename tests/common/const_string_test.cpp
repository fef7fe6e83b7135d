// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/const_string.hpp>
#include <tarvek/common/object_path.hpp>
#include <tarvek/common/str_join.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <unordered_map>

using tarvek::ConstString;

TEST(ConstString, EqualOverDifferentBuffersWithTheSameCharacters)
{
    char first[] = "org.sample.Lamp";
    char second[] = "org.sample.Lamp";
    ConstString const a(first, sizeof first - 1);
    ConstString const b(second, sizeof second - 1);
    ASSERT_NE(a.data(), b.data());
    EXPECT_EQ(a, b);
    EXPECT_EQ(std::hash<ConstString>()(a), std::hash<ConstString>()(b));
}

TEST(ConstString, HashesLikeAStdStringOfTheSameBytes)
{
    ConstString const name("com.omno.ExtendedProperties");
    EXPECT_EQ(name.size(), 27U);
    EXPECT_EQ(std::hash<ConstString>()(name), std::hash<std::string>()("com.omno.ExtendedProperties"));
}

TEST(ConstString, PrefixIsNotEqual)
{
    ConstString const whole("abc");
    ConstString const prefix("abc", 2);
    EXPECT_FALSE(whole == prefix);
    EXPECT_FALSE(ConstString("ab") == ConstString("abc"));
}

TEST(ConstString, NullAndEmptyCompareEqualWithoutDereferencing)
{
    ConstString const null_view;
    ConstString const empty("");
    EXPECT_EQ(null_view, empty);
    EXPECT_EQ(null_view, ConstString(nullptr, 0));
}

TEST(ConstString, FromCStringTakesStrlen)
{
    char const* text = "Level";
    auto const s = ConstString::from_c_str(text);
    EXPECT_EQ(s.size(), 5U);
    EXPECT_EQ(s, ConstString("Level"));
}

TEST(ConstString, KeysAnUnorderedMap)
{
    std::unordered_map<ConstString, int> map;
    map[ConstString("On")] = 1;
    std::string const key = "On";
    EXPECT_EQ(map.at(ConstString(key.c_str(), key.size())), 1);
}

TEST(ConstString, InsertionOfANullViewFailsTheStream)
{
    std::ostringstream out;
    out << ConstString();
    EXPECT_TRUE(out.bad());
}

TEST(StrJoin, JoinsWithoutSeparators)
{
    EXPECT_EQ(tarvek::str::join("a", 1, 'b'), "a1b");
}

TEST(StrJoin, TakesEveryKindOfArgumentInUse)
{
    std::string const s = "s";
    char const* p = "p";
    EXPECT_EQ(tarvek::str::join("fd: ", 42UL, " ", s, p, ConstString("c"), tarvek::ObjectPath("/o"), -3),
              "fd: 42 spc/o-3");
}

TEST(StrJoin, NullPointerStopsFurtherInsertionsWithoutThrowing)
{
    char const* null_text = nullptr;
    std::string result;
    EXPECT_NO_THROW(result = tarvek::str::join("before", null_text, "after"));
    EXPECT_EQ(result, "before");
}
