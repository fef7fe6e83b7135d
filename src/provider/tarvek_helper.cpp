// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/provider/tarvek_helper.hpp>

#include <tarvek/common/exceptions.hpp>

#include <boost/throw_exception.hpp>

#include <mutex>

namespace tarvek {

namespace {

struct HelperSlot {
    std::weak_ptr<TarvekHelper> helper;
    std::mutex mutex;
};

HelperSlot& slot()
{
    static HelperSlot instance;
    return instance;
}

} // namespace

void TarvekHelper::set_global_instance(std::shared_ptr<TarvekHelper> helper)
{
    auto& global = slot();
    std::lock_guard lock(global.mutex);
    if (global.helper.use_count() != 0)
        boost::throw_exception(invalid_state_error("There is already a global helper instance set"));
    global.helper = helper;
}

TarvekHelper TarvekHelper::global_helper()
{
    auto& global = slot();
    std::lock_guard lock(global.mutex);
    // Without a live helper this dereferences null: the caller must have set one.
    return *global.helper.lock();
}

} // namespace tarvek
