// SPDX-License-Identifier: MIT
#pragma once

#include "utils.h"

#include <QLoggingCategory>

namespace Pellox {

/// Logs the warning to @p category when @p path is too long; the caller works on.
inline void warnIfTooLong(const QLoggingCategory &category, const QString &path)
{
    if (PelloxMor::Utils::checkFilePathIsTooLong(path))
        qCWarning(category) << qPrintable(PelloxMor::Utils::createTooLongFilePathWarning(path));
}

} // namespace Pellox
