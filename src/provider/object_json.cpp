// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::Object's JSON form, through a storage document.
#include <tarvek/provider/object.hpp>

#include <tarvek/provider/storage/documents.hpp>

#include <istream>
#include <ostream>

namespace tarvek {

void Object::write_json(std::ostream& out) const
{
    out << provider::storage::Object(*this);
}

void Object::read_json(std::istream& in)
{
    provider::storage::Object document;
    in >> document;
    document.apply(*this);
}

std::ostream& operator<<(std::ostream& out, Object const& object)
{
    object.write_json(out);
    return out;
}

std::istream& operator>>(std::istream& in, Object& object)
{
    object.read_json(in);
    return in;
}

} // namespace tarvek
