// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

namespace Pellox {

/// Asked now and then by what may take long: false when it is to stop. Whoever gives it may report
/// by the way. An empty one never stops.
using GoOn = std::function<bool()>;

inline bool mayGoOn(const GoOn &goOn)
{
    return !goOn || goOn();
}

} // namespace Pellox
