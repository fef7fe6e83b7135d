// SPDX-License-Identifier: LGPL-2.1-or-later
// ChangedPropertiesView: a subset of a property collection, handed out without allocating on
// the way: the room for every property is taken once, by the constructor. Not synchronised;
// each owner guards its own view.
#pragma once

#include <tarvek/provider/interface_implementation.hpp>

#include <memory>

namespace tarvek::provider {

class ChangedPropertiesView : public IChangedProperties {
public:
    // `collection` must outlive the view; its size is taken now, once.
    explicit ChangedPropertiesView(glue::ICollection<glue::IProperty>& collection)
        : collection_(collection)
        , entries_(std::make_unique<glue::IProperty*[]>(collection.size()))
    {
    }

    // Forgets the entries and keeps the room.
    void reset() noexcept { count_ = 0; }
    // Appends the property at `index` of the collection. Unchecked: each index at most once.
    void add(unsigned long index) { entries_[count_++] = &collection_[index]; }

    unsigned long size() const override { return count_; }
    // Unchecked.
    glue::IProperty& operator[](unsigned long index) override { return *entries_[index]; }
    glue::IProperty const& operator[](unsigned long index) const override { return *entries_[index]; }

private:
    glue::ICollection<glue::IProperty>& collection_;
    std::unique_ptr<glue::IProperty*[]> entries_;
    unsigned long count_ = 0;
};

} // namespace tarvek::provider
