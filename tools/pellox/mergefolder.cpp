// SPDX-License-Identifier: MIT
#include "mergefolder.h"

#include "console.h"
#include "folders.h"
#include "interrupt.h"
#include "renames.h"

#include <QDir>

bool mergeFolder(const QString &from, const QString &to, Renames &renames, Console &console)
{
    const QDir source(from);
    const QStringList names
        = source.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        Interrupt::throwIfStopped();
        const QString path = source.filePath(name);
        const QString target = QDir(to).filePath(name);
        if (renames.rename(path, target))
            continue;
        if (isRealFolder(path) && isRealFolder(target)) {
            if (!mergeFolder(path, target, renames, console))
                return false;
            continue;
        }
        console.error(target,
            isThere(target) ? QStringLiteral("exists") : QStringLiteral("cannot be created"));
        return false;
    }
    return true;
}
