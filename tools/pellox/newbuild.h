// SPDX-License-Identifier: MIT
#pragma once

#include "ignoreoptions.h"

#include <QString>
#include <QStringList>

/// The build that players are to be brought to.
struct NewBuild
{
    QString folder;
    QStringList files;   ///< as the library counts them, ignored ones too
    QStringList ignored; ///< of them
    qint64 size = 0;     ///< of all files
};

/**
 * The new build in @p folder, once it is known that all of it can become a patch for players who
 * have @p oldFiles, relative paths as manifests hold them. Throws Refusal.
 */
NewBuild checkedNewBuild(Console &console, const QString &folder, const QStringList &oldFiles,
    const IgnoreOptions &ignore);
