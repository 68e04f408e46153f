// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonArray>
#include <QString>

class Console;

/// Tells which files that @p rules of a release copy whole into folder @p patch the old build has
/// as they are, the largest first: by the SHA-512s in the manifests in folders @p oldSignatures and
/// @p newSignatures. Of many only some, but JSON shows all. False after Console::error().
bool tellMovedFiles(Console &console, const QJsonArray &rules, const QString &patch,
    const QString &oldSignatures, const QString &newSignatures);
