// SPDX-License-Identifier: LGPL-2.1-or-later
// RJ_Value: the handle through which Storage reaches one JSON value, a pointer into a
// RapidJSON document together with that document's allocator.
//
// Ownership: only a value made by make_doc(), from_doc() or the shared-pointer constructor
// keeps its document alive, and copies of it share that document. A value reached through
// member() or try_get_member() is a view that owns nothing: it is valid while some holder
// of the document exists and the member is not removed. A change through one handle is
// seen through all that point at the same value.
//
// No locking: a document and every handle into it belong to one thread at a time. A
// lookup on a value that is not a JSON object writes "RAPIDJSON_ASSERT(IsObject())" to
// std::cerr and finds nothing.
#pragma once

#include <tarvek/provider/storage/rapidjson_fwd.hpp>

#include <memory>
#include <optional>
#include <string>

namespace tarvek::provider::storage::detail {

class RJ_Value {
public:
    // Marks the constructors of Storage's views that only Storage itself should call.
    struct tag {};

    // A view of `value`, which lives in the document that owns `allocator`.
    RJ_Value(GenericValue& value, MemoryPoolAllocator& allocator);
    // A view of the root of `document`; the caller keeps the document alive.
    explicit RJ_Value(GenericDocument& document);
    // Shares `document`; the value is its root.
    explicit RJ_Value(std::shared_ptr<GenericDocument> document);

    // A new document of its own whose root is JSON null.
    static RJ_Value make_doc();
    // Takes over the content of `document` (typically just parsed) into a new shared one.
    static RJ_Value from_doc(GenericDocument&& document);

    // The first member named `name`, byte for byte, as a view; nothing if there is none.
    std::optional<RJ_Value> try_get_member(std::string const& name) const;
    // As try_get_member; raises tarvek::invalid_argument "No such member: <name>".
    RJ_Value member(std::string const& name) const;
    // Renames the member in place, keeping its value and its position. Raises
    // tarvek::invalid_argument "No such member: <from>" or "Member already exists: <to>"
    // (also when `from` equals `to`).
    void rename_member(std::string const& from, std::string const& to);

    // A handle is like a pointer: it gives mutable access to what it points at.
    GenericValue& value() const noexcept { return *value_; }
    MemoryPoolAllocator& allocator() const noexcept { return *allocator_; }
    // Null in a view.
    std::shared_ptr<GenericDocument> const& doc() const noexcept { return doc_; }

private:
    GenericMember* find_member(std::string const& name) const;

    std::shared_ptr<GenericDocument> doc_;
    GenericValue* value_;
    MemoryPoolAllocator* allocator_;
};

} // namespace tarvek::provider::storage::detail
