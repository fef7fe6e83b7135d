// SPDX-License-Identifier: LGPL-2.1-or-later
// The C interface: a counted Policy shared by the whole process. A Policy never changes
// once loaded; a reload replaces it. Checks copy the pointer under a short lock and decide
// outside it, so that slow user-database lookups hold up nobody, and a check still running
// on a replaced Policy keeps it alive. Loads, init and release happen under the lock. (A
// reader-preferring shared_mutex would let a steady stream of checks starve a reload.)
// Nothing may leave through the C boundary, so every entry point turns exceptions into a
// filled record.
#include "policy.hpp"

#include <vrel2.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace {

using vrel2::FileState;
using vrel2::Outcome;
using vrel2::Policy;

struct Library {
    std::mutex mutex;
    std::size_t references = 0;
    std::shared_ptr<Policy const> policy; // set while references > 0
};

Library& library()
{
    // Never destroyed: a thread may still call in while the process exits.
    static Library* const instance = new Library;
    return *instance;
}

void fill(vrel2_error* record, Outcome const& outcome) noexcept
{
    if (!record)
        return;
    record->code = outcome.code;
    std::size_t length = outcome.text.size();
    if (length >= sizeof record->text) {
        length = sizeof record->text - 1;
        // Back off to the start of a UTF-8 character, so that log readers see valid text.
        while (length > 0 && (static_cast<unsigned char>(outcome.text[length]) & 0xC0) == 0x80)
            --length;
    }
    std::memcpy(record->text, outcome.text.data(), length);
    record->text[length] = '\0';
}

template <class Call>
bool answer(vrel2_error* record, Call call) noexcept
{
    Outcome outcome;
    try {
        outcome = call();
    } catch (std::exception const& e) {
        outcome = {VREL2_FAILED, e.what()}; // out of memory, or a system_error from the lock
    } catch (...) {
        outcome = {VREL2_FAILED, "unexpected failure"};
    }
    fill(record, outcome);
    return outcome.code == VREL2_OK;
}

Outcome not_initialised()
{
    return {VREL2_NOT_INITIALISED, "vrel2 is not initialised: vrel2_init was not called or was released"};
}

// Replaces the policy unless it was loaded from the file in state `seen`. Needs the lock
// and a policy.
void reload_unless_loaded_from(Library& lib, FileState const& seen)
{
    // Another thread may have reloaded the same change while this one waited for the lock.
    if (lib.policy->source() != seen)
        lib.policy = std::make_shared<Policy const>(Policy::load(lib.policy->path(), lib.policy->named()));
}

} // namespace

bool vrel2_init(vrel2_error* error)
{
    return answer(error, []() -> Outcome {
        Library& lib = library();
        std::lock_guard const lock(lib.mutex);
        if (lib.references == 0) {
            // secure_getenv: a set-user-ID program must not let its caller pick the policy.
            char const* const named = secure_getenv("VREL2_POLICY");
            bool const is_named = named && *named;
            Policy loaded = Policy::load(is_named ? named : Policy::default_path, is_named);
            if (loaded.failure().code != VREL2_OK)
                return loaded.failure();
            lib.policy = std::make_shared<Policy const>(std::move(loaded));
        } else {
            reload_unless_loaded_from(lib, FileState::of(lib.policy->path().c_str()));
            if (lib.policy->failure().code != VREL2_OK)
                return lib.policy->failure();
        }
        ++lib.references;
        return {};
    });
}

bool vrel2_check_username(char const* user, char const* action, vrel2_error* error)
{
    return answer(error, [user, action]() -> Outcome {
        if (!user || !action)
            return {VREL2_FAILED, std::string("vrel2_check_username: ") + (user ? "action" : "user") + " is null"};
        if (!*user || !*action)
            return {VREL2_FAILED, std::string("vrel2_check_username: ") + (*user ? "action" : "user") + " is empty"};

        Library& lib = library();
        std::shared_ptr<Policy const> policy;
        {
            std::lock_guard const lock(lib.mutex);
            policy = lib.policy;
        }
        if (!policy)
            return not_initialised();
        if (FileState const seen = FileState::of(policy->path().c_str()); policy->source() != seen) {
            std::lock_guard const lock(lib.mutex);
            if (!lib.policy)
                return not_initialised();
            reload_unless_loaded_from(lib, seen);
            policy = lib.policy;
        }
        return policy->decide(user, action);
    });
}

void vrel2_release(void)
{
    Library& lib = library();
    try {
        std::lock_guard const lock(lib.mutex);
        if (lib.references > 0 && --lib.references == 0)
            lib.policy.reset();
    } catch (std::system_error const&) {
        // Locking failed (it cannot in practice); there is no way to report it from here.
    }
}
