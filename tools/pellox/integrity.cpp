// SPDX-License-Identifier: MIT
#include "integrity.h"

#include "buildrun.h"
#include "console.h"
#include "manifests.h"

#include <QJsonObject>

namespace {

void tell(Console &console, const char *state, const QStringList &paths)
{
    constexpr int Width = 10;
    const QString name = QString::fromLatin1(state);
    for (const QString &path : paths) {
        const QString file = withoutSeparator(path);
        console.event(QStringLiteral("file-state"),
            {{QStringLiteral("file"), file}, {QStringLiteral("state"), name}});
        console.result(name.leftJustified(Width) + QLatin1String("  ") + file);
    }
}

} // namespace

void tellDifferences(Console &console, const Pellox::IntegrityReport &report)
{
    tell(console, "changed", report.changed);
    tell(console, "missing", report.missing);
    tell(console, "unreadable", report.unreadable);
}

void tellExtraFiles(Console &console, const Pellox::IntegrityReport &report)
{
    if (!report.extra.isEmpty())
        console.result(
            QStringLiteral("Files that the signatures do not name, which do not count:"));
    tell(console, "extra", report.extra);
    console.event(QStringLiteral("integrity"),
        {{QStringLiteral("intact"), report.intactFiles},
            {QStringLiteral("changed"), report.changed.size()},
            {QStringLiteral("missing"), report.missing.size()},
            {QStringLiteral("unreadable"), report.unreadable.size()},
            {QStringLiteral("extra"), report.extra.size()}});
}

void noteOtherBuild(Console &console, const Pellox::IntegrityReport &report, const QString &build)
{
    const bool anyThere
        = report.intactFiles > 0 || !report.changed.isEmpty() || !report.unreadable.isEmpty();
    if (!anyThere && !report.missing.isEmpty())
        console.note(
            build + QLatin1String(": nothing of the build was there: is this the right folder?"));
}

QString integritySummary(const Pellox::IntegrityReport &report)
{
    QString text = fileCount(report.intactFiles) + QLatin1String(" intact");
    const auto add = [&](const QStringList &files, const char *state) {
        if (!files.isEmpty())
            text += QStringLiteral(", %1 %2").arg(files.size()).arg(QString::fromLatin1(state));
    };
    add(report.changed, "changed");
    add(report.missing, "missing");
    add(report.unreadable, "unreadable");
    if (!report.extra.isEmpty())
        text += QLatin1String("; ") + counted(report.extra.size(), "extra file");
    return text;
}

void addBuildAndSignatures(
    CLI::App &command, std::string &build, const std::string &buildMeans, std::string &signatures)
{
    command.add_option("BUILD", build, buildMeans)->type_name("FOLDER")->required();
    command
        .add_option("SIGNATURES", signatures,
            "What \"pellox publish\" or \"pellox sign\" wrote for this build; its signatures.json "
            "is enough")
        ->type_name("FOLDER")
        ->required();
}
