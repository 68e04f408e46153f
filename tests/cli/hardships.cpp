// SPDX-License-Identifier: MIT
#include "hardships.h"

#include "testtree.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <sys/types.h>
#include <unistd.h>

namespace {

const QString Program = QStringLiteral(PELLOX_PROGRAM " ");

Outcome runScript(const QString &script, const QString &folder)
{
    QProcess process;
    startProgram(process, QStringLiteral("sh"), {QStringLiteral("-c"), script}, folder);
    return outcomeOf(process);
}

/// In a name space where @p script may mount.
Outcome runMounting(const QString &script, const QString &folder)
{
    QStringList arguments{QStringLiteral("--mount"), QStringLiteral("sh"), QStringLiteral("-c"),
        QLatin1String("set -e\n") + script};
    if (::geteuid() != 0)
        arguments.prepend(QStringLiteral("--map-root-user"));
    QProcess process;
    startProgram(process, QStringLiteral("unshare"), arguments, folder);
    return outcomeOf(process);
}

/// Signals that wait for @p process or for its first thread, as a bit each.
quint64 pendingSignals(qint64 process)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(process));
    quint64 pending = 0;
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("SigPnd:") || line.startsWith("ShdPnd:"))
                pending |= line.mid(line.indexOf('\t') + 1).toULongLong(nullptr, 16);
        }
    }
    return pending;
}

} // namespace

Outcome runWithFileLimit(const QString &words, const QString &folder)
{
    return runScript(QLatin1String("ulimit -f 16; exec ") + Program + words, folder);
}

bool canMount()
{
    const QTemporaryDir folder;
    return runMounting(QStringLiteral("mount -t tmpfs none ."), folder.path()).status == 0;
}

DiskRun runWithDisk(const QString &mountPoint, const QString &size, const QString &words,
    const QString &folder, const QString &prepare)
{
    const QTemporaryDir after;
    const QString script
        = QStringLiteral("mount -t tmpfs -o size=%1 none %2\n%3\nset +e\n%4\nstatus=$?\n"
                         "cp -a %2/. '%5'\nexit $status")
              .arg(size, mountPoint, prepare, Program + words, after.path());
    const Outcome outcome = runMounting(script, folder);
    return {outcome, TestTree::snapshot(after.path())};
}

void interrupt(const QProcess &process, int signal)
{
    const qint64 id = process.processId();
    if (::kill(static_cast<pid_t>(id), signal) != 0)
        return; // it has ended, though nobody has been told yet
    const quint64 bit = quint64(1) << (signal - 1);
    while ((pendingSignals(id) & bit) != 0)
        ::usleep(10);
}
