// SPDX-License-Identifier: LGPL-2.1-or-later
// The two container abstractions of the provider/server contract. An ICollection is a
// random-access set whose indices are stable for its lifetime (a property's index is its
// place in its collection). An IIterator is a forward cursor over a sequence the caller
// of an operation supplies; its consumer's loop is fixed: ask at_end(); if false, call
// value() once, use the element completely, call advance(); repeat. Elements returned by
// value() are valid only until advance().
#pragma once

namespace tarvek::glue {

template <class T>
class ICollection {
public:
    virtual ~ICollection() = default;
    virtual unsigned long size() const = 0;
    // Out-of-range behaviour is the implementation's.
    virtual T& operator[](unsigned long index) = 0;
    virtual T const& operator[](unsigned long index) const = 0;
};

template <class T>
class IIterator {
public:
    virtual ~IIterator() = default;
    virtual void advance() = 0;
    virtual bool at_end() const = 0;
    virtual T value() = 0;
};

} // namespace tarvek::glue
