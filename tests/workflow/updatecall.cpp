// SPDX-License-Identifier: MIT
// One call of UpdateController or IntegrityController, for tests that need a process for it:
//   updatecall THREADS update|update-keeping BUILD PATCH [FALLBACK]
//   updatecall THREADS plan|plan-keeping BUILD PATCH
//   updatecall THREADS recover|rollback|discard BUILD
//   updatecall THREADS check BUILD SIGNATURES
//   updatecall THREADS repair BUILD SIGNATURES SOURCE
//   updatecall THREADS record BUILD SIGNATURES PATCH
// Prints each error on a line, and what a plan refuses. Status of updates, "recover" and
// "rollback": 10 and the number of the result; of the others 0: the call was successful; 1: it was
// not. 2: wrong usage. UPDATECALL_KEY in the environment names the trusted key.
#include <Pellox/integritycontroller.h>
#include <Pellox/updatecontroller.h>

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

using Pellox::IntegrityController;
using Pellox::UpdateController;

namespace {

constexpr int WrongUsage = 2;
constexpr int FirstResult = 10;

void print(const QString &error)
{
    std::puts(error.toLocal8Bit().constData());
    std::fflush(stdout); // the process may be killed
}

bool startUpdate(UpdateController &updater, const QString &command, const QStringList &paths)
{
    updater.setKeepPrevious(command == QLatin1String("update-keeping"));
    updater.setFallbackSource(paths.value(2));
    if (qEnvironmentVariableIsSet("UPDATECALL_KEY"))
        updater.setTrustedKeys({qEnvironmentVariable("UPDATECALL_KEY")});
    if (command == QLatin1String("recover"))
        return updater.recover(paths.value(0));
    if (command == QLatin1String("rollback"))
        return updater.rollback(paths.value(0));
    return command.startsWith(QLatin1String("update"))
        && updater.update(paths.value(0), paths.value(1));
}

int plan(const QString &command, const QStringList &paths)
{
    UpdateController planner;
    planner.setKeepPrevious(command == QLatin1String("plan-keeping"));
    const auto plan = planner.plan(paths.value(0), paths.value(1));
    for (const Pellox::UpdateProblem &refusal : plan.refusals)
        print(refusal.message());
    return plan.refusals.isEmpty() ? 0 : 1;
}

int update(int threads, const QString &command, const QStringList &paths)
{
    UpdateController updater;
    updater.setThreadCount(threads);
    QObject::connect(&updater, &UpdateController::updateError, &updater, &print);
    QObject::connect(
        &updater, &UpdateController::finished, &updater, [](UpdateController::UpdateResult result) {
            QCoreApplication::exit(FirstResult + static_cast<int>(result));
        });
    if (command == QLatin1String("discard"))
        return updater.discardPrevious(paths.value(0)) ? 0 : 1;
    return startUpdate(updater, command, paths) ? QCoreApplication::exec() : WrongUsage;
}

bool startIntegrity(
    IntegrityController &controller, const QString &command, const QStringList &paths)
{
    if (command == QLatin1String("check"))
        return controller.check(paths.value(0), paths.value(1));
    if (command == QLatin1String("repair"))
        return controller.repair(paths.value(0), paths.value(1), paths.value(2));
    return controller.recordRelease(
        paths.value(0), paths.value(1), paths.value(2), {qEnvironmentVariable("UPDATECALL_KEY")});
}

int checkOrChange(int threads, const QString &command, const QStringList &paths)
{
    IntegrityController controller;
    controller.setThreadCount(threads);
    QObject::connect(&controller, &IntegrityController::integrityError, &controller, &print);
    QObject::connect(&controller, &IntegrityController::finished, &controller,
        [](bool success) { QCoreApplication::exit(success ? 0 : 1); });
    return startIntegrity(controller, command, paths) ? QCoreApplication::exec() : WrongUsage;
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const int threads = arguments.value(1).toInt();
    const QString command = arguments.value(2);
    if (command == QLatin1String("check") || command == QLatin1String("repair")
        || command == QLatin1String("record"))
        return checkOrChange(threads, command, arguments.mid(3));
    if (command.startsWith(QLatin1String("plan")))
        return plan(command, arguments.mid(3));
    return update(threads, command, arguments.mid(3));
}
