// SPDX-License-Identifier: MIT
#pragma once

#include <QLoggingCategory>

// The library's logging categories, each defined beside the class that owns it.
// Hosts reach them by name through Qt's logging rules.
extern QLoggingCategory logCatBC; ///< "BinariesController"
extern QLoggingCategory logCatDC; ///< "DeltaController"
extern QLoggingCategory logCatSC; ///< "SignaturesController"
extern QLoggingCategory logCatPH; ///< "PatchHelper"
