// SPDX-License-Identifier: MIT
#include "wording.h"

#include <QCoreApplication>
#include <QLocale>

using Job = Updater::Job;
using Result = Updater::Result;
using Stage = Updater::Stage;

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("Words", text);
}

QString sentences(const QStringList &sentences)
{
    QStringList said = sentences;
    said.removeAll(QString());
    return said.join(QLatin1Char(' '));
}

} // namespace

Words wordsBefore()
{
    return {Mark::Note, tr("Choose the game and the patch"),
        tr("Or verify that the installed files are as they should be.")};
}

Words wordsOf(Stage stage, Job job)
{
    const QString untouched = tr("The game is not touched yet. You can stop at any time.");
    switch (stage) {
    case Stage::Idle:
        break;
    case Stage::Unpacking:
        return {Mark::Working, tr("Unpacking the patch …"), untouched};
    case Stage::Planning:
        return {Mark::Working, tr("Checking the game and the patch …"), untouched};
    case Stage::Finishing:
        return {Mark::Working, tr("Finishing what was interrupted …"),
            tr("An earlier update was cut off. This takes a moment.")};
    case Stage::Checking:
        return {Mark::Working, job == Job::Update ? tr("Checking …") : tr("Verifying the files …"),
            untouched};
    case Stage::Writing:
        return {Mark::Working, tr("Writing the new files …"),
            tr("They are written beside the installed ones. You can stop at any time.")};
    case Stage::Committing:
        return {Mark::Working, tr("Putting the new files in place …"),
            tr("This takes a moment and cannot be stopped any more.")};
    }
    return wordsBefore();
}

Words wordsOf(const Pellox::UpdatePlan &plan)
{
    const int files = plan.filesToPatch + plan.filesToCopy;
    if (files + plan.deletions.size() == 0) {
        return {
            Mark::Good, tr("The game is up to date"), tr("There is nothing to do. You can play.")};
    }
    return {Mark::Note, tr("The update is ready"),
        tr("%1 to change, %2 to add, %3 to remove.\n"
           "%4 will be written; the disk needs %5 free.")
            .arg(filesText(plan.filesToPatch), filesText(plan.filesToCopy),
                filesText(plan.deletions.size()), bytesText(plan.bytesToWrite),
                bytesText(plan.peakExtraDisk))};
}

Words wordsOf(const Pellox::IntegrityReport &report)
{
    const auto damaged = static_cast<int>(
        report.changed.size() + report.missing.size() + report.unreadable.size());
    const QString extra = report.extra.isEmpty()
        ? QString()
        : tr("Not part of the game, and left alone: %1.").arg(filesText(report.extra.size()));
    if (report.isIntact()) {
        return {
            Mark::Good, tr("All is well: %1 verified").arg(filesText(report.intactFiles)), extra};
    }
    return {Mark::Warning,
        tr("%1 of %2 damaged or missing")
            .arg(QString::number(damaged), filesText(report.intactFiles + damaged)),
        sentences({tr("Choose a folder with the right files and press Repair."), extra})};
}

Words wordsOf(Result result, Job job, const QString &advice)
{
    const bool isRepair = job == Job::Repair;
    const bool isVerify = job == Job::Verify;
    const QString unchanged = tr("The game is as it was.");
    switch (result) {
    case Result::Updated:
        return {Mark::Good, isRepair ? tr("The game is repaired") : tr("The game is up to date"),
            tr("All files are in place. You can play.")};
    case Result::AlreadyUpToDate:
        return {Mark::Good,
            isRepair ? tr("There is nothing to repair") : tr("The game is up to date"),
            tr("All files are as they should be. You can play.")};
    case Result::Refused:
        return {Mark::Bad,
            isVerify       ? tr("The files cannot be verified")
                : isRepair ? tr("The game cannot be repaired like this")
                           : tr("This update cannot be installed"),
            sentences({tr("Nothing was changed."), advice})};
    case Result::Failed:
        // What was cut off is finished even where files of it are lost.
        return job == Job::Check
            ? Words{Mark::Bad, tr("The game has to be repaired"), advice}
            : Words{Mark::Bad, isRepair ? tr("The repair has failed") : tr("The update has failed"),
                sentences({unchanged, advice})};
    case Result::Interrupted:
        return {Mark::Bad, tr("The work is not finished"),
            sentences({tr("Do not start the game yet, and try again to finish it."), advice})};
    case Result::Cancelled:
        break;
    }
    return {Mark::Note, tr("Stopped, nothing was changed"), unchanged};
}

QString bytesText(qint64 bytes)
{
    return QLocale().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

QString filesText(qint64 files)
{
    return files == 1 ? tr("1 file") : tr("%1 files").arg(QLocale().toString(files));
}

QString pathText(const QString &relativePath)
{
    return relativePath.startsWith(QLatin1Char('/')) ? relativePath.mid(1) : relativePath;
}
