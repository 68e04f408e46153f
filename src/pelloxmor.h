// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

/// Marks the library as loaded; hosts may construct one to force it to be linked.
class PELLOX_EXPORT PelloxMOR
{
public:
    PelloxMOR();
};
