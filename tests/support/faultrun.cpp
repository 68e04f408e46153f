// SPDX-License-Identifier: MIT
#include "faultrun.h"

#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryFile>

#include <algorithm>

namespace {

QProcessEnvironment environmentFor(const Faults &faults, const QString &log)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const auto set = [&environment](const char *name, const QByteArray &value) {
        environment.insert(QString::fromLatin1(name), QString::fromLocal8Bit(value));
    };
    set("LD_PRELOAD", FAULTS_LIBRARY);
    // AddressSanitizer wants to be the first of the libraries, but does well as the second.
    set("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":verify_asan_link_order=0");
    set("FAULTS_PATH", faults.path.toLocal8Bit());
    set("FAULTS_CALLS", faults.calls);
    set("FAULTS_AT", QByteArray::number(faults.at));
    set("FAULTS_DO", faults.action);
    set("FAULTS_REPEAT", faults.later ? "yes" : "");
    set("FAULTS_UNSYNCED", faults.unsynced ? "yes" : "");
    set("FAULTS_SLOWLY", faults.slowly ? "yes" : "");
    set("FAULTS_APPEARING", faults.appearing.toUtf8());
    set("FAULTS_LOG", log.toLocal8Bit());
    return environment;
}

} // namespace

FaultRun runWithFaults(const QString &program, const QStringList &arguments, const Faults &faults)
{
    QTemporaryFile log;
    if (!log.open())
        qFatal("fault run: cannot make a file for the calls");
    QProcess process;
    process.setProcessEnvironment(environmentFor(faults, log.fileName()));
    process.start(program, arguments);
    if (!process.waitForFinished(300000))
        qFatal("fault run: %s %s: %s", qPrintable(program),
            qPrintable(arguments.join(QLatin1Char(' '))), qPrintable(process.errorString()));

    FaultRun run;
    run.crashed = process.exitStatus() != QProcess::NormalExit;
    run.status = process.exitCode();
    run.output = process.readAllStandardOutput();
    run.errors = process.readAllStandardError();
    run.calls = QString::fromLocal8Bit(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return run;
}

int stepThrough(int calls, int most)
{
    const bool takesAll = qEnvironmentVariableIsSet("PELLOX_ALL_CRASH_POINTS");
    return takesAll ? 1 : std::max(1, (calls + most - 1) / most);
}
