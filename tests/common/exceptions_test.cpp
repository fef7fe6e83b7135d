// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/hard_assert.hpp>

#include <boost/exception/exception.hpp>
#include <boost/thread/future.hpp>
#include <boost/throw_exception.hpp>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace {

template <class Caught, class Raised>
bool is_caught_as(Raised const& raised)
{
    try {
        boost::throw_exception(raised);
    } catch (Caught&) {
        return true;
    } catch (...) {
        return false;
    }
    return false;
}

} // namespace

TEST(Exceptions, PropertyReadonlyIsAnInvalidArgument)
{
    EXPECT_TRUE(is_caught_as<tarvek::invalid_argument>(tarvek::property_readonly("x is readonly")));
    EXPECT_TRUE(is_caught_as<std::invalid_argument>(tarvek::property_readonly("x is readonly")));
}

TEST(Exceptions, OutOfRangeCatchesTheThreeUnknownClasses)
{
    EXPECT_TRUE(is_caught_as<tarvek::out_of_range>(tarvek::unknown_interface("i")));
    EXPECT_TRUE(is_caught_as<tarvek::out_of_range>(tarvek::unknown_method("m")));
    EXPECT_TRUE(is_caught_as<tarvek::out_of_range>(tarvek::unknown_property("p")));
    EXPECT_FALSE(is_caught_as<tarvek::out_of_range>(tarvek::invalid_argument("a")));
}

TEST(Exceptions, RuntimeErrorCatchesInternalAndSystemErrorsButNotInvalidArgument)
{
    EXPECT_TRUE(is_caught_as<std::runtime_error>(tarvek::internal_error("x")));
    EXPECT_TRUE(is_caught_as<std::runtime_error>(tarvek::system_error(EBADF, "y")));
    EXPECT_FALSE(is_caught_as<std::runtime_error>(tarvek::invalid_argument("z")));
}

TEST(Exceptions, WholeFamilyIsCaughtByTheMarker)
{
    EXPECT_TRUE(is_caught_as<tarvek::exception>(tarvek::validation_failed("v")));
    EXPECT_TRUE(is_caught_as<tarvek::exception>(tarvek::range_error("r")));
    EXPECT_TRUE(is_caught_as<tarvek::exception>(tarvek::length_error("l")));
    EXPECT_TRUE(is_caught_as<tarvek::exception>(tarvek::access_denied("d")));
    EXPECT_TRUE(is_caught_as<tarvek::exception>(tarvek::system_error(EIO)));
    EXPECT_FALSE(is_caught_as<tarvek::exception>(std::runtime_error("plain")));
}

TEST(Exceptions, StandardBasesMatchTheirWrappedClass)
{
    EXPECT_TRUE(is_caught_as<std::range_error>(tarvek::range_error("r")));
    EXPECT_TRUE(is_caught_as<std::length_error>(tarvek::length_error("l")));
    EXPECT_TRUE(is_caught_as<std::system_error>(tarvek::system_error(EIO)));
}

TEST(Exceptions, ThrownObjectCarriesNoSourceLocation)
{
    try {
        boost::throw_exception(tarvek::internal_error("x"));
    } catch (boost::exception const& e) {
        EXPECT_EQ(boost::get_error_info<boost::throw_line>(e), nullptr);
        EXPECT_EQ(boost::get_error_info<boost::throw_file>(e), nullptr);
        return;
    }
    FAIL() << "not a boost::exception";
}

TEST(Exceptions, SystemErrorWithTextAppendsTheSystemText)
{
    tarvek::system_error const with_text(EBADF, "could not append");
    EXPECT_EQ(std::string(with_text.what()), std::string("could not append: ") + std::strerror(EBADF));
    tarvek::system_error const with_string(ENOENT, std::string("x"));
    EXPECT_EQ(std::string(with_string.what()), std::string("x: ") + std::strerror(ENOENT));
    tarvek::system_error const alone(EBADF);
    EXPECT_EQ(std::string(alone.what()), std::strerror(EBADF));
    EXPECT_EQ(alone.code(), std::error_code(EBADF, std::system_category()));
}

TEST(Exceptions, ConcreteClassSurvivesAPromiseAcrossThreads)
{
    boost::promise<int> promise;
    auto future = promise.get_future();
    std::thread producer([&promise] {
        try {
            boost::throw_exception(tarvek::unknown_method("Interface: a has no method named b"));
        } catch (...) {
            promise.set_exception(boost::current_exception());
        }
    });
    producer.join();
    try {
        future.get();
        FAIL() << "no exception";
    } catch (tarvek::unknown_method const& e) {
        EXPECT_STREQ(e.what(), "Interface: a has no method named b");
    }
}

TEST(Exceptions, ConcreteClassSurvivesAnExceptionPtr)
{
    boost::exception_ptr captured;
    try {
        boost::throw_exception(tarvek::validation_failed("Level: Property validation failure"));
    } catch (...) {
        captured = boost::current_exception();
    }
    EXPECT_THROW(boost::rethrow_exception(captured), tarvek::validation_failed);
}

TEST(HardAssertDeathTest, PrintsFileLinePrefixAndExpressionThenAborts)
{
    EXPECT_DEATH(tarvek::common::tarvek_hard_assert(false, "x", "c", "f", 7), "^f:7: Assertion failed: c: x\n$");
}

TEST(HardAssertDeathTest, LeavesOutNullFileAndPrefix)
{
    EXPECT_DEATH(tarvek::common::tarvek_hard_assert(false, "not state_", nullptr, nullptr, -1),
                 "^Assertion failed: not state_\n$");
}

TEST(HardAssert, ReturnsWhenTheConditionHolds)
{
    tarvek::common::tarvek_hard_assert(true, "x", "c", "f", 7);
    SUCCEED();
}

TEST(Exceptions, CaptureKeepsTheClassOfAPlainThrow)
{
    boost::exception_ptr captured;
    try {
        throw tarvek::property_readonly("Property On is readonly"); // NOLINT: a plain throw on purpose
    } catch (...) {
        captured = tarvek::capture_current_exception();
    }
    try {
        boost::rethrow_exception(captured);
        FAIL() << "no exception";
    } catch (tarvek::property_readonly const& e) {
        EXPECT_STREQ(e.what(), "Property On is readonly");
    }
}

TEST(Exceptions, CaptureKeepsOtherExceptionsAsBoostDoes)
{
    boost::exception_ptr captured;
    try {
        throw std::runtime_error("plain"); // NOLINT
    } catch (...) {
        captured = tarvek::capture_current_exception();
    }
    try {
        boost::rethrow_exception(captured);
        FAIL() << "no exception";
    } catch (std::runtime_error const& e) {
        EXPECT_STREQ(e.what(), "plain");
    }
}
