// SPDX-License-Identifier: MIT
#include "renames.h"

#include "console.h"
#include "testtree.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>

/// All count or none.
class tst_Renames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void goBackUnlessKept_data();
    void goBackUnlessKept();
    void nothingIsReplaced_data();
    void nothingIsReplaced();
    void replacedFilesGoBackUnlessKept_data();
    void replacedFilesGoBackUnlessKept();
    void replacedFilesGoBackWhereNothingIs();
    void noFolderIsReplacedByAFile();
    void failuresHaveAReason_data();
    void failuresHaveAReason();
    void whatCannotGoBackIsKeptAndTold();
    void whatIsGoneNeedNotGoBack();

private:
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    QString inWorkFolder(const char *name) const
    {
        return m_workFolder->filePath(QLatin1String(name));
    }

    std::unique_ptr<TestTree> m_tree;
    std::optional<QTemporaryDir> m_workFolder;
};

void tst_Renames::init()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->write(QStringLiteral("file"), "mine");
    m_tree->write(QStringLiteral("folder/file"), "in it");
    m_tree->link(QStringLiteral("link"), QStringLiteral("nowhere"));
    m_workFolder.emplace(path("work-XXXXXX"));
    QVERIFY(m_workFolder->isValid());
}

void tst_Renames::goBackUnlessKept_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isKept");

    for (const char *name : {"file", "folder", "link"}) {
        QTest::addRow("%s kept", name) << QString::fromLatin1(name) << true;
        QTest::addRow("%s goes back", name) << QString::fromLatin1(name) << false;
    }
}

void tst_Renames::goBackUnlessKept()
{
    QFETCH(QString, name);
    QFETCH(bool, isKept);
    const QString there = m_tree->path(name);
    const QString away = m_workFolder->filePath(name);
    Console console({});
    {
        Renames renames(*m_workFolder, console);
        QVERIFY(renames.rename(there, away));
        QVERIFY(QFileInfo(away).exists() || QFileInfo(away).isSymLink());
        if (isKept)
            renames.keep();
    }
    const QFileInfo place(isKept ? away : there);
    const QFileInfo other(isKept ? there : away);
    QVERIFY(place.exists() || place.isSymLink());
    QVERIFY(!other.exists() && !other.isSymLink());
    QCOMPARE(console.errorCount(), 0);
}

void tst_Renames::nothingIsReplaced_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("to");

    const QString file = QStringLiteral("file");
    QTest::newRow("a file") << file << QStringLiteral("folder/file");
    QTest::newRow("a folder") << file << QStringLiteral("folder");
    QTest::newRow("a link that leads nowhere") << file << QStringLiteral("link");
    QTest::newRow("an empty folder") << QStringLiteral("folder") << QStringLiteral("empty");
}

void tst_Renames::nothingIsReplaced()
{
    QFETCH(QString, from);
    QFETCH(QString, to);
    m_tree->makeFolder(QStringLiteral("empty"));
    Console console({});
    Renames renames(*m_workFolder, console);
    QVERIFY(!renames.rename(m_tree->path(from), m_tree->path(to)));
    QCOMPARE(m_tree->read(QStringLiteral("file")), QByteArray("mine"));
    QCOMPARE(m_tree->read(QStringLiteral("folder/file")), QByteArray("in it"));
    QVERIFY(QFileInfo(path("link")).isSymLink());
    QVERIFY(!m_tree->exists(QStringLiteral("nowhere")));
    QVERIFY(QFileInfo(path("empty")).isDir());
}

void tst_Renames::replacedFilesGoBackUnlessKept_data()
{
    QTest::addColumn<QString>("place");
    QTest::addColumn<bool>("isKept");

    for (const char *place : {"folder/file", "link"}) {
        QTest::addRow("%s kept", place) << QString::fromLatin1(place) << true;
        QTest::addRow("%s goes back", place) << QString::fromLatin1(place) << false;
    }
}

void tst_Renames::replacedFilesGoBackUnlessKept()
{
    QFETCH(QString, place);
    QFETCH(bool, isKept);
    const QString aside = inWorkFolder("replaced/") + place;
    const bool isLink = QFileInfo(m_tree->path(place)).isSymLink();
    Console console({});
    {
        Renames renames(*m_workFolder, console);
        QVERIFY(renames.replace(path("file"), m_tree->path(place), aside));
        QCOMPARE(m_tree->read(place), QByteArray("mine"));
        QCOMPARE(QFileInfo(aside).isSymLink(), isLink);
        QVERIFY(isLink || QFileInfo::exists(aside));
        QVERIFY(!m_tree->exists(QStringLiteral("file")));
        if (isKept)
            renames.keep();
    }
    QCOMPARE(m_tree->exists(QStringLiteral("file")), !isKept);
    QCOMPARE(QFileInfo(m_tree->path(place)).isSymLink(), isLink && !isKept);
    if (!isLink)
        QCOMPARE(m_tree->read(place), QByteArray(isKept ? "mine" : "in it"));
    QCOMPARE(console.errorCount(), 0);
}

/// Someone has taken the new one away.
void tst_Renames::replacedFilesGoBackWhereNothingIs()
{
    Console console({});
    {
        Renames renames(*m_workFolder, console);
        QVERIFY(renames.replace(path("file"), path("folder/file"), inWorkFolder("aside")));
        m_tree->remove(QStringLiteral("folder/file"));
    }
    QCOMPARE(console.errorCount(), 0);
    QCOMPARE(m_tree->read(QStringLiteral("folder/file")), QByteArray("in it"));
}

void tst_Renames::noFolderIsReplacedByAFile()
{
    Console console({});
    {
        Renames renames(*m_workFolder, console);
        QVERIFY(!renames.replace(path("file"), path("folder"), inWorkFolder("aside")));
        QCOMPARE(renames.reason(), QStringLiteral("is a folder, and a file belongs there"));
    }
    QCOMPARE(m_tree->read(QStringLiteral("file")), QByteArray("mine"));
    QCOMPARE(m_tree->read(QStringLiteral("folder/file")), QByteArray("in it"));
    QCOMPARE(console.errorCount(), 0);
}

void tst_Renames::failuresHaveAReason_data()
{
    QTest::addColumn<QString>("to");
    QTest::addColumn<QString>("reason");

    QTest::newRow("something there") << QStringLiteral("link") << QStringLiteral("exists");
    QTest::newRow("no folder") << QStringLiteral("none/file")
                               << QStringLiteral("cannot be created (No such file or directory)");
}

void tst_Renames::failuresHaveAReason()
{
    QFETCH(QString, to);
    QFETCH(QString, reason);
    Console console({});
    Renames renames(*m_workFolder, console);
    QVERIFY(!renames.rename(path("file"), m_tree->path(to)));
    QCOMPARE(renames.reason(), reason);
}

/// Someone else has taken the place meanwhile.
void tst_Renames::whatCannotGoBackIsKeptAndTold()
{
    Console console({});
    {
        Renames renames(*m_workFolder, console);
        QVERIFY(renames.rename(path("file"), inWorkFolder("replaced-file")));
        QVERIFY(renames.rename(path("folder"), inWorkFolder("replaced-folder")));
        m_tree->write(QStringLiteral("file"), "theirs");
    }
    QCOMPARE(console.errorCount(), 1);
    const QString kept = inWorkFolder("replaced-file");
    m_workFolder.reset();
    QFile file(kept);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("mine"));
    QCOMPARE(m_tree->read(QStringLiteral("file")), QByteArray("theirs"));
    QCOMPARE(m_tree->read(QStringLiteral("folder/file")), QByteArray("in it"));
}

void tst_Renames::whatIsGoneNeedNotGoBack()
{
    Console console({});
    {
        Renames renames(*m_workFolder, console);
        QVERIFY(renames.rename(path("file"), inWorkFolder("file")));
        QVERIFY(QFile::remove(inWorkFolder("file")));
    }
    QCOMPARE(console.errorCount(), 0);
    const QString workFolder = m_workFolder->path();
    m_workFolder.reset();
    QVERIFY(!QFileInfo::exists(workFolder));
}

QTEST_GUILESS_MAIN(tst_Renames)
#include "tst_renames.moc"
