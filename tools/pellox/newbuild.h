// SPDX-License-Identifier: MIT
#pragma once

#include "ignoreoptions.h"

#include <QJsonArray>
#include <QString>
#include <QStringList>

class Console;

/// The build that players are to be brought to.
struct NewBuild
{
    QString folder;
    QStringList files;   ///< as the library counts them, ignored ones too
    int fileCount = 0;   ///< of them, also when they have been let go
    QStringList ignored; ///< of them
    qint64 size = 0;     ///< of all files
};

/// What is asked for of a new build.
struct NewBuildOptions
{
    IgnoreOptions ignore;
    bool allowEmpty = false;
};

void addAllowEmptyOption(CLI::App &command, bool &allowEmpty);
/// Adds all of NewBuildOptions.
void addNewBuildOptions(CLI::App &command, NewBuildOptions &options);

/// Throws Refusal when @p files, those of @p build, are none: mostly a wrong folder, and its patch
/// would delete all that players have.
void refuseEmpty(const QString &build, const QStringList &files);

/**
 * The new build in @p folder, once it is known that all of it can become a patch for players who
 * have @p oldFiles, relative paths as manifests hold them. Throws Refusal.
 */
NewBuild checkedNewBuild(
    const QString &folder, const QStringList &oldFiles, const NewBuildOptions &options);

/// Notes names among @p files, those of @p build, that players cannot have everywhere.
void noteUnportableNames(Console &console, const QString &build, const QStringList &files);

/// How many files of the folder are hidden, or lie in a hidden folder, and so are none of the
/// build.
qint64 hiddenFileCount(const NewBuild &build);

/// Throws Refusal when there is no signatures.json in @p signatures, with a hint where @p newBuild
/// seems to have been given in its place.
void requireSignatures(const QString &signatures, const QString &newBuild);
/// Its records. Throws Refusal, as above too.
QJsonArray readSignatures(const QString &signatures, const QString &newBuild);
