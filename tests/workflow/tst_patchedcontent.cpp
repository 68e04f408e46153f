// SPDX-License-Identifier: MIT
#include "patchedcontent.h"
#include "testtree.h"

#include <QtTest>

using Pellox::PatchedContent;

/// What a delta makes of a file, while it is read. UpdateController's tests see what comes of it.
class tst_PatchedContent : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void manyCommandsCanBeStopped();
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

QTEST_GUILESS_MAIN(tst_PatchedContent)

#include "tst_patchedcontent.moc"
