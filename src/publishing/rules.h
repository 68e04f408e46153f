// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/*
 * The vocabulary of the two manifests. docs/formats.md describes the files.
 */
namespace Pellox {

inline const QString PATCH_RULE = QStringLiteral("patch");   ///< apply the delta of this name
inline const QString COPY_RULE = QStringLiteral("copy");     ///< take over the file of this name
inline const QString DELETE_RULE = QStringLiteral("delete"); ///< remove the file
inline const QString NONE_RULE = QStringLiteral("none");     ///< never written, fails on clients

/// The manifest of a signatures folder.
inline const QString SIGNATURES_FILE = QStringLiteral("signatures.json");
/// The manifest of a patch folder.
inline const QString PATCH_RULES_FILE = QStringLiteral("patchRules.json");

} // namespace Pellox
