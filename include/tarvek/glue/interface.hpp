// SPDX-License-Identifier: LGPL-2.1-or-later
// IInterface and IObject: one object, and each of its interfaces, as one protocol server
// sees it. The server owns the IObject it is handed; the interfaces live inside it. The
// request operations (get_many, get_changed, set_many, call_method) may be called from any
// thread, and from several at once.
//
// Failures of set_many and call_method arrive two ways: thrown out of the call (bad input
// read on the caller's thread, a read-only property, a closed executor) and stored in the
// future (a removed object, a refused validation, what application code raises). A server
// handles both.
#pragma once

#include <tarvek/glue/collection.hpp>
#include <tarvek/glue/members.hpp>

#include <boost/thread/future.hpp>

#include <functional>
#include <memory>
#include <utility>

namespace tarvek::glue {

class IInterface {
public:
    virtual ~IInterface() = default;

    virtual ConstString interface_name() const = 0;
    virtual ICollection<IProperty>& properties() = 0;
    virtual ICollection<IProperty> const& properties() const = 0;
    virtual ICollection<IMethod>& methods() = 0;
    virtual ICollection<IMethod> const& methods() const = 0;
    virtual ICollection<ISignal>& signals() = 0;
    virtual ICollection<ISignal> const& signals() const = 0;

    // Atomic write of any number of properties: `values` gives each property with its
    // source positioned at the new value, `resets` the properties to set to their default.
    // Both iterators are read completely before the call returns; the commit happens on
    // the object's executor.
    virtual boost::future<void> set_many(IIterator<std::pair<IProperty&, IDeserializer&>>& values,
                                         IIterator<IProperty&>& resets)
        = 0;
    // Consistent read of any number of properties, synchronously.
    virtual void get_many(IIterator<std::pair<IProperty const&, ISerializer&>>& reads) = 0;
    // Calls `receiver` once, synchronously, with the properties changed since the last
    // get_changed, in rising index order; the collection is valid only during the call.
    // After each on_properties_changed a server must call this at some later time.
    virtual void get_changed(std::function<void(ICollection<IProperty>&)> receiver) = 0;
    // Reads all arguments on the calling thread; the method runs on the object's executor.
    virtual boost::future<std::unique_ptr<IMethodReturnValue>> call_method(IMethod& method,
                                                                           IIterator<IDeserializer&>& arguments)
        = 0;
};

class IObject {
public:
    virtual ~IObject() = default;
    // In the order in which they were added.
    virtual ICollection<IInterface>& interfaces() = 0;
    virtual ICollection<IInterface> const& interfaces() const = 0;
};

} // namespace tarvek::glue
