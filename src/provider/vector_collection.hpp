// SPDX-License-Identifier: LGPL-2.1-or-later
// VectorCollection: a std::vector seen as a glue::ICollection of a base class of its
// elements. Not synchronised; its owner decides who touches it.
#pragma once

#include <tarvek/glue/collection.hpp>

#include <vector>

namespace tarvek::provider::util {

template <class Element, class Interface> class VectorCollection : public glue::ICollection<Interface> {
public:
    unsigned long size() const override { return elements.size(); }
    // Checked: an index out of range raises std::out_of_range.
    Interface& operator[](unsigned long index) override { return elements.at(index); }
    Interface const& operator[](unsigned long index) const override { return elements.at(index); }

    std::vector<Element> elements;
};

} // namespace tarvek::provider::util
