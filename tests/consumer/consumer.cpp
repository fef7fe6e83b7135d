// SPDX-License-Identifier: LGPL-2.1-or-later
// A small application of the installed library: an interface with a property and a
// method, a write committed on the object's executor, and the value read back.
#include <tarvek/tarvek.hpp>

#include <cstdlib>
#include <iostream>

namespace {

class Counter : public tarvek::provider::Interface {
public:
    Counter() : Interface("org.sample.Counter") {}
    Property<std::uint32_t> count{*this, "Count", 0};
    Method bump{*this, "Bump", &Counter::do_bump};

private:
    std::uint32_t do_bump(std::uint32_t by)
    {
        count.set(count.get() + by);
        return count.get();
    }
};

} // namespace

int main()
{
    tarvek::Object object;
    auto& counter = tarvek::provider::add_interface<Counter>(object);
    counter.count.set(41U);
    tarvek::Executor(object.executor()).post([&counter] { counter.count.set(counter.count.get() + 1); });
    object.execute();
    if (counter.count.get() != 42U || tarvek::ObjectPath("/a").as_filename(".json") != "a.json") {
        std::cerr << "consumer: unexpected value " << counter.count.get() << "\n";
        return EXIT_FAILURE;
    }
    std::cout << "consumer: ok\n";
    return EXIT_SUCCESS;
}
