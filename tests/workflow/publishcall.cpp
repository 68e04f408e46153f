// SPDX-License-Identifier: MIT
// One call of PublishController, for tests that need a process for it:
//   publishcall THREADS sign BUILD SIGNATURES
//   publishcall THREADS diff BUILD SIGNATURES PATCH [IGNORED ...]
//   publishcall THREADS plan BUILD SIGNATURES [IGNORED ...]
//   publishcall THREADS publish BUILD SIGNATURES PATCH NEW_SIGNATURES [IGNORED ...]
//   publishcall THREADS small BUILD SIGNATURES PATCH OLD_BUILD EFFORT MEMORY
//     also prints how much memory it took at its peak, in bytes
//   publishcall THREADS seal PATCH SIGNATURES KEY
//   publishcall THREADS slim PATCH SLIM
// Prints each error on a line. Status 0: the call was successful; 1: it was not; 2: wrong usage.
#include <Pellox/patchseal.h>
#include <Pellox/publishcontroller.h>

#include <QCoreApplication>
#include <QFile>
#include <QStringList>
#include <QVariant>

#include <cstdio>
#include <optional>

using Pellox::PatchSeal;
using Pellox::PublishController;

namespace {

/// Of this process, once it was started.
long long peakMemory()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
    }
    return -1;
}

std::optional<bool> runCommand(
    PublishController &publisher, const QString &command, const QStringList &paths)
{
    if (command == QLatin1String("sign") && paths.size() == 2)
        return publisher.createSignatures(paths[0], paths[1]);
    if (command == QLatin1String("diff") && paths.size() >= 3)
        return publisher.createPatch(paths[0], paths[1], paths[2], paths.mid(3));
    if (command == QLatin1String("plan") && paths.size() >= 2)
        return publisher.plan(paths[0], paths[1], paths.mid(2)).has_value();
    if (command == QLatin1String("publish") && paths.size() >= 4)
        return publisher.publish(paths[0], paths[1], paths[2], paths[3], paths.mid(4));
    if (command == QLatin1String("small") && paths.size() == 6) {
        publisher.setOldBuild(paths[3]);
        publisher.setDeltaEffort(static_cast<PublishController::DeltaEffort>(paths[4].toInt()));
        publisher.setDeltaMemory(paths[5].toLongLong());
        const bool done = publisher.createPatch(paths[0], paths[1], paths[2]);
        std::printf("%lld\n", peakMemory());
        return done;
    }
    return std::nullopt;
}

std::optional<bool> runSealCommand(int threads, const QString &command, const QStringList &paths)
{
    PatchSeal sealer;
    sealer.setThreadCount(threads);
    std::optional<bool> done;
    if (command == QLatin1String("seal") && paths.size() == 3)
        done = sealer.seal(paths[0], paths[1], 1, {paths[2]});
    if (command == QLatin1String("slim") && paths.size() == 2)
        done = sealer.writeSlim(paths[0], paths[1]);
    if (done == false)
        std::puts(sealer.error().toLocal8Bit().constData());
    return done;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    PublishController publisher;
    QObject::connect(&publisher, &PublishController::publishError, &publisher,
        [](const QString &message) { std::puts(message.toLocal8Bit().constData()); });
    publisher.setThreadCount(arguments.value(1).toInt());
    const int threads = arguments.value(1).toInt();
    const QString command = arguments.value(2);
    std::optional<bool> done = runCommand(publisher, command, arguments.mid(3));
    if (!done)
        done = runSealCommand(threads, command, arguments.mid(3));
    return done ? (*done ? 0 : 1) : 2;
}
