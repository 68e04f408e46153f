// SPDX-License-Identifier: MIT
// Updates an installed game: console-host BUILD PATCH, a folder or an archive. Exit status
// 0: the game is up to date, 1: it is not, 2: wrong usage, 130: it is as it was, after Ctrl-C.
#include <Pellox/ArchiveController>
#include <Pellox/UpdateController>

#include <QtCore>

#include <csignal>
#include <unistd.h>

using Pellox::ArchiveController, Pellox::UpdateController;
using Result = UpdateController::UpdateResult;
static volatile std::sig_atomic_t s_isStopped = 0; // all that a signal may do is to set it

static void say(const QString &text, const char *end = "\n")
{
    std::printf("%s%s%s", isatty(STDOUT_FILENO) ? "\r\033[K" : "", qPrintable(text), end);
    std::fflush(stdout);
}

static bool unpack(const QString &file, const QString &folder)
{
    ArchiveController archive;
    archive.setSilentEndIsError(true);
    QObject::connect(&archive, &ArchiveController::extractError,
        [](const QStringList &errors) { say(errors.last()); });
    return archive.extractArchive(QFileInfo(file).absoluteFilePath(), folder, QString());
}

static void listen(UpdateController &updater)
{
    // The third argument, the context, brings the signals to this thread.
    QObject::connect(&updater, &UpdateController::phaseChanged, &updater,
        [](auto phase) { say(QVariant::fromValue(phase).toString()); });
    QObject::connect(&updater, &UpdateController::updateProgress, &updater,
        [clock = QElapsedTimer()](qint64 done, qint64 total) mutable {
            if (!clock.isValid() || done == 0)
                clock.start();
            const double percent = 100 * double(done) / double(total);
            const double rate = double(done + 1) / double(clock.elapsed() + 1) / 1e3; // MB/s
            const double left = double(total - done) / rate / 1e6;
            if (isatty(STDOUT_FILENO))
                say(QString::asprintf("%.0f %%, %.1f MB/s, %.0f s left", percent, rate, left), "");
        });
    QObject::connect(&updater, &UpdateController::problemFound, &updater, [](const auto &problem) {
        say(problem.message() + QLatin1String("\n  ") + problem.advice());
    });
    QObject::connect(&updater, &UpdateController::finished, &updater, [](Result end) {
        say(QVariant::fromValue(end).toString());
        QCoreApplication::exit(end == Result::Cancelled ? 130 : end > Result::AlreadyUpToDate);
    });
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc != 3)
        return say(QStringLiteral("Usage: console-host BUILD PATCH")), 2;
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    QString patch = application.arguments().at(2);
    UpdateController updater;
    listen(updater);
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, &updater, [&] {
        if (s_isStopped)
            updater.cancel();
    });
    watch.start(50);
    std::signal(SIGINT, [](int) { s_isStopped = 1; }); // a terminal's Ctrl-C ends 7-Zip as well
    std::unique_ptr<QTemporaryDir> unpacked;           // goes at the end
    if (QFileInfo(patch).isFile()) {
        unpacked = std::make_unique<QTemporaryDir>(patch + QLatin1String(".XXXXXX"));
        if (!unpack(patch, unpacked->path()) || s_isStopped)
            return s_isStopped ? 130 : 1;
        patch = unpacked->path();
    }
    return updater.update(application.arguments().at(1), patch) ? QCoreApplication::exec() : 1;
}
