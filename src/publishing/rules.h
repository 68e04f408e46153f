// SPDX-License-Identifier: MIT
#pragma once

#include <QLatin1String>

/*
 * The vocabulary of the two manifests. docs/formats.md describes the files.
 */
namespace Pellox {

inline constexpr QLatin1String PATCH_RULE("patch");   ///< apply the delta of this name
inline constexpr QLatin1String COPY_RULE("copy");     ///< take over the whole file of this name
inline constexpr QLatin1String DELETE_RULE("delete"); ///< remove the file
inline constexpr QLatin1String NONE_RULE("none"); ///< reserved: never written, refused by clients

inline constexpr QLatin1String SIGNATURES_FILE("signatures.json");  ///< in a signatures folder
inline constexpr QLatin1String PATCH_RULES_FILE("patchRules.json"); ///< in a patch folder

} // namespace Pellox
