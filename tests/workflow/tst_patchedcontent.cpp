// SPDX-License-Identifier: MIT
#include "patchedcontent.h"
#include "testtree.h"

#include <QFile>
#include <QtTest>

#include <cerrno>

using Pellox::InputFile;
using Pellox::PatchedContent;

/// What a delta makes of a file, while it is read. UpdateController's tests see what comes of it.
class tst_PatchedContent : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void manyCommandsCanBeStopped();
    void fileThatIsNotFoundAgain_data();
    void fileThatIsNotFoundAgain();
    void deltaThatIsCutOffWhileItIsChecked();
    void deltaThatChangesOnceItIsChecked_data();
    void deltaThatChangesOnceItIsChecked();
};

namespace {

constexpr int Commands = 1 << 20;

/// Of so many copies of one byte each.
QByteArray tinyCopies(int count)
{
    QByteArray delta = QByteArray::fromHex("72730236");
    for (int i = 0; i < count; ++i)
        delta += QByteArray::fromHex("450001");
    return delta + '\0';
}

} // namespace

void tst_PatchedContent::manyCommandsCanBeStopped()
{
    const TestTree tree;
    tree.write(QStringLiteral("old"), "x");
    tree.write(QStringLiteral("delta"), tinyCopies(Commands));
    const QString old = tree.path(QStringLiteral("old"));
    const QString delta = tree.path(QStringLiteral("delta"));
    PatchedContent whole;
    int asked = 0;
    QVERIFY(whole.open(old, delta, Commands, [&] {
        ++asked;
        return false;
    }));
    QVERIFY(asked > 8);
    PatchedContent stopped;
    int askedAgain = 0;
    QVERIFY(!stopped.open(old, delta, Commands, [&] { return ++askedAgain == 2; }));
    QCOMPARE(askedAgain, 2);
    QVERIFY(!stopped.error().isEmpty());
}

void tst_PatchedContent::fileThatIsNotFoundAgain_data()
{
    QTest::addColumn<QString>("with"); // what comes in the place of its folder
    QTest::addColumn<QString>("reason");
    QTest::addColumn<int>("error");
    const QString gone = QStringLiteral("disappeared while it was read");
    QTest::newRow("nothing") << QString() << gone << 0;
    QTest::newRow("a file") << QStringLiteral("file") << gone << 0;
    QTest::newRow("a link to itself")
        << QStringLiteral("link") << QStringLiteral("cannot be read: ") << ELOOP;
}

/// Only what is certainly gone is said to be.
void tst_PatchedContent::fileThatIsNotFoundAgain()
{
    QFETCH(QString, with);
    QFETCH(QString, reason);
    QFETCH(int, error);
    const TestTree tree;
    const QString folder = QStringLiteral("folder");
    const QString name = folder + QStringLiteral("/file");
    tree.write(name, "content");
    InputFile file;
    QVERIFY(file.open(tree.path(name)));
    QVERIFY(file.isUnchanged());
    tree.remove(folder);
    if (with == QStringLiteral("file"))
        tree.write(folder, QByteArray());
    if (with == QStringLiteral("link"))
        tree.link(folder, tree.path(folder));
    QVERIFY(!file.isUnchanged());
    QCOMPARE(file.error().path, tree.path(name));
    QVERIFY2(file.error().reason.startsWith(reason), qPrintable(file.error().reason));
    QCOMPARE(file.error().system, error);
}

void tst_PatchedContent::deltaThatIsCutOffWhileItIsChecked()
{
    const TestTree tree;
    tree.write(QStringLiteral("old"), "x");
    tree.write(QStringLiteral("delta"), tinyCopies(Commands));
    const QString delta = tree.path(QStringLiteral("delta"));
    PatchedContent content;
    QVERIFY(!content.open(tree.path(QStringLiteral("old")), delta, Commands, [&] {
        QFile::resize(delta, 1);
        return false;
    }));
    QCOMPARE(content.error().path, delta);
    QCOMPARE(content.error().reason, QStringLiteral("changed while it was read"));
}

void tst_PatchedContent::deltaThatChangesOnceItIsChecked_data()
{
    QTest::addColumn<QByteArray>("after"); // what stands there then
    QTest::addColumn<QString>("file");     // that the error is about
    QTest::addColumn<QString>("reason");
    QTest::newRow("cut off") << QByteArray() << QStringLiteral("delta")
                             << QStringLiteral("changed while it was read");
    QTest::newRow("of other commands")
        << QByteArray::fromHex("72730236") + QByteArray(3 * Commands, '\0') << QStringLiteral("old")
        << QStringLiteral("cannot be patched: the delta has changed");
}

/// It is read a second time then.
void tst_PatchedContent::deltaThatChangesOnceItIsChecked()
{
    QFETCH(QByteArray, after);
    QFETCH(QString, file);
    QFETCH(QString, reason);
    const TestTree tree;
    tree.write(QStringLiteral("old"), "x");
    tree.write(QStringLiteral("delta"), tinyCopies(Commands));
    const QString delta = tree.path(QStringLiteral("delta"));
    PatchedContent content;
    QVERIFY(content.open(tree.path(QStringLiteral("old")), delta, Commands, [] { return false; }));
    QFile same(delta);
    QVERIFY(same.open(QIODevice::ReadWrite) && same.resize(0));
    QCOMPARE(same.write(after), qint64(after.size()));
    same.close();
    QByteArray made(Commands, '?');
    QVERIFY(!content.readAt(0, reinterpret_cast<uchar *>(made.data()), made.size()));
    QCOMPARE(content.error().path, tree.path(file));
    QCOMPARE(content.error().reason, reason);
}

QTEST_GUILESS_MAIN(tst_PatchedContent)

#include "tst_patchedcontent.moc"
