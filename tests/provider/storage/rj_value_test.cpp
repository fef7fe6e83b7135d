// SPDX-License-Identifier: LGPL-2.1-or-later
#include "document_text.hpp"

#include <tarvek/common/exceptions.hpp>

#include <gtest/gtest.h>

using storage_test::parse;
using storage_test::text_of;
using tarvek::provider::storage::GenericDocument;
using tarvek::provider::storage::detail::RJ_Value;

namespace {

template <class Operation>
std::string invalid_argument_of(Operation operation)
{
    try {
        operation();
    } catch (tarvek::invalid_argument const& e) {
        return e.what();
    }
    return "no error";
}

} // namespace

TEST(RJ_Value, MakesADocumentWithANullRoot)
{
    RJ_Value const value = RJ_Value::make_doc();
    EXPECT_TRUE(value.value().IsNull());
    EXPECT_NE(value.doc(), nullptr);
}

TEST(RJ_Value, ReportsALookupOnANullRootAndFindsNothing)
{
    RJ_Value const value = RJ_Value::make_doc();
    testing::internal::CaptureStderr();
    auto const found = value.try_get_member("a");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
    EXPECT_FALSE(found.has_value());
}

TEST(RJ_Value, RaisesNoSuchMemberAfterReportingANullRoot)
{
    RJ_Value const value = RJ_Value::make_doc();
    testing::internal::CaptureStderr();
    EXPECT_EQ(invalid_argument_of([&] { value.member("a"); }), "No such member: a");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "RAPIDJSON_ASSERT(IsObject())\n");
}

TEST(RJ_Value, RaisesNoSuchMemberForAnUnknownName)
{
    RJ_Value const value = parse(R"({"a":1})");
    EXPECT_EQ(invalid_argument_of([&] { value.member("b"); }), "No such member: b");
}

TEST(RJ_Value, FindsTheFirstOfTwoMembersWithTheSameName)
{
    RJ_Value const value = parse(R"({"a":1, "a":2})");
    EXPECT_EQ(value.member("a").value().GetInt(), 1);
}

TEST(RJ_Value, ComparesNamesByteForByte)
{
    RJ_Value const value = parse(R"({"ab":1, "a":2})");
    EXPECT_EQ(value.member("a").value().GetInt(), 2);
    EXPECT_FALSE(value.try_get_member("A").has_value());
}

TEST(RJ_Value, MakesAViewThatOwnsNothingAndSharesTheAllocator)
{
    RJ_Value const value = parse(R"({"a":1})");
    RJ_Value const view = value.member("a");
    EXPECT_EQ(view.doc(), nullptr);
    EXPECT_EQ(&view.allocator(), &value.allocator());
}

TEST(RJ_Value, ShowsAChangeThroughTheHolderInAView)
{
    RJ_Value const holder = parse(R"({"a":{"b":1}})");
    RJ_Value const view = holder.member("a");
    holder.member("a").member("b").value().SetInt(5);
    EXPECT_EQ(view.member("b").value().GetInt(), 5);
}

TEST(RJ_Value, ShowsAChangeThroughAViewInTheHolder)
{
    RJ_Value const holder = parse(R"({"a":1})");
    holder.member("a").value().SetString("x");
    EXPECT_EQ(text_of(holder.value()), R"({"a":"x"})");
}

TEST(RJ_Value, SharesTheDocumentBetweenCopies)
{
    RJ_Value const first = parse(R"({"a":1})");
    RJ_Value const second = first; // NOLINT(performance-unnecessary-copy-initialization)
    second.member("a").value().SetInt(2);
    EXPECT_EQ(first.doc(), second.doc());
    EXPECT_EQ(first.member("a").value().GetInt(), 2);
}

TEST(RJ_Value, ViewsADocumentKeptAliveByTheCaller)
{
    GenericDocument document;
    document.Parse(R"({"a":3})");
    RJ_Value const view(document);
    EXPECT_EQ(view.doc(), nullptr);
    EXPECT_EQ(&view.value(), &document);
    EXPECT_EQ(view.member("a").value().GetInt(), 3);
}

TEST(RJ_Value, TakesOverAParsedDocument)
{
    GenericDocument document;
    document.Parse(R"({"a":[1,2]})");
    RJ_Value const value = RJ_Value::from_doc(std::move(document));
    EXPECT_EQ(value.doc().use_count(), 1);
    EXPECT_EQ(text_of(value.value()), R"({"a":[1,2]})");
}

TEST(RJ_Value, RenamesAMemberInItsPlace)
{
    RJ_Value value = parse(R"({"a":1, "b":2, "c":3})");
    value.rename_member("b", "x");
    EXPECT_EQ(text_of(value.value()), R"({"a":1,"x":2,"c":3})");
}

TEST(RJ_Value, RefusesToRenameAnUnknownMember)
{
    RJ_Value value = parse(R"({"a":1})");
    EXPECT_EQ(invalid_argument_of([&] { value.rename_member("b", "c"); }), "No such member: b");
}

TEST(RJ_Value, RefusesToRenameOntoAMemberInUse)
{
    RJ_Value value = parse(R"({"a":1, "b":2})");
    EXPECT_EQ(invalid_argument_of([&] { value.rename_member("a", "b"); }), "Member already exists: b");
    EXPECT_EQ(text_of(value.value()), R"({"a":1,"b":2})");
}

TEST(RJ_Value, RefusesToRenameAMemberToItsOwnName)
{
    RJ_Value value = parse(R"({"a":1})");
    EXPECT_EQ(invalid_argument_of([&] { value.rename_member("a", "a"); }), "Member already exists: a");
}

TEST(RJ_Value, AcceptsAnEmptyMemberName)
{
    RJ_Value value = parse(R"({"":1})");
    EXPECT_EQ(value.member("").value().GetInt(), 1);
    value.rename_member("", "e");
    value.rename_member("e", "");
    EXPECT_EQ(text_of(value.value()), R"({"":1})");
}
