// SPDX-License-Identifier: LGPL-2.1-or-later
#include "provider/storage/rapidjson_config.hpp"

#include <tarvek/provider/storage/rj_value.hpp>

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>
#include <rapidjson/document.h>

#include <cstring>
#include <type_traits>

namespace tarvek::provider::storage::detail {

// The declarations of rapidjson_fwd.hpp must name RapidJSON's own default types.
static_assert(std::is_same_v<GenericValue, rapidjson::Value>);
static_assert(std::is_same_v<GenericDocument, rapidjson::Document>);
static_assert(std::is_same_v<MemoryPoolAllocator, rapidjson::Document::AllocatorType>);

RJ_Value::RJ_Value(GenericValue& value, MemoryPoolAllocator& allocator) : value_(&value), allocator_(&allocator)
{}

RJ_Value::RJ_Value(GenericDocument& document) : value_(&document), allocator_(&document.GetAllocator()) {}

RJ_Value::RJ_Value(std::shared_ptr<GenericDocument> document)
    : doc_(std::move(document)), value_(doc_.get()), allocator_(&doc_->GetAllocator())
{}

RJ_Value RJ_Value::make_doc()
{
    return RJ_Value(std::make_shared<GenericDocument>());
}

RJ_Value RJ_Value::from_doc(GenericDocument&& document)
{
    return RJ_Value(std::make_shared<GenericDocument>(std::move(document)));
}

GenericMember* RJ_Value::find_member(std::string const& name) const
{
    // Checked here rather than left to RapidJSON, which would report it at every step of
    // the walk and then walk whatever the value's storage holds.
    if (!value_->IsObject()) {
        rapidjson_assertion_failed("IsObject()");
        return nullptr;
    }
    for (auto& member : value_->GetObject()) {
        if (member.name.GetStringLength() == name.size()
            && std::memcmp(member.name.GetString(), name.data(), name.size()) == 0)
            return &member;
    }
    return nullptr;
}

std::optional<RJ_Value> RJ_Value::try_get_member(std::string const& name) const
{
    if (GenericMember* const found = find_member(name))
        return RJ_Value(found->value, *allocator_);
    return std::nullopt;
}

RJ_Value RJ_Value::member(std::string const& name) const
{
    if (auto found = try_get_member(name))
        return *found;
    boost::throw_exception(invalid_argument(str::join("No such member: ", name)));
}

void RJ_Value::rename_member(std::string const& from, std::string const& to)
{
    GenericMember* const member = find_member(from);
    if (member == nullptr)
        boost::throw_exception(invalid_argument(str::join("No such member: ", from)));
    if (find_member(to) != nullptr)
        boost::throw_exception(invalid_argument(str::join("Member already exists: ", to)));
    member->name.SetString(to.data(), static_cast<rapidjson::SizeType>(to.size()), *allocator_);
}

} // namespace tarvek::provider::storage::detail
