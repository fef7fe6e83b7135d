// SPDX-License-Identifier: LGPL-2.1-or-later
// The policy file format: what loads, what is refused and with which text, and how the
// rules decide.
#include "vrel2_fixture.hpp"

#include <optional>
#include <string>

namespace vrel2_test {
namespace {

class Vrel2Format : public Vrel2Test {
protected:
    // Loads `content`; the test fails unless it loads.
    void load(std::string_view content)
    {
        policy_.emplace(content);
        vrel2_error error{};
        ASSERT_TRUE(init(&error)) << error.text;
    }

    // Loads `content`, which must be refused, and returns the text of the refusal after
    // the file name it starts with.
    std::string load_error(std::string_view content)
    {
        policy_.emplace(content);
        vrel2_error error{};
        EXPECT_FALSE(init(&error));
        EXPECT_EQ(error.code, VREL2_POLICY_ERROR);
        std::string const text = error.text;
        if (text.compare(0, path().size(), path()) != 0) {
            ADD_FAILURE() << "text does not start with the file name: " << text;
            return text;
        }
        return text.substr(path().size());
    }

    std::string const& path() const { return policy_->path(); }

private:
    std::optional<TempPolicy> policy_;
};

TEST_F(Vrel2Format, CommentsAndBlankLinesAreIgnored)
{
    load("# who may do what\n"
         "\n"
         "   \t \n"
         "    # indented comment\n"
         "allow alice org.sample.lamp.read\n");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_FALSE(allows("bob", "org.sample.lamp.read"));
}

TEST_F(Vrel2Format, HashAfterARuleStartsAComment)
{
    load("allow alice org.sample.lamp.read # everyone's favourite\n");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
}

TEST_F(Vrel2Format, TabsAndRunsOfBlanksSeparateFields)
{
    load("  allow\t\talice   org.sample.lamp.read  \n");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
}

TEST_F(Vrel2Format, CrlfLineEndsAreAccepted)
{
    load("deny bob org.sample.lamp.read\r\nallow * org.sample.lamp.read\r\n");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_FALSE(allows("bob", "org.sample.lamp.read"));
}

TEST_F(Vrel2Format, LastLineNeedsNoNewline)
{
    load("allow alice org.sample.lamp.read");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
}

TEST_F(Vrel2Format, EmptyFileRefusesEverything)
{
    load("");
    vrel2_error error{};
    EXPECT_FALSE(vrel2_check_username("root", "org.sample.lamp.read", &error));
    EXPECT_EQ(error.code, VREL2_NOT_PERMITTED);
}

TEST_F(Vrel2Format, UnknownVerbIsReportedWithFileAndLine)
{
    EXPECT_EQ(load_error("# rules\n\npermit alice org.sample.lamp.read\n"), ":3: unknown verb 'permit'");
}

TEST_F(Vrel2Format, VerbsAreCaseSensitive)
{
    EXPECT_EQ(load_error("Allow alice org.sample.lamp.read\n"), ":1: unknown verb 'Allow'");
}

TEST_F(Vrel2Format, TooFewFieldsAreReported)
{
    EXPECT_EQ(load_error("allow alice org.a\nallow alice\n"),
              ":2: expected 3 fields (allow|deny USER PATTERN), found 2");
}

TEST_F(Vrel2Format, TooManyFieldsAreReported)
{
    EXPECT_EQ(load_error("allow alice org.a org.b\n"),
              ":1: expected 3 fields (allow|deny USER PATTERN), found 4");
}

TEST_F(Vrel2Format, LoneAtSignIsAnEmptyGroupName)
{
    EXPECT_EQ(load_error("allow @ org.sample.lamp.read\n"), ":1: empty group name after '@'");
}

TEST_F(Vrel2Format, StarInsideAUserNameIsRefused)
{
    EXPECT_EQ(load_error("allow al* org.sample.lamp.read\n"),
              ":1: '*' in 'al*': only a lone '*' stands for any user");
}

TEST_F(Vrel2Format, StarInsideAGroupNameIsRefused)
{
    EXPECT_EQ(load_error("allow @wheel* org.sample.lamp.read\n"),
              ":1: '*' in '@wheel*': only a lone '*' stands for any user");
}

TEST_F(Vrel2Format, ControlCharacterIsRefused)
{
    using namespace std::string_literals;
    EXPECT_EQ(load_error("allow alice org.sample\0.read\n"s), ":1: control character 0x00");
}

TEST_F(Vrel2Format, FirstBadLineIsTheOneReported)
{
    EXPECT_EQ(load_error("allow a b\nallow a b\nnope a b\nallow a\n"), ":3: unknown verb 'nope'");
}

TEST_F(Vrel2Format, FirstMatchingRuleDecides)
{
    load("deny bob org.sample.lamp.write.*\n"
         "allow * org.sample.lamp.*\n"
         "deny * org.sample.lamp.read\n");
    EXPECT_FALSE(allows("bob", "org.sample.lamp.write.level"));
    EXPECT_TRUE(allows("bob", "org.sample.lamp.read"));
    EXPECT_TRUE(allows("alice", "org.sample.lamp.write.level"));
}

TEST_F(Vrel2Format, RefusalNamesTheDecidingRule)
{
    load("allow alice org.a\ndeny bob org.*\n");
    vrel2_error error{};
    EXPECT_FALSE(vrel2_check_username("bob", "org.b", &error));
    EXPECT_EQ(error.code, VREL2_NOT_PERMITTED);
    EXPECT_EQ(std::string(error.text), "'bob' may not do 'org.b': denied by " + path() + ":2");
}

TEST_F(Vrel2Format, NoMatchingRuleRefusesAndSaysSo)
{
    load("allow alice org.a\n");
    vrel2_error error{};
    EXPECT_FALSE(vrel2_check_username("alice", "org.b", &error));
    EXPECT_EQ(error.code, VREL2_NOT_PERMITTED);
    EXPECT_EQ(std::string(error.text), "'alice' may not do 'org.b': no rule in " + path() + " allows it");
}

TEST_F(Vrel2Format, StarUserMatchesAnyone)
{
    load("allow * org.sample.lamp.read\n");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_TRUE(allows("no-such-user-vrel2", "org.sample.lamp.read"));
}

TEST_F(Vrel2Format, NamedUserMatchesOnlyThatName)
{
    load("allow alice org.sample.lamp.read\n");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_FALSE(allows("alic", "org.sample.lamp.read"));
    EXPECT_FALSE(allows("alice2", "org.sample.lamp.read"));
    EXPECT_FALSE(allows("Alice", "org.sample.lamp.read"));
}

// Patterns: each test allows alice one pattern and asks about several actions.
class Vrel2Pattern : public Vrel2Format {
protected:
    void allow(std::string const& pattern) { load("allow alice " + pattern + "\n"); }
};

TEST_F(Vrel2Pattern, WithoutStarMatchesOnlyTheExactAction)
{
    allow("org.sample.lamp.read");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_FALSE(allows("alice", "org.sample.lamp.rea"));
    EXPECT_FALSE(allows("alice", "org.sample.lamp.reads"));
    EXPECT_FALSE(allows("alice", "xorg.sample.lamp.read"));
}

TEST_F(Vrel2Pattern, TrailingStarMatchesAPrefix)
{
    allow("org.sample.lamp.*");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_TRUE(allows("alice", "org.sample.lamp.write.level"));
    EXPECT_TRUE(allows("alice", "org.sample.lamp."));
    EXPECT_FALSE(allows("alice", "org.sample.lamp"));
    EXPECT_FALSE(allows("alice", "org.sample.fan.read"));
}

TEST_F(Vrel2Pattern, LeadingStarMatchesASuffix)
{
    allow("*.read");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_TRUE(allows("alice", ".read"));
    EXPECT_FALSE(allows("alice", "org.sample.lamp.read.level"));
}

TEST_F(Vrel2Pattern, MiddleStarMatchesAnyRunIncludingDots)
{
    allow("org.*.toggle");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.call.toggle"));
    EXPECT_TRUE(allows("alice", "org.x.toggle"));
    EXPECT_TRUE(allows("alice", "org..toggle"));
    EXPECT_FALSE(allows("alice", "org.toggle"));
    EXPECT_FALSE(allows("alice", "org.sample.lamp.call.toggle2"));
}

TEST_F(Vrel2Pattern, SeveralStarsMatchInOrder)
{
    allow("org.*.write.*.level*");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.write.a.level"));
    EXPECT_TRUE(allows("alice", "org.sample.write.a.b.levels"));
    EXPECT_FALSE(allows("alice", "org.sample.lamp.level.write.a"));
    EXPECT_FALSE(allows("alice", "org.sample.lamp.write.level"));
}

TEST_F(Vrel2Pattern, LoneStarMatchesEveryAction)
{
    allow("*");
    EXPECT_TRUE(allows("alice", "org.sample.lamp.read"));
    EXPECT_TRUE(allows("alice", "x"));
}

TEST_F(Vrel2Pattern, OnlyTheStarIsSpecial)
{
    allow("org.sample.?[a]");
    EXPECT_TRUE(allows("alice", "org.sample.?[a]"));
    EXPECT_FALSE(allows("alice", "org.sample.xa"));
}

TEST_F(Vrel2Pattern, MatchingIsCaseSensitive)
{
    allow("org.sample.lamp.read");
    EXPECT_FALSE(allows("alice", "org.sample.lamp.READ"));
}

TEST_F(Vrel2Pattern, BacktrackingFindsALaterMatch)
{
    allow("*aab");
    EXPECT_TRUE(allows("alice", "aaaaab"));
    EXPECT_FALSE(allows("alice", "aaaaaba"));
}

} // namespace
} // namespace vrel2_test
