// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek::inline_executor: for application code that wants a continuation to run at once on
// the thread that completes the future (future.then(tarvek::inline_executor, ...)). Built
// when the library is loaded and closed at exit; the library itself never uses it.
#pragma once

#include <boost/thread/executors/inline_executor.hpp>

namespace tarvek {

extern boost::executors::inline_executor inline_executor;

} // namespace tarvek
