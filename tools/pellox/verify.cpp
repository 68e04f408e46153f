// SPDX-License-Identifier: MIT
#include "buildstate.h"
#include "commands.h"
#include "failedrules.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "patchcheck.h"

#include <Pellox/BinariesController>
#include <Pellox/rules.h>

#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QJsonObject>

#include <algorithm>
#include <memory>

namespace {

struct Arguments
{
    std::string build;
    std::string patch;
    bool tellsAll = false; ///< every file, however many
};

constexpr int MostTold = 10;

bool isPatchRule(const QJsonValue &rule)
{
    return ruleNameOf(rule) == Pellox::PATCH_RULE;
}

bool isPatchWithoutTemporary(const QString &build, const QJsonValue &rule)
{
    return isPatchRule(rule)
        && !QFileInfo::exists(build + relativePathOf(rule) + QLatin1String(".temp"));
}

/// What it means that @p missing of @p patched files have nothing to verify.
void noteMissing(Console &console, qint64 missing, qint64 patched)
{
    if (missing > 0 && missing == patched) {
        console.note(QStringLiteral("nothing is left to verify: run \"pellox apply\" first, or the "
                                    "patch has been verified already; \"pellox update --dry-run\" "
                                    "tells whether the build is the new one"));
    } else if (missing > 0) {
        console.note(QStringLiteral("what is not found was put in place by an earlier verify, or "
                                    "never written because \"pellox apply\" failed"));
    }
}

/// Names the first of the files to verify, where none of them is there; a patch may have thousands.
void tellFirstMissing(Console &console, const QString &build, const QJsonArray &rules)
{
    int told = 0;
    int left = 0;
    for (const QJsonValue &rule : rules) {
        if (!isPatchRule(rule))
            continue;
        if (told == MostTold) {
            ++left;
            continue;
        }
        ++told;
        console.error(build + relativePathOf(rule), QStringLiteral("has no .temp file to verify"));
    }
    console.note(
        QStringLiteral("and so for %1; -v names them all").arg(counted(left, "more file")));
}

/// That a checked file could not take the old one's place is no error to the library.
void reportLeftTemporaries(Console &console, const QString &build, const QJsonArray &rules)
{
    for (const QJsonValue &rule : rules) {
        const QString path = build + relativePathOf(rule);
        if (isPatchRule(rule) && QFileInfo::exists(path + QLatin1String(".temp")))
            console.error(path, QStringLiteral("cannot be replaced by its .temp file"));
    }
}

bool verify(Console &console, const Arguments &arguments)
{
    const QString build = existingFolder(arguments.build);
    const QString patch = existingFolder(arguments.patch);
    const QJsonArray rules = readRules(patch, build);
    requireApart(patch, build);
    requireInside(build, rules);
    if (QDir(build).isEmpty())
        throw Refusal(build, QStringLiteral("is empty: there is no build to verify"));
    const BuildLock lock(build);

    const auto patched = std::count_if(rules.begin(), rules.end(), isPatchRule);
    const auto missing = std::count_if(rules.begin(), rules.end(),
        [&](const QJsonValue &rule) { return isPatchWithoutTemporary(build, rule); });
    if (missing == patched && patched > MostTold && !arguments.tellsAll) {
        tellFirstMissing(console, build, rules);
        noteMissing(console, missing, patched);
        return false;
    }

    FailedRules failedRules(console, build);
    Pellox::BinariesController controller;
    QObject::connect(&controller, &Pellox::BinariesController::verifyError,
        [&](const QString &text) { failedRules.signalled(text); });
    QObject::connect(&controller, &Pellox::BinariesController::verifyProgress,
        [&](qint64 done, qint64) { console.advanceTo(done); });
    bool success = false;
    QEventLoop loop;
    QObject::connect(
        &controller, &Pellox::BinariesController::verifyFinished, &loop, [&](bool allSucceeded) {
            success = allSucceeded;
            loop.quit();
        });

    const Interrupt::Advice advice(
        "pellox: interrupted: run \"pellox verify\" again, not \"pellox apply\"\n");
    console.startProgress(QStringLiteral("verify"), Progress::Unit::Files, rules.size());
    if (!controller.verifyPatchedFiles(build, patch)) {
        console.error(build, QStringLiteral("is empty or has lost its patch meanwhile"));
        return false;
    }
    loop.exec();
    console.stopProgress();
    reportLeftTemporaries(console, build, rules);
    noteMissing(console, missing, patched);
    if (console.errorCount() > 0)
        return false;
    if (success) {
        console.result(
            QStringLiteral("Verified %1 and put them in place: %2").arg(fileCount(patched), build));
    }
    return success;
}

} // namespace

void addVerifyCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(
        app, invocation, "verify", "Check what \"pellox apply\" wrote and put it in place");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("BUILD", arguments->build, "The installed build, changed in place")
        ->type_name("FOLDER")
        ->required();
    command->add_option("PATCH", arguments->patch, "The patch that was applied")
        ->type_name("FOLDER")
        ->required();
    command->footer("Each patched file replaces the old one only if its SHA-512 is that of the\n"
                    "patch; otherwise it is deleted and the old one stays. Works once per apply:\n"
                    "a second run finds nothing left to check and fails.\n\n"
        + exitStatusHelp() + "\nExample:\n  pellox verify installed/game patches/1.0-1.1");
    command->callback([arguments, &invocation] {
        arguments->tellsAll = invocation.console.json || invocation.console.verbose;
        invocation.run = [arguments](Console &console) { return verify(console, *arguments); };
    });
}
