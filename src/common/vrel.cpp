// SPDX-License-Identifier: LGPL-2.1-or-later
#include "common/vrel.hpp"

#include <tarvek/common/exceptions.hpp>
#include <tarvek/common/str_join.hpp>

#include <boost/throw_exception.hpp>
#include <vrel2.h>

#include <cctype>

namespace tarvek::common {

namespace {

// vrel2's code for a plain refusal; every other code means that it couldn't answer.
constexpr int not_permitted = 2;

} // namespace

Vrel::Vrel()
{
    init();
}

Vrel::Vrel(Vrel&&)
{
    init();
}

Vrel::~Vrel()
{
    vrel2_release();
}

void Vrel::init()
{
    vrel2_error record{};
    if (!vrel2_init(&record))
        boost::throw_exception(tarvek::internal_error(str::join("Could not init vrel library: ", record.text)));
}

bool Vrel::check(std::string const& user, std::string const& action) const
{
    vrel2_error record{};
    std::string lowered = action;
    for (char& c : lowered)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    // The record is read only after a refusal: a true answer counts whatever it holds.
    if (vrel2_check_username(user.c_str(), lowered.c_str(), &record))
        return true;
    if (record.code == not_permitted)
        return false;
    boost::throw_exception(tarvek::authorization_failure(str::join("Auth check failure: ", record.text)));
}

} // namespace tarvek::common
