// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/PatchInspector>

#include <QByteArray>
#include <QString>
#include <QVector>

/**
 * What is in a patch as a page to look at: HTML that needs nothing but itself. Names of files
 * are data in it, whatever is in them, and it runs no script but its own.
 */
QByteArray inspectReport(const QString &name, const QVector<Pellox::InspectedFile> &files);

/// Whether the file at @p path is such a page.
bool isInspectReport(const QString &path);
