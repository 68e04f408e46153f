// SPDX-License-Identifier: MIT
#include "commands.h"
#include "engine.h"
#include "folders.h"
#include "inspection.h"
#include "inspectreport.h"
#include "interrupt.h"
#include "keyfiles.h"
#include "manifests.h"
#include "newfolders.h"
#include "patchsums.h"
#include "sealview.h"

#include <Pellox/PatchInspector>
#include <Pellox/PatchSeal>
#include <Pellox/rules.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QSaveFile>
#include <QSet>

#include <algorithm>
#include <memory>
#include <optional>

using Pellox::InspectedFile;

namespace {

struct Arguments
{
    std::string patch;
    std::optional<std::string> oldSignatures;
    std::optional<std::string> report;
    bool force = false;
    int top = 10;
    std::vector<std::string> trustedKeys;
};

/// The absolute path of the report to write, empty where none is wanted.
QString checkedReport(const Arguments &arguments, const QString &patch)
{
    if (!arguments.report)
        return {};
    QString report = absoluteFile(*arguments.report);
    const QFileInfo info(report);
    if (info.isDir())
        throw Refusal(report, QStringLiteral("is a folder"));
    if (info.exists() && !info.isFile())
        throw Refusal(report, QStringLiteral("is not a regular file"));
    if (info.exists() && !arguments.force && !isInspectReport(report)) {
        throw Refusal(report,
            QStringLiteral("exists and is no report of this program (--force replaces it)"));
    }
    requireOutside(report, patch); // or it would be shipped
    requireWritable(info.path());
    return report;
}

/// The folder with the old build's signatures, empty where none is given.
QString checkedSignatures(const Arguments &arguments, const QString &report)
{
    if (!arguments.oldSignatures)
        return {};
    QString folder = existingFolder(*arguments.oldSignatures);
    requireManifest(folder, Pellox::SIGNATURES_FILE);
    if (!report.isEmpty())
        requireOutside(report, folder);
    return folder;
}

/// A name may hold what a terminal takes for a command.
QString printable(const QString &path)
{
    QString text;
    for (const QChar character : path) {
        if (character.category() == QChar::Other_Control) {
            text += QStringLiteral("\\x%1").arg(
                static_cast<uint>(character.unicode()), 2, 16, QLatin1Char('0'));
        } else {
            text += character;
        }
    }
    return text;
}

/// Rows of text in columns, all but the last one flush right. A row in front names the columns.
class Table
{
public:
    explicit Table(const QStringList &heads) { add(heads); }

    void add(const QStringList &row)
    {
        m_rows.append(row);
        for (int i = 0; i < row.size(); ++i) {
            if (i == m_widths.size())
                m_widths.append(0);
            m_widths[i] = std::max(m_widths.at(i), static_cast<int>(row.at(i).size()));
        }
    }

    void print(Console &console) const
    {
        for (const QStringList &row : m_rows) {
            QString line;
            for (int i = 0; i < row.size() - 1; ++i)
                line += QLatin1String("  ") + row.at(i).rightJustified(m_widths.at(i));
            console.result(line + QLatin1String("  ") + row.last());
        }
    }

private:
    QVector<QStringList> m_rows;
    QVector<int> m_widths;
};

void printRules(Console &console, const QVector<InspectedFile> &files, const QString &patch)
{
    const PatchSums all = sumsOf(files);
    console.result(QStringLiteral("%1 for new files of %2: %3")
                       .arg(byteCount(all.patchBytes), byteCount(all.newSize), printable(patch)));
    Table table({QStringLiteral("files"), QStringLiteral("in the patch"),
        QStringLiteral("new files"), QStringLiteral("from old files"), QStringLiteral("rule")});
    for (const QString &rule : {Pellox::PATCH_RULE, Pellox::COPY_RULE, Pellox::DELETE_RULE}) {
        const PatchSums sums = sumsOf(files, rule);
        const bool hasBytes = rule != Pellox::DELETE_RULE;
        const auto bytes = [&](qint64 count) { return hasBytes ? byteCount(count) : QString(); };
        table.add({QString::number(sums.files), bytes(sums.patchBytes), bytes(sums.newSize),
            rule == Pellox::PATCH_RULE ? byteCount(sums.copiedBytes) : QString(), rule});
    }
    console.result(QString());
    table.print(console);
}

void printDeltas(Console &console, const QVector<InspectedFile> &files, int top)
{
    const QVector<InspectedFile> deltas = largestDeltas(files).mid(0, top);
    if (deltas.isEmpty())
        return;
    Table table({QStringLiteral("in the patch"), QStringLiteral("literal"), QString(),
        QStringLiteral("copied"), QString(), QStringLiteral("largest deltas")});
    for (const InspectedFile &file : deltas) {
        table.add({byteCount(file.patchBytes), byteCount(file.literalBytes),
            percentage(file.literalBytes, file.newSize), byteCount(file.copiedBytes),
            percentage(file.copiedBytes, file.newSize), printable(shownPath(file.relativePath))});
    }
    console.result(QString());
    table.print(console);
}

/// New files of which the old build has at least half, under whatever name.
void printMoved(Console &console, const QVector<InspectedFile> &files, int top)
{
    const QVector<InspectedFile> moved = movedFiles(files);
    if (moved.isEmpty() || top == 0)
        return;
    Table table({QStringLiteral("in the patch"), QStringLiteral("known"),
        QStringLiteral("new files that the old build has under other names")});
    for (const InspectedFile &file : moved.mid(0, top)) {
        table.add({file.isLeftOut ? QStringLiteral("left out") : byteCount(file.patchBytes),
            oldShareOf(file),
            QStringLiteral("%1, %2 %3")
                .arg(printable(shownPath(file.relativePath)),
                    file.isMoved ? QStringLiteral("as") : QStringLiteral("most of it in"),
                    printable(shownPath(file.oldPath)))});
    }
    console.result(QString());
    table.print(console);
    if (moved.size() > top)
        console.result(QStringLiteral("  and %1 more (%2)")
                           .arg(QString::number(moved.size() - top),
                               byteCount(sumsOf(moved.mid(top)).patchBytes)));
}

void printFolders(Console &console, const QVector<InspectedFile> &files, int top)
{
    const QVector<FolderSums> folders = heaviestFolders(files).mid(0, top);
    if (folders.isEmpty())
        return;
    const qint64 whole = sumsOf(files).patchBytes;
    Table table({QStringLiteral("in the patch"), QString(), QStringLiteral("files"),
        QStringLiteral("heaviest folders")});
    for (const FolderSums &folder : folders) {
        table.add({byteCount(folder.sums.patchBytes), percentage(folder.sums.patchBytes, whole),
            QString::number(folder.sums.files), printable(folder.path)});
    }
    console.result(QString());
    table.print(console);
}

QJsonObject jsonOf(const PatchSums &sums)
{
    return {{QStringLiteral("files"), sums.files}, {QStringLiteral("size"), sums.newSize},
        {QStringLiteral("patch_bytes"), sums.patchBytes},
        {QStringLiteral("copied_bytes"), sums.copiedBytes},
        {QStringLiteral("literal_bytes"), sums.literalBytes}};
}

void recordFile(Console &console, const InspectedFile &file)
{
    QJsonObject members{{QStringLiteral("rule"), file.rule},
        {QStringLiteral("file"), shownPath(file.relativePath)}};
    if (file.rule != Pellox::DELETE_RULE) {
        members.insert(QStringLiteral("size"), file.newSize);
        members.insert(QStringLiteral("patch_bytes"), file.patchBytes);
        members.insert(QStringLiteral("copied_bytes"), file.copiedBytes);
        members.insert(QStringLiteral("literal_bytes"), file.literalBytes);
        members.insert(QStringLiteral("commands"), file.commands);
    }
    if (!file.oldPath.isEmpty()) {
        members.insert(QStringLiteral("old_file"), shownPath(file.oldPath));
        members.insert(QStringLiteral("old_bytes"), file.oldBytes);
        members.insert(QStringLiteral("moved"), file.isMoved);
        members.insert(QStringLiteral("estimated"), file.isOldEstimated);
        members.insert(QStringLiteral("left_out"), file.isLeftOut);
    }
    console.event(QStringLiteral("file"), members);
}

void record(Console &console, const QVector<InspectedFile> &files)
{
    for (const InspectedFile &file : files)
        recordFile(console, file);
    for (const FolderSums &folder : sumsOfFolders(files)) {
        QJsonObject members = jsonOf(folder.sums);
        members.insert(QStringLiteral("folder"), folder.path);
        console.event(QStringLiteral("folder"), members);
    }
    QJsonObject sums{{QStringLiteral("total"), jsonOf(sumsOf(files))}};
    for (const QString &rule : {Pellox::PATCH_RULE, Pellox::COPY_RULE, Pellox::DELETE_RULE})
        sums.insert(rule, jsonOf(sumsOf(files, rule)));
    console.event(QStringLiteral("summary"), sums);
}

bool writeReport(Console &console, const QString &path, const QByteArray &page)
{
    const Interrupt::Watch watch([] {}); // so that Ctrl-C leaves no temporary file
    const QString folder = QFileInfo(path).path();
    NewFolders newFolders;
    newFolders.expect(folder);
    QDir().mkpath(folder);
    QSaveFile file(path);
    // A write that the disk takes in part is no error to Qt.
    const bool written = file.open(QIODevice::WriteOnly) && file.write(page) == page.size();
    Interrupt::throwIfStopped();
    if (!written || !file.commit()) {
        const bool cutShort = file.error() == QFileDevice::NoError;
        console.error(path,
            QLatin1String("cannot be written: ")
                + (cutShort ? QStringLiteral("is the disk full?") : file.errorString()));
        return false;
    }
    newFolders.keep();
    console.result(QString());
    console.result(QStringLiteral("Report: ") + printable(path));
    console.event(QStringLiteral("report"), {{QStringLiteral("file"), path}});
    return true;
}

constexpr int MostTold = 10; // of many alike, where a person reads them

/// Calls @p tell for each of @p things, or for the first of them.
template <typename Things, typename Tell>
void tellFirst(Console &console, const Things &things, const Tell &tell)
{
    int told = 0;
    for (const auto &thing : things) {
        if (told == MostTold && !console.tellsAll())
            break;
        tell(thing);
        ++told;
    }
    if (told < things.size())
        console.note(QStringLiteral("and so for %1; -v names them all")
                         .arg(counted(things.size() - told, "more file")));
}

/// Names what stands in an unsealed patch and belongs to no rule.
void noteStrayFiles(Console &console, const QString &patch, const QVector<InspectedFile> &files)
{
    QSet<QString> known{pathIn(patch, Pellox::PATCH_RULES_FILE)};
    for (const InspectedFile &file : files) {
        if (file.rule != Pellox::DELETE_RULE)
            known.insert(patch + file.relativePath);
    }
    QStringList strays;
    for (const QString &path : filesOfBuild(patch)) {
        if (!known.contains(path))
            strays.append(path);
    }
    strays.sort();
    tellFirst(console, strays, [&](const QString &path) {
        console.event(QStringLiteral("stray"), {{QStringLiteral("file"), path}});
        console.note(printable(path) + QLatin1String(" is no part of the patch"));
    });
}

/// The public keys, of @p keys, that have signed the seal of @p patch. Nothing after
/// Console::error() where none of them has.
std::optional<QStringList> checkedSigners(
    Console &console, const QString &patch, const QStringList &keys)
{
    if (keys.isEmpty())
        return QStringList();
    QString error;
    const QStringList signers = Pellox::PatchSeal::signersOf(patch, keys, &error);
    if (!signers.isEmpty())
        return signers;
    console.error(culpritOf(error), error);
    return {};
}

SealView::Differences comparedWithSeal(Console &console, const SealView &seal)
{
    console.startProgress(QStringLiteral("compare"), Progress::Unit::Bytes, seal.size());
    const auto differences = seal.allDifferences([&](qint64 done) { console.advanceTo(done); });
    console.stopProgress();
    return differences;
}

/// Tells what the seal says and whether it holds.
bool checkSeal(
    Console &console, const SealView &seal, const QString &patch, const QStringList &keys)
{
    const SealView::Differences differences = comparedWithSeal(console, seal);
    tellFirst(console, differences, [&](const SealView::Difference &difference) {
        console.error(difference.path, difference.reason);
    });
    const auto signers = checkedSigners(console, patch, keys);
    console.event(QStringLiteral("seal"),
        {{QStringLiteral("release"), seal.release()}, {QStringLiteral("keys"), seal.keys()},
            {QStringLiteral("files"), seal.files()},
            {QStringLiteral("left_out"), seal.leftOutFiles()},
            {QStringLiteral("intact"), differences.isEmpty()},
            {QStringLiteral("signed_by"),
                QJsonArray::fromStringList(signers.value_or(QStringList()))}});
    const QString slimNote = seal.leftOutFiles() == 0
        ? QString()
        : QStringLiteral(" but %1 left out, which players have: a slim patch")
              .arg(fileCount(seal.leftOutFiles()));
    console.result(QString());
    console.result(QStringLiteral("Sealed release %1, %2, with %3: %4")
                       .arg(QString::number(seal.release()), fileCount(seal.files()),
                           counted(seal.keys(), "key"),
                           differences.isEmpty()
                               ? QStringLiteral("all is as it was sealed") + slimNote
                               : fileCount(differences.size()) + QLatin1String(" not as sealed")));
    for (const QString &signer : signers.value_or(QStringList()))
        console.result(QLatin1String("Signed with the private key of ") + printable(signer));
    return differences.isEmpty() && signers;
}

/// What there is to say of a seal, or where there is none. False after Console::error().
bool checkTrust(Console &console, const QString &patch, const QVector<InspectedFile> &files,
    const std::optional<SealView> &seal, const QStringList &keys)
{
    if (seal)
        return checkSeal(console, *seal, patch, keys);
    noteStrayFiles(console, patch, files);
    if (keys.isEmpty())
        return true;
    console.error(
        pathIn(patch, SealFile), QStringLiteral("is missing, so the patch is not sealed"));
    return false;
}

bool inspect(Console &console, const Arguments &arguments)
{
    const QString patch = existingFolder(arguments.patch);
    const QString report = checkedReport(arguments, patch);
    const QString oldSignatures = checkedSignatures(arguments, report);
    const auto rules = readManifest(patch, Pellox::PATCH_RULES_FILE).size();

    const QStringList keys = existingPublicKeys(arguments.trustedKeys);
    const auto seal = SealView::read(patch);

    const auto inspected = inspectPatch(console, patch, oldSignatures, rules,
        [&](const QString &message, const QString &path) { console.error(path, message); });
    if (!inspected)
        return false;

    const QVector<InspectedFile> &files = *inspected;
    record(console, files);
    printRules(console, files, patch);
    printDeltas(console, files, arguments.top);
    printMoved(console, files, arguments.top);
    printFolders(console, files, arguments.top);
    const bool isSound = checkTrust(console, patch, files, seal, keys);
    const bool isReported = report.isEmpty()
        || writeReport(console, report, inspectReport(QFileInfo(patch).fileName(), files));
    return isSound && isReported;
}

} // namespace

void addInspectCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command
        = addCommand(app, invocation, "inspect", "Show where the bytes of a patch went");
    const auto arguments = std::make_shared<Arguments>();
    command->add_option("PATCH", arguments->patch, "The folder of the patch, which is only read")
        ->type_name("FOLDER")
        ->required();
    command
        ->add_option("--old-signatures", arguments->oldSignatures,
            "The signatures of the build that the patch leads on from: tells which new files, or "
            "at least half of which, that build has under other names")
        ->type_name("FOLDER");
    CLI::Option *report
        = command
              ->add_option("--html", arguments->report,
                  "Write a report to look at: one HTML file, which replaces an earlier report")
              ->type_name("REPORT");
    command->add_flag("--force", arguments->force, "Let the report replace any file")
        ->needs(report);
    command
        ->add_option("--top", arguments->top,
            "How many deltas, folders and new files to list, 10 if not given")
        ->type_name("N")
        ->check(CLI::Range(0, 1000000));
    addKeysOption(*command, "--trusted-key", arguments->trustedKeys,
        "A public key: tells whether it belongs to one of those that the patch is sealed with");
    command->footer(
        "Exit status 1 means that the patch is damaged: a file is missing, a delta is\n"
        "broken, or a rule is not as it should be; or that it is not what was sealed.\n\n"
        + exitStatusHelp() + "\nExample:\n  pellox inspect patches/1.0-1.1 --html 1.0-1.1.html");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return inspect(console, *arguments); };
    });
}
