// SPDX-License-Identifier: LGPL-2.1-or-later
// EmptyRangeCollection: the ranges of a property that declares none. One global, stateless
// instance serves every such property, on any thread.
#pragma once

#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/members.hpp>

namespace tarvek::provider::range {

class EmptyRangeCollection : public glue::ICollection<glue::IPropertyRange> {
public:
    static EmptyRangeCollection instance;

    unsigned long size() const override { return 0; }
    // Both raise tarvek::invalid_argument "Index out of range" for any index.
    glue::IPropertyRange& operator[](unsigned long index) override;
    glue::IPropertyRange const& operator[](unsigned long index) const override;
};

} // namespace tarvek::provider::range
