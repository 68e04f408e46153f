// SPDX-License-Identifier: MIT
#include "trace.h"

#include "logcategories.h"

namespace Pellox {

void trace(loglevel level, const char *msg)
{
    qCDebug(logCatBC) << "level: " << static_cast<int>(level) << " msg: " << msg;
}

} // namespace Pellox
