// SPDX-License-Identifier: LGPL-2.1-or-later
// Template bodies of tarvek/testing/client.hpp; included at its end.
#pragma once

#include <tarvek/testing/client.hpp>

namespace tarvek::test {

template <provider::BusValue... T>
Reply<T...> Message::read() const
{
    impl::rewind(message_);
    impl::expect_signature(message_, impl::JoinedSignature<T...>::value.text, "read");
    serialization::SDBusDeserializer source(message_);
    if constexpr (sizeof...(T) == 0)
        return;
    else if constexpr (sizeof...(T) == 1)
        return provider::read_value<T...>(source);
    else
        return std::tuple<T...>{provider::read_value<T>(source)...}; // braces: read in order
}

template <provider::BusValue T>
T Value::as() const
{
    impl::rewind(holder_.get());
    return impl::read_variant<T>(holder_.get(), "Value");
}

template <provider::BusValue... R>
PendingCall<R...>::~PendingCall()
{
    // Cancels the call if it is still outstanding, before the state goes.
    if (slot_)
        client_->finish(slot_);
}

template <provider::BusValue... R>
Result<Reply<R...>> PendingCall<R...>::wait()
{
    // sd-bus ends a call that outlives the time-out with an error of its own; the margin
    // only keeps a test from hanging should that not come.
    auto const answered = [this] { return state_->answered; };
    if (!client_->process_until(answered, client_->timeout() + std::chrono::seconds(5)))
        boost::throw_exception(tarvek::invalid_state_error("PendingCall: neither an answer nor a time-out came"));
    return result();
}

template <provider::BusValue... R>
Result<Reply<R...>> PendingCall<R...>::result() const
{
    if (!state_->answered)
        boost::throw_exception(tarvek::invalid_state_error("PendingCall: not answered yet"));
    if (state_->error)
        return *state_->error;
    if constexpr (sizeof...(R) == 0) {
        state_->reply.template read<>();
        return {};
    } else {
        return state_->reply.template read<R...>();
    }
}

} // namespace tarvek::test
