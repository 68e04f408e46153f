// SPDX-License-Identifier: MIT
#include "mergefolder.h"

#include "console.h"
#include "folders.h"
#include "interrupt.h"
#include "renames.h"

#include <QDir>

namespace {

/// @p aside is empty where nothing may be replaced.
bool moveEntry(const QString &path, const QString &target, const QString &aside, Renames &renames,
    Console &console)
{
    if (renames.rename(path, target))
        return true;
    const bool isFolder = isRealFolder(path);
    const bool isFolderThere = isRealFolder(target);
    if (isFolder && isFolderThere)
        return mergeFolder(path, target, renames, console, aside);
    const bool mayReplace = !aside.isEmpty() && !isFolder && !isFolderThere && isThere(target);
    if (mayReplace && renames.replace(path, target, aside))
        return true;
    console.error(target, renames.reason());
    return false;
}

} // namespace

bool mergeFolder(const QString &from, const QString &to, Renames &renames, Console &console,
    const QString &replaced)
{
    const QStringList names = QDir(from).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        Interrupt::throwIfStopped();
        const QString aside = replaced.isEmpty() ? QString() : pathIn(replaced, name);
        if (!moveEntry(pathIn(from, name), pathIn(to, name), aside, renames, console))
            return false;
    }
    return true;
}
