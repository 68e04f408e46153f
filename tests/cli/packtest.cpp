// SPDX-License-Identifier: MIT
#include "packtest.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTest>

QString realSevenZip()
{
    return QFileInfo(QFileInfo(QStringLiteral(PELLOX_PROGRAM)).path() + QLatin1String("/7zr"))
        .canonicalFilePath();
}

QStringList entries(const QString &folder, const QString &pattern)
{
    return QDir(folder).entryList(
        {pattern}, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

void PackTest::makeTree()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->write(QStringLiteral("source/data/random.pak"), randomBytes(300000, 1));
    m_tree->write(QStringLiteral("source/data/grüße an alle.txt"), "hello");
    m_tree->write(QStringLiteral("source/name = value"), "odd");
    m_tree->write(QStringLiteral("source/.hidden"), "packed too");
    m_tree->write(QStringLiteral("source/zero"), QByteArray());
    m_tree->makeFolder(QStringLiteral("source/empty"));
    m_tree->link(QStringLiteral("source/link"), QStringLiteral("zero"));
}

Outcome PackTest::run(const QString &words) const
{
    return runPellox(words.split(QLatin1Char(' ')), m_tree->path());
}

QStringList PackTest::filesBeside(const QString &pattern) const
{
    return QDir(m_tree->path()).entryList({pattern}, QDir::Files);
}

QStringList PackTest::namesOfAll() const
{
    QStringList names;
    QDirIterator walk(m_tree->path(),
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext())
        names.append(walk.next());
    names.sort();
    return names;
}

int PackTest::runSevenZip(const QString &folder, const QStringList &arguments) const
{
    QProcess process;
    startProgram(process, realSevenZip(), arguments, m_tree->path(folder));
    return outcomeOf(process).status;
}

void PackTest::makeArchiveWithEntry(const QString &entry) const
{
    m_tree->write(QStringLiteral("name"), "x\n");
    QCOMPARE(
        runSevenZip(QString(), {QStringLiteral("a"), path("a.7z"), QStringLiteral("name")}), 0);
    QCOMPARE(
        runSevenZip(QString(), {QStringLiteral("rn"), path("a.7z"), QStringLiteral("name"), entry}),
        0);
}

QString PackTest::makeStandIn(const char *cases) const
{
    const QByteArray script = "#!/bin/sh\nreal='" + QFile::encodeName(realSevenZip())
        + "'\ncase $1 in\n" + cases + "\n*) exec \"$real\" \"$@\";;\nesac\n";
    m_tree->write(QStringLiteral("standin/7zr"), script);
    QFile::setPermissions(
        path("standin/7zr"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QFile::copy(QStringLiteral(PELLOX_PROGRAM), path("standin/pellox"));
    return path("standin/pellox");
}

Outcome PackTest::runStandIn(const char *cases, const QString &words) const
{
    QProcess process;
    startProgram(process, makeStandIn(cases), words.split(QLatin1Char(' ')), m_tree->path());
    return outcomeOf(process);
}
