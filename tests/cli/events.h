// SPDX-License-Identifier: MIT
#pragma once

#include "program.h"

#include <QString>
#include <QStringList>

/*
 * What the commands on an installed build say, for machines and for people.
 */

/// A Python that has a validator of JSON schemas; empty where there is none.
QString pythonWithJsonSchema();

/// What is wrong with @p lines of JSON by docs/events.schema.json, one a violation. Ends the test
/// program when the validator, run by @p python, does not work.
QStringList schemaViolations(const QString &python, const QString &lines);

/// A run as text that is the same every time: what is measured, the test's folder @p root, and all
/// progress of a phase but the last are taken out.
QString transcript(const QStringList &arguments, const Outcome &outcome, const QString &root);

/**
 * The line at which @p found differs from the file tests/cli/golden/@p name, and both. Empty when
 * they are the same. With PELLOX_WRITE_GOLDEN in the environment it writes the file instead.
 */
QString differenceToGolden(const QString &name, const QString &found);
