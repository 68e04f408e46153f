// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/**
 * What tells the folder @p found from the folder @p expected, hidden entries, permissions and
 * links included: the first path that differs and how. Empty when they are the same.
 */
QString differenceBetween(const QString &expected, const QString &found);
