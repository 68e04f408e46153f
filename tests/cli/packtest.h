// SPDX-License-Identifier: MIT
#pragma once

#include "program.h"
#include "testtree.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>

/// What the tests of "pellox pack" and "pellox unpack" share: a folder to pack, the real 7-Zip, and
/// scripts that stand in for it.
class PackTest : public QObject
{
protected:
    /// With "source", the folder to pack. Call it before each test.
    void makeTree();

    Outcome run(const QString &words) const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QStringList filesBeside(const QString &pattern) const;
    QStringList namesOfAll() const;
    int runSevenZip(const QString &folder, const QStringList &arguments) const;
    /// a.7z with one file, "x\n", under any name.
    void makeArchiveWithEntry(const QString &entry) const;
    /// The program beside a script that stands in for 7-Zip: @p cases by its first argument, and
    /// else the real one, which is $real in the script. Returns the program's path.
    QString makeStandIn(const char *cases) const;
    Outcome runStandIn(const char *cases, const QString &words) const;

    std::unique_ptr<TestTree> m_tree;
};

/// The program that the link beside the program under test leads to.
QString realSevenZip();

/// The names of what is in @p folder, hidden entries too.
QStringList entries(const QString &folder, const QString &pattern);
