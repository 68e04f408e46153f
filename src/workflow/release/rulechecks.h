// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "goon.h"
#include "sha512.h"

#include <QHash>
#include <QString>
#include <QStringList>

#include <vector>

namespace Pellox {

/// A rule of a patch that is well formed.
struct UpdateRule
{
    enum class Kind { Patch, Copy, Delete };

    Kind kind = Kind::Delete;
    QString relativePath; ///< begins with a separator
    Sha512 sha512;   ///< of the new content of a patched file; under a seal of a copied one too
    qint64 size = 0; ///< likewise
    bool isSealed = false;
    Sha512 oldSha512; ///< of what a patch is for; under a seal
    QString source;   ///< of a copied file: one of the old build with its content; under a seal
};

/// As manifests and seals name it.
QString nameOf(UpdateRule::Kind kind);
std::optional<UpdateRule::Kind> kindOf(const QString &name);

/// Why @p path is no path below a folder that it is appended to, on any file system; empty when it
/// is one.
QString problemOfPath(const QString &path);

/// Why no file of a build may have @p relativePath; empty when one may.
QString problemOfRelativePath(const QString &relativePath);

/// The folders above @p relativePath, from the top down; relative too.
QStringList foldersAbove(const QString &relativePath);

/**
 * Reads and checks the rules of the manifest at @p path by themselves, without a look at the
 * files. Appends what is wrong to @p errors, each of that file, with the number of its record
 * counted from 1, or with that of the system where the file cannot be read; the rules are
 * complete only when it appends nothing, and @p goOn has not said no. Of very many errors
 * it appends the first and how many more there are; a manifest with more records, or with more text
 * in its paths, than that of any build is not read to its end.
 */
std::vector<UpdateRule> readRules(
    const QString &path, std::vector<FileError> *errors, const GoOn &goOn = GoOn());

/// How a file system tells names apart.
struct NameSense
{
    bool foldsCase = false;
    bool foldsUnicode = false;

    /// What all names of one file have in common.
    QString key(const QString &path) const;
};

/// Appends to @p errors each path of @p rules that cannot stand beside another's, and why; of very
/// many the first, and how many more there are.
void checkTogether(const std::vector<UpdateRule> &rules, NameSense sense, QStringList *errors);

} // namespace Pellox
