// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/empty_range_collection.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

namespace tarvek::provider::range {

EmptyRangeCollection EmptyRangeCollection::instance;

glue::IPropertyRange& EmptyRangeCollection::operator[](unsigned long /*index*/)
{
    boost::throw_exception(invalid_argument("Index out of range"));
}

glue::IPropertyRange const& EmptyRangeCollection::operator[](unsigned long /*index*/) const
{
    boost::throw_exception(invalid_argument("Index out of range"));
}

} // namespace tarvek::provider::range
