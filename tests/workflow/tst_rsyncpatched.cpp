// SPDX-License-Identifier: MIT
#include "rsyncpatched.h"
#include "testtree.h"

#include <QFile>
#include <QtTest>

using Pellox::RsyncPatched;

/// The proof of deltas: what librsync makes of them, and that nothing wrong passes.
class tst_RsyncPatched : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void makesTheNewContent_data();
    void makesTheNewContent();
    void whatIsWrongIsTold_data();
    void whatIsWrongIsTold();
    void filesThatAreNotThere();
    void filesThatChange();
    void filesThatAreCutOff();
};

namespace {

QString text(const char *ascii)
{
    return QString::fromLatin1(ascii);
}

QByteArray delta(const QByteArray &commands)
{
    return QByteArray::fromHex("72730236") + commands;
}

const QByteArray Old = "0123456789";

/// Reads it @p step bytes at a time; ends with the error where there is one.
QByteArray readIn(RsyncPatched &patched, qint64 step)
{
    QByteArray content;
    while (content.size() < patched.size()) {
        QByteArray part(static_cast<int>(std::min(step, patched.size() - content.size())), '?');
        if (!patched.readAt(content.size(), reinterpret_cast<uchar *>(part.data()), part.size()))
            return content + patched.error().reason.toUtf8();
        content += part;
    }
    return content;
}

} // namespace

void tst_RsyncPatched::makesTheNewContent_data()
{
    QTest::addColumn<QByteArray>("commands");
    QTest::addColumn<QByteArray>("content");
    const QByteArray end(1, '\0');
    QTest::newRow("a literal") << "\x03"
                                  "abc"
            + end << QByteArray("abc");
    QTest::newRow("a copy") << QByteArray::fromHex("450304") + end << QByteArray("3456");
    QTest::newRow("both") << QByteArray::fromHex("450802")
            + "\x02"
              "xy"
            + QByteArray::fromHex("450001")
            + end << QByteArray("89xy0");
    QTest::newRow("long") << QByteArray::fromHex("420200") + QByteArray(512, 'z')
            + QByteArray::fromHex("45000a")
            + end << QByteArray(512, 'z') + Old;
}

void tst_RsyncPatched::makesTheNewContent()
{
    QFETCH(QByteArray, commands);
    QFETCH(QByteArray, content);
    const TestTree tree;
    tree.write(text("old"), Old);
    tree.write(text("delta"), delta(commands));
    for (const qint64 step : {1, 3, 4096}) {
        RsyncPatched patched;
        QVERIFY(patched.open(tree.path(text("old")), tree.path(text("delta")), content.size()));
        QCOMPARE(patched.size(), qint64(content.size()));
        QCOMPARE(readIn(patched, step), content);
        QVERIFY(patched.isUnchanged());
    }
}

void tst_RsyncPatched::whatIsWrongIsTold_data()
{
    QTest::addColumn<QByteArray>("bytes");
    const QByteArray end(1, '\0');
    QTest::newRow("makes more") << delta("\x06"
                                         "abcdef"
        + end);
    QTest::newRow("makes less") << delta("\x04"
                                         "abcd"
        + end);
    QTest::newRow("has no end") << delta("\x05"
                                         "abcde");
    QTest::newRow("is cut off") << delta("\x05"
                                         "abc");
    QTest::newRow("copies from behind the old file") << delta(QByteArray::fromHex("450b05") + end);
    QTest::newRow("copies more than there is") << delta(QByteArray::fromHex("450805") + end);
    QTest::newRow("has an unknown command") << delta(QByteArray::fromHex("ff") + end);
    QTest::newRow("is no delta") << QByteArray("no delta at all");
    QTest::newRow("is empty") << QByteArray();
}

void tst_RsyncPatched::whatIsWrongIsTold()
{
    QFETCH(QByteArray, bytes);
    const TestTree tree;
    tree.write(text("old"), Old);
    tree.write(text("delta"), bytes);
    for (const qint64 step : {1, 5}) {
        RsyncPatched patched;
        QVERIFY(patched.open(tree.path(text("old")), tree.path(text("delta")), 5));
        readIn(patched, step);
        QVERIFY(!patched.error().isEmpty());
        QCOMPARE(patched.error().path, tree.path(text("delta")));
    }
}

void tst_RsyncPatched::filesThatAreNotThere()
{
    const TestTree tree;
    tree.write(text("there"), Old);
    for (const bool isOld : {true, false}) {
        const QString missing = tree.path(text("missing"));
        const QString there = tree.path(text("there"));
        RsyncPatched patched;
        QVERIFY(!patched.open(isOld ? missing : there, isOld ? there : missing, 5));
        QCOMPARE(patched.error().path, missing);
    }
}

void tst_RsyncPatched::filesThatChange()
{
    const TestTree tree;
    tree.write(text("old"), Old);
    tree.write(text("delta"), delta(QByteArray::fromHex("450304") + QByteArray(1, '\0')));
    for (const char *const name : {"old", "delta"}) {
        RsyncPatched patched;
        QVERIFY(patched.open(tree.path(text("old")), tree.path(text("delta")), 4));
        QCOMPARE(readIn(patched, 4), QByteArray("3456"));
        const QByteArray content = tree.read(text(name));
        tree.remove(text(name));
        tree.write(text(name), content);
        QVERIFY(!patched.isUnchanged());
        QCOMPARE(patched.error().path, tree.path(text(name)));
    }
}

void tst_RsyncPatched::filesThatAreCutOff()
{
    for (const char *const name : {"old", "delta"}) {
        const TestTree tree;
        tree.write(text("old"), Old);
        tree.write(text("delta"), delta(QByteArray::fromHex("450304") + QByteArray(1, '\0')));
        RsyncPatched patched;
        QVERIFY(patched.open(tree.path(text("old")), tree.path(text("delta")), 4));
        QVERIFY(QFile::resize(tree.path(text(name)), 0));
        QCOMPARE(readIn(patched, 4), QByteArray("changed while it was read"));
        QCOMPARE(patched.error().path, tree.path(text(name)));
    }
}

QTEST_GUILESS_MAIN(tst_RsyncPatched)

#include "tst_rsyncpatched.moc"
