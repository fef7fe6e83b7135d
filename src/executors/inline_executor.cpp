// SPDX-License-Identifier: LGPL-2.1-or-later
#include <tarvek/executors/inline_executor.hpp>

namespace tarvek {

boost::executors::inline_executor inline_executor;

} // namespace tarvek
