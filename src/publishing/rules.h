// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/*
 * The vocabulary of the two manifests. docs/formats.md describes the files.
 */
namespace Pellox {

inline const QString PATCH_RULE = QStringLiteral("patch"); ///< apply the delta of this name
inline const QString COPY_RULE = QStringLiteral("copy"); ///< take over the whole file of this name
inline const QString DELETE_RULE = QStringLiteral("delete"); ///< remove the file
inline const QString NONE_RULE
    = QStringLiteral("none"); ///< reserved: never written, refused by clients

inline const QString SIGNATURES_FILE
    = QStringLiteral("signatures.json"); ///< in a signatures folder
inline const QString PATCH_RULES_FILE = QStringLiteral("patchRules.json"); ///< in a patch folder

} // namespace Pellox
