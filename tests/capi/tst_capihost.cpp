// SPDX-License-Identifier: MIT
#include "patience.h"
#include "testtree.h"

#include <QProcess>
#include <QtTest>

namespace {

/// What is wrong with a run of @p program, which says nothing when all is well.
QByteArray troubleOf(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.closeWriteChannel();
    if (!process.waitForFinished(Patience))
        return "does not end";
    const QByteArray output = process.readAll();
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return output + "status " + QByteArray::number(process.exitCode());
    return output;
}

} // namespace

/// Programs in C, without a QCoreApplication of their own.
class tst_CapiHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void wholeRelease();
    void closingTheLibrary();
};

void tst_CapiHost::wholeRelease()
{
    const TestTree tree;
    QCOMPARE(troubleOf(QStringLiteral(CAPIHOST_PROGRAM), {tree.path()}), QByteArray());
}

void tst_CapiHost::closingTheLibrary()
{
    const TestTree tree;
    QCOMPARE(
        troubleOf(QStringLiteral(UNLOADING_PROGRAM), {QStringLiteral(PELLOX_LIBRARY), tree.path()}),
        QByteArray());
}

QTEST_GUILESS_MAIN(tst_CapiHost)
#include "tst_capihost.moc"
