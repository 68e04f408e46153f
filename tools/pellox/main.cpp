// SPDX-License-Identifier: MIT
#include "folders.h"
#include "interrupt.h"
#include "log.h"
#include "program.h"
#include "qtversion.h"
#include "usage.h"

#include <QCoreApplication>
#include <QJsonObject>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include <langinfo.h>

namespace {

/// Build machines often run in the "C" locale, whose encoding could not name most files.
void useUtf8InPlainLocale()
{
    if (QByteArray(nl_langinfo(CODESET)) == "ANSI_X3.4-1968")
        takeFileNamesAsUtf8();
}

/// For the start of Qt 6, which warns of a locale whose encoding is not UTF-8.
void tellAllButWarnings(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type != QtWarningMsg)
        std::fprintf(stderr, "pellox: %s\n", qPrintable(text));
}

void tellEnding(Console &console, const Ending &ending)
{
    if (ending.message.isEmpty()) {
        console.outcome(ending.outcome);
        return;
    }
    console.event(QStringLiteral("finished"),
        {{QStringLiteral("outcome"), ending.outcome}, {QStringLiteral("status"), ending.status},
            {QStringLiteral("message"), ending.message}});
}

int run(const Invocation &invocation)
{
    Console console(invocation.console);
    Log::showOn(console);
    try {
        const Ending ending = invocation.run(console);
        console.stopProgress();
        tellEnding(console, ending);
        const bool isGood = ending.status == Done || ending.status == NothingToDo;
        return isGood && console.outputLost() ? invocation.failure : ending.status;
    } catch (const Refusal &refusal) {
        console.error(refusal.path(), refusal.path() + QLatin1String(": ") + refusal.reason(),
            {{QStringLiteral("code"), QStringLiteral("refused")}});
        console.outcome(QStringLiteral("refused"));
        return WrongUsage;
    } catch (const std::exception &problem) { // out of memory, say
        console.error(QString(), QString::fromLocal8Bit(problem.what()));
        console.outcome(QStringLiteral("failed"));
        return invocation.failure;
    } catch (const Interrupt::Stopped &stopped) {
        console.stopProgress();
        console.outcome(QStringLiteral("interrupted"));
        Interrupt::tell();
        return stopped.exitStatus();
    }
}

int parseAndRun(int argc, char **argv)
{
    CLI::App app;
    Invocation invocation;
    describeProgram(app, invocation);
    try {
        std::vector<std::string> words = commandLineWords(argc, argv);
        requireCommand(app, words);
        std::reverse(words.begin(), words.end()); // as CLI11 wants them
        app.parse(std::move(words));
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? Done : WrongUsage;
    }
    return run(invocation);
}

} // namespace

int main(int argc, char **argv)
{
    // Errors are made of the library's critical lines, so no filter may hide them.
    qputenv("QT_LOGGING_RULES", qgetenv("QT_LOGGING_RULES") + ";BinariesController.critical=true");
    const QtMessageHandler usualHandler = qInstallMessageHandler(tellAllButWarnings);
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(usualHandler);
    useUtf8InPlainLocale();
    Interrupt::install();
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception &error) { // out of memory, say
        std::fprintf(stderr, "pellox: error: %s\n", error.what());
        return Failed;
    }
}
