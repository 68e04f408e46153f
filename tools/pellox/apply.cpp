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
#include <QTimer>

#include <algorithm>
#include <memory>
#include <vector>

namespace {

struct Arguments
{
    std::string build;
    std::string patch;
};

/// How much of a patch is on the disk. The library does not tell while it patches.
class WrittenBytes
{
public:
    WrittenBytes(const QJsonArray &rules, const QString &build, const QString &patch)
    {
        for (const QJsonValue &rule : rules) {
            const QString name = ruleNameOf(rule);
            const QString path = build + relativePathOf(rule);
            if (name == Pellox::PATCH_RULE) {
                add(path + QLatin1String(".temp"), fileSizeOf(rule));
            } else if (name == Pellox::COPY_RULE) {
                add(path, QFileInfo(patch + relativePathOf(rule)).size());
            }
        }
    }

    qint64 total() const { return m_total; }

    qint64 measure()
    {
        qint64 underWay = 0;
        const auto isComplete = [&](const Target &target) {
            const qint64 size = QFileInfo(target.path).size();
            if (size < target.size)
                underWay += size;
            else
                m_complete += target.size;
            return size >= target.size;
        };
        m_open.erase(std::remove_if(m_open.begin(), m_open.end(), isComplete), m_open.end());
        return m_complete + underWay;
    }

private:
    struct Target
    {
        QString path;
        qint64 size;
    };

    void add(const QString &path, qint64 size)
    {
        m_open.push_back({path, size});
        m_total += size;
    }

    std::vector<Target> m_open; ///< not seen in full yet
    qint64 m_complete = 0;
    qint64 m_total = 0;
};

bool apply(Console &console, const Arguments &arguments)
{
    const QString build = existingFolder(arguments.build);
    const QString patch = existingFolder(arguments.patch);
    const QJsonArray rules = readRules(patch, build);
    requireApart(patch, build);
    requireInside(build, rules);
    if (QDir(build).isEmpty())
        throw Refusal(build, QStringLiteral("is empty: there is no build to patch"));
    const BuildLock lock(build);

    refuseInterruptedVerify(build, rules);
    requireInstalledFiles(build, rules);
    requirePayloads(patch, rules);
    requireRoomForPatch(build, patch, rules);

    FailedRules failedRules(console, build,
        [&](const QJsonObject &rule) { return reasonOfFailure(rule, build, patch); });
    Pellox::BinariesController controller;
    QObject::connect(&controller, &Pellox::BinariesController::applyPatchError,
        [&](const QString &text) { failedRules.signalled(text); });
    bool success = false;
    QEventLoop loop;
    QObject::connect(
        &controller, &Pellox::BinariesController::finished, &loop, [&](bool allSucceeded) {
            success = allSucceeded;
            loop.quit();
        });

    constexpr int MeasureInterval = 500; // milliseconds: each looks at every file under way
    WrittenBytes written(rules, build, patch);
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { console.advanceTo(written.measure()); });

    const Interrupt::Advice advice("pellox: interrupted: run \"pellox apply\" again\n");
    console.startProgress(QStringLiteral("apply"), Progress::Unit::Bytes, written.total());
    timer.start(MeasureInterval);
    if (!controller.applyPatch(build, patch)) {
        console.error(build, QStringLiteral("is empty: there is no build to patch"));
        return false;
    }
    loop.exec();
    timer.stop();
    if (success)
        console.advanceTo(written.total());
    console.stopProgress();

    if (!success || console.errorCount() > 0) {
        console.note(QStringLiteral("what failed was left out and nothing is undone: if \"pellox "
                                    "update --dry-run\" does not tell that the build is the new "
                                    "one, remove the cause, then run \"pellox apply\" again before "
                                    "\"pellox verify\""));
        return false;
    }
    console.result(QStringLiteral("Applied %1 (%2). To check and put the patched files in place: "
                                  "pellox verify")
                       .arg(counted(rules.size(), "rule"), byteCount(written.total())));
    return true;
}

} // namespace

void addApplyCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(app, invocation, "apply",
        "Apply a patch to an installed build; \"pellox verify\" then completes it");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("BUILD", arguments->build, "The installed build, changed in place")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("PATCH", arguments->patch, "What \"pellox publish\" or \"pellox diff\" wrote")
        ->type_name("FOLDER")
        ->required();
    command->footer("New files are copied in and old ones deleted at once; patched files are\n"
                    "written beside the old ones as .temp files until \"pellox verify\".\n\n"
        + exitStatusHelp()
        + "\nExample:\n  pellox apply installed/game patches/1.0-1.1\n"
          "  pellox verify installed/game patches/1.0-1.1");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return apply(console, *arguments); };
    });
}
