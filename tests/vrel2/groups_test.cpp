// SPDX-License-Identifier: LGPL-2.1-or-later
// `@group` rules, against the accounts of the machine running the tests.
#include "vrel2_fixture.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace vrel2_test {
namespace {

struct Me {
    std::string user;
    gid_t primary = 0;
};

Me me()
{
    passwd const* const pw = ::getpwuid(::geteuid());
    if (!pw)
        return {};
    return {pw->pw_name, pw->pw_gid};
}

std::string group_name(gid_t gid)
{
    group const* const gr = ::getgrgid(gid);
    return gr ? gr->gr_name : "";
}

class Vrel2Groups : public Vrel2Test {
protected:
    void SetUp() override
    {
        self_ = me();
        if (self_.user.empty())
            GTEST_SKIP() << "the effective user has no passwd entry";
    }

    void load(std::string const& content)
    {
        policy_.emplace(content);
        vrel2_error error{};
        ASSERT_TRUE(init(&error)) << error.text;
    }

    Me self_;
    std::optional<TempPolicy> policy_;
};

TEST_F(Vrel2Groups, PrimaryGroupMembersMatch)
{
    std::string const group = group_name(self_.primary);
    if (group.empty())
        GTEST_SKIP() << "the primary group " << self_.primary << " has no name";
    load("allow @" + group + " org.sample.lamp.read\n");
    EXPECT_TRUE(allows(self_.user.c_str(), "org.sample.lamp.read"));
    EXPECT_FALSE(allows(self_.user.c_str(), "org.sample.lamp.write"));
}

TEST_F(Vrel2Groups, SupplementaryGroupMembersMatch)
{
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    ASSERT_GE(::getgrouplist(self_.user.c_str(), self_.primary, groups.data(), &count), 0);
    groups.resize(static_cast<std::size_t>(count));
    auto const other = std::find_if(groups.begin(), groups.end(),
                                    [&](gid_t gid) { return gid != self_.primary && !group_name(gid).empty(); });
    if (other == groups.end())
        GTEST_SKIP() << "user " << self_.user << " has no named supplementary group";
    load("allow @" + group_name(*other) + " org.sample.lamp.read\n");
    EXPECT_TRUE(allows(self_.user.c_str(), "org.sample.lamp.read"));
}

TEST_F(Vrel2Groups, UnknownGroupHasNoMembers)
{
    load("allow @no-such-group-vrel2 org.sample.lamp.read\n"
         "deny @no-such-group-vrel2 org.sample.lamp.write\n"
         "allow * org.sample.lamp.write\n");
    EXPECT_FALSE(allows(self_.user.c_str(), "org.sample.lamp.read"));
    // A rule that cannot match does not hide the rules after it.
    EXPECT_TRUE(allows(self_.user.c_str(), "org.sample.lamp.write"));
}

TEST_F(Vrel2Groups, UnknownUserIsInNoGroup)
{
    std::string const group = group_name(self_.primary);
    if (group.empty())
        GTEST_SKIP() << "the primary group " << self_.primary << " has no name";
    load("allow @" + group + " org.sample.lamp.read\n");
    EXPECT_FALSE(allows("no-such-user-vrel2", "org.sample.lamp.read"));
}

TEST_F(Vrel2Groups, GroupRuleOnlyAppliesToMatchingActions)
{
    std::string const group = group_name(self_.primary);
    if (group.empty())
        GTEST_SKIP() << "the primary group " << self_.primary << " has no name";
    load("deny @" + group + " org.sample.lamp.write.*\n"
         "allow * org.sample.lamp.*\n");
    EXPECT_FALSE(allows(self_.user.c_str(), "org.sample.lamp.write.level"));
    EXPECT_TRUE(allows(self_.user.c_str(), "org.sample.lamp.read"));
}

} // namespace
} // namespace vrel2_test
