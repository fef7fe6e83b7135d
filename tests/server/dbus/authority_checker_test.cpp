// SPDX-License-Identifier: LGPL-2.1-or-later
#include "common/vrel.hpp"
#include "interposers.hpp"
#include "policy_file.hpp"
#include "server/dbus/authority_checker.hpp"

#include <tarvek/common/exceptions.hpp>

#include "support/private_bus.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

using tarvek::server::dbus::AuthorityChecker;
using tarvek::test::MessagePtr;

namespace {

class AuthorityCheckerTest : public ::testing::Test {
protected:
    tarvek::test::Faults scope;
    tarvek::test::PolicyFile policy{"allow root com.omno.test.read\n"
                                    "allow root org.sample.lamp.call.toggle\n"};
    tarvek::common::Vrel vrel;
    AuthorityChecker checker{vrel};
    tarvek::test::PrivateBus daemon;
    tarvek::test::BusPtr bus{daemon.connect()};

    MessagePtr call_from_self()
    {
        return tarvek::test::send_to_self(bus.get(), tarvek::test::new_call_to_self(bus.get()).get());
    }

    static std::string sender_of(sd_bus_message* message) { return sd_bus_message_get_sender(message); }
};

// A child process that drops to `uid`, connects to the bus and calls `destination`. It
// stays connected until the object ends, so that the daemon still knows its creds.
class ForeignSender {
public:
    ForeignSender(tarvek::test::PrivateBus const& daemon, std::string const& destination, uid_t uid)
    {
        if (::pipe(hold) != 0)
            throw std::runtime_error("pipe failed");
        child = ::fork();
        if (child == 0) {
            ::close(hold[1]);
            int status = 1;
            try {
                if (::setgid(uid) == 0 && ::setuid(uid) == 0) {
                    sd_bus* const own = daemon.connect();
                    if (sd_bus_call_method_async(own, nullptr, destination.c_str(), "/test", "com.omno.Test",
                                                 "Probe", nullptr, nullptr, "") >= 0 &&
                        sd_bus_flush(own) >= 0)
                        status = 0;
                }
            } catch (...) {
            }
            char released = 0;
            while (::read(hold[0], &released, 1) < 0 && errno == EINTR) {
            }
            ::_exit(status);
        }
        ::close(hold[0]);
    }
    pid_t pid() const { return child; }
    ForeignSender(ForeignSender const&) = delete;
    ForeignSender& operator=(ForeignSender const&) = delete;
    ~ForeignSender()
    {
        ::close(hold[1]);
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child could not send";
    }

private:
    int hold[2] = {-1, -1};
    pid_t child = -1;
};

} // namespace

TEST_F(AuthorityCheckerTest, AUserFromABusMessageHasItsSenderAndUserName)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    EXPECT_EQ(user.sender, tarvek::test::unique_name(bus.get()));
    EXPECT_EQ(user.username, "root");
    EXPECT_TRUE(user.valid);
}

TEST_F(AuthorityCheckerTest, AUserFromABusMessageHasItsUidAndPidFromTheSameQuery)
{
    MessagePtr call = call_from_self();
    int const queries = tarvek::test::calls.query_sender_creds;
    AuthorityChecker::User const user(call.get());
    EXPECT_EQ(tarvek::test::calls.query_sender_creds, queries + 1);
    EXPECT_EQ(user.uid, ::geteuid());
    EXPECT_EQ(user.pid, ::getpid());
}

TEST_F(AuthorityCheckerTest, TheCallerOfAUserCarriesAllItKnows)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    tarvek::Caller const caller = user.caller();
    EXPECT_EQ(caller.sender, tarvek::test::unique_name(bus.get()));
    EXPECT_EQ(caller.uid, ::geteuid());
    EXPECT_EQ(caller.pid, ::getpid());
    EXPECT_EQ(caller.user, "root");
}

TEST_F(AuthorityCheckerTest, ASenderOfAnotherUserHasThatUsersUidAndItsOwnPid)
{
    passwd const* const nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ForeignSender const sender(daemon, tarvek::test::unique_name(bus.get()), nobody->pw_uid);
    MessagePtr call = tarvek::test::receive_method_call(bus.get());
    tarvek::Caller const caller = AuthorityChecker::User(call.get()).caller();
    EXPECT_EQ(caller.uid, nobody->pw_uid);
    EXPECT_EQ(caller.pid, sender.pid());
    EXPECT_EQ(caller.user, "nobody");
    EXPECT_EQ(caller.sender, sender_of(call.get()));
}

TEST_F(AuthorityCheckerTest, AllowsWhatThePolicyAllowsWithAnEmptyError)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    AuthorityChecker::Result const result = checker.check_property_read(user, "com.omno.Test");
    EXPECT_TRUE(result.allowed);
    EXPECT_EQ(result.error.name, nullptr);
    EXPECT_EQ(tarvek::test::calls.last_action, "com.omno.test.read");
}

TEST_F(AuthorityCheckerTest, RefusesWithAccessDeniedAndTheFilledInText)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    AuthorityChecker::Result const result = checker.check_property_write(user, "com.omno.Test", "Level");
    EXPECT_FALSE(result.allowed);
    EXPECT_STREQ(result.error.name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(std::string(result.error.message),
              "Sender " + sender_of(call.get()) + " / root not permitted to do action com.omno.Test.write.Level");
    EXPECT_EQ(result.error.result, -EACCES);
}

TEST_F(AuthorityCheckerTest, AsksThePolicyInLowerCaseButShowsTheCapitalsInTheText)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    EXPECT_TRUE(checker.check_method_call(user, "Org.Sample.Lamp", "Toggle").allowed);
    EXPECT_EQ(tarvek::test::calls.last_action, "org.sample.lamp.call.toggle");
    AuthorityChecker::Result const refused = checker.check_method_call(user, "Org.Sample.Lamp", "Dim");
    EXPECT_NE(std::string(refused.error.message).find("action Org.Sample.Lamp.call.Dim"), std::string::npos)
        << refused.error.message;
}

TEST_F(AuthorityCheckerTest, AMessageWithoutASenderIsRefusedWithoutAskingThePolicy)
{
    // Built and sealed here, never sent: like a message of a direct connection it has no
    // sender, and its creds are those of the peer, the daemon running as root.
    MessagePtr call = tarvek::test::new_call_to_self(bus.get());
    tarvek::test::seal_for_reading(call.get());
    AuthorityChecker::User const user(call.get());
    EXPECT_EQ(user.username, "root");
    EXPECT_FALSE(user.valid);
    int const checks = tarvek::test::calls.vrel2_check;
    AuthorityChecker::Result const result = checker.check_property_read(user, "com.omno.Test");
    EXPECT_FALSE(result.allowed);
    EXPECT_STREQ(result.error.name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_STREQ(result.error.message, "Failed to lookup sender/username");
    EXPECT_EQ(tarvek::test::calls.vrel2_check, checks);
}

TEST_F(AuthorityCheckerTest, ASenderOfAnotherUserIsKnownByThatUsersName)
{
    passwd const* const nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ForeignSender const sender(daemon, tarvek::test::unique_name(bus.get()), nobody->pw_uid);
    MessagePtr call = tarvek::test::receive_method_call(bus.get());
    AuthorityChecker::User const user(call.get());
    EXPECT_EQ(user.username, "nobody");
    EXPECT_TRUE(user.valid);
    AuthorityChecker::Result const result = checker.check_property_read(user, "com.omno.Test");
    EXPECT_FALSE(result.allowed);
    EXPECT_EQ(std::string(result.error.message),
              "Sender " + sender_of(call.get()) + " / nobody not permitted to do action com.omno.Test.read");
}

TEST_F(AuthorityCheckerTest, ASenderWhoseUidHasNoUserEntryIsRefusedWithoutAskingThePolicy)
{
    // dbus-daemon itself refuses users without an entry, so the sender is nobody, and the
    // entry is hidden from the library.
    passwd const* const nobody = ::getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    uid_t const uid = nobody->pw_uid;
    ForeignSender const sender(daemon, tarvek::test::unique_name(bus.get()), uid);
    MessagePtr call = tarvek::test::receive_method_call(bus.get());
    tarvek::test::faults.hidden_uid = uid;
    AuthorityChecker::User const user(call.get());
    EXPECT_FALSE(user.sender.empty());
    EXPECT_TRUE(user.username.empty());
    EXPECT_FALSE(user.valid);
    int const checks = tarvek::test::calls.vrel2_check;
    AuthorityChecker::Result const result = checker.check_method_call(user, "com.omno.Test", "Toggle");
    EXPECT_STREQ(result.error.name, "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_STREQ(result.error.message, "Failed to lookup sender/username");
    EXPECT_EQ(tarvek::test::calls.vrel2_check, checks);
}

TEST_F(AuthorityCheckerTest, APolicyThatCannotBeConsultedAnswersAuthFailed)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    policy.write("allow root\n");
    AuthorityChecker::Result const result = checker.check_property_read(user, "com.omno.Test");
    EXPECT_FALSE(result.allowed);
    EXPECT_STREQ(result.error.name, "org.freedesktop.DBus.Error.AuthFailed");
    EXPECT_EQ(std::string(result.error.message).rfind("Auth check failure: ", 0), 0u) << result.error.message;
}

TEST_F(AuthorityCheckerTest, AnyCodeOtherThanNotPermittedAnswersAuthFailedWithTheRecordText)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    tarvek::test::faults.check = tarvek::test::ForcedCheck{false, 4, "group database failed"};
    AuthorityChecker::Result const result = checker.check_property_read(user, "com.omno.Test");
    EXPECT_STREQ(result.error.name, "org.freedesktop.DBus.Error.AuthFailed");
    EXPECT_STREQ(result.error.message, "Auth check failure: group database failed");
}

TEST_F(AuthorityCheckerTest, ATrueAnswerWithAFilledRecordCountsAsAllowed)
{
    MessagePtr call = call_from_self();
    AuthorityChecker::User const user(call.get());
    tarvek::test::faults.check = tarvek::test::ForcedCheck{true, 3, "stale"};
    AuthorityChecker::Result const result = checker.check_property_write(user, "com.omno.Test", "Level");
    EXPECT_TRUE(result.allowed);
    EXPECT_EQ(result.error.name, nullptr);
}

TEST(AuthorityCheckerUser, RaisesCouldNotGetSenderCredsWithoutAMessage)
{
    try {
        AuthorityChecker::User const user(nullptr);
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), EINVAL);
        EXPECT_EQ(std::string(e.what()).rfind("Could not get sender creds", 0), 0u);
    }
}

TEST(AuthorityCheckerUser, CountsAPositiveCredsResultAsAFailure)
{
    tarvek::test::Faults scope;
    tarvek::test::faults.creds_result = 1;
    try {
        AuthorityChecker::User const user(nullptr);
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), -1);
        EXPECT_EQ(std::string(e.what()).rfind("Could not get sender creds", 0), 0u);
    }
}

TEST(AuthorityCheckerUser, RaisesCouldNotReadEuidForCredsWithoutIt)
{
    tarvek::test::Faults scope;
    tarvek::test::faults.creds_result = 0;
    try {
        AuthorityChecker::User const user(nullptr);
        ADD_FAILURE() << "no exception";
    } catch (tarvek::system_error const& e) {
        EXPECT_EQ(e.code().value(), ENODATA);
        EXPECT_EQ(std::string(e.what()).rfind("Could not read euid from creds", 0), 0u);
    }
}
