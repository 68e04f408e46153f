// SPDX-License-Identifier: MIT
#include "pelloxmor.h"

PelloxMOR::PelloxMOR() = default;
