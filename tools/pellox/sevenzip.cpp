// SPDX-License-Identifier: MIT
#include "sevenzip.h"

#include "folders.h"
#include "interrupt.h"

#include <Pellox/outputparsers.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <algorithm>
#include <limits>

namespace {

const QString WhatBelongsThere
    = QStringLiteral("put the 7-Zip console program 7zr, or a link to it, beside the program "
                     "(Debian has it in the package p7zip)");

QString sevenZipPath()
{
    return QCoreApplication::applicationDirPath() + QLatin1String("/7zr");
}

/// 7-Zip knows sizes that no file can have here.
qint64 sizeOf(const QString &value)
{
    constexpr auto Largest = std::numeric_limits<qint64>::max();
    return static_cast<qint64>(std::min(value.toULongLong(), quint64(Largest)));
}

void readField(ArchivedEntry &entry, const QString &name, const QString &value)
{
    if (name == QLatin1String("Path")) {
        entry.path = value;
    } else if (name == QLatin1String("Size")) {
        entry.size = sizeOf(value);
    } else if (name == QLatin1String("Encrypted")) {
        entry.isEncrypted = value == QLatin1String("+");
    } else if (name == QLatin1String("Attributes")) {
        // Windows' letters, which may be "RD", and then what "ls" shows.
        entry.hasAttributes = !value.isEmpty();
        entry.isFolder = value.section(QLatin1Char(' '), 0, 0).contains(QLatin1Char('D'));
        entry.isLink = value.contains(QLatin1String(" l"));
    }
}

/// What "7zr l -slt" tells of the archive itself, and behind it the records of the entries.
const QString EndOfHead = QStringLiteral("\n----------\n");

/// 7-Zip's console program reads some other formats too, whose lists tell no names.
void refuseOtherFormats(const QString &head, const QString &firstVolume)
{
    static const QRegularExpression Type(
        QStringLiteral("^Type = (.*)$"), QRegularExpression::MultilineOption);
    QString type;
    for (auto match = Type.globalMatch(head); match.hasNext();)
        type = match.next().captured(1); // of volumes "Split" comes first
    if (type != QLatin1String("7z")) {
        throw Refusal(
            firstVolume, QStringLiteral("is no 7z archive but one of the type \"%1\"").arg(type));
    }
}

/// The records: one "Name = value" a line, a blank line between two records.
std::vector<ArchivedEntry> parseRecords(const QString &list)
{
    std::vector<ArchivedEntry> entries;
    ArchivedEntry entry{};
    const auto finish = [&] {
        if (!entry.path.isEmpty())
            entries.push_back(entry);
        entry = {};
    };
    for (const QString &line : list.split(QLatin1Char('\n'))) {
        const auto separator = line.indexOf(QLatin1String(" = "));
        if (separator >= 0)
            readField(entry, line.left(separator), line.mid(separator + 3));
        else if (line.trimmed().isEmpty())
            finish();
    }
    finish();
    return entries;
}

void requireSevenZipFile()
{
    const QFileInfo program(sevenZipPath());
    if (!program.isFile() || !program.isExecutable())
        throw Refusal(sevenZipPath(), QLatin1String("is not there: ") + WhatBelongsThere);
}

/// Returns true when it ended well. Throws Refusal when it could not be started.
bool waitForEnd(QProcess &process)
{
    constexpr int Interval = 50; // milliseconds
    while (!process.waitForFinished(Interval) && process.state() != QProcess::NotRunning) {
        if (Interrupt::isStopped())
            process.kill();
    }
    Interrupt::throwIfStopped();
    if (process.error() == QProcess::FailedToStart) {
        throw Refusal(process.program(),
            QStringLiteral("cannot be run (%1): ").arg(process.errorString()) + WhatBelongsThere);
    }
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

/// The end of @p process tells why.
void refuseUnreadable(const QString &firstVolume, QProcess &process)
{
    if (process.readAllStandardOutput().contains("Enter password"))
        throw Refusal(firstVolume, QStringLiteral("has a password, and none can be given"));
    const QString name = QLatin1String("./") + QFileInfo(firstVolume).fileName();
    const QString error = errorIn(QString::fromUtf8(process.readAllStandardError()))
                              .remove(name + QLatin1String(" : "));
    throw Refusal(firstVolume,
        QStringLiteral("is damaged or no 7z archive (7-Zip: %1); download it or make it again")
            .arg(error.isEmpty() ? QStringLiteral("no error told") : error));
}

} // namespace

void requireSevenZip()
{
    requireSevenZipFile();
    // One that cannot be run would be found out only when the work has begun.
    QProcess process;
    process.start(sevenZipPath(), QStringList()); // which prints its help
    process.closeWriteChannel();
    waitForEnd(process);
}

void refuseWildcards(const QString &path)
{
    if (path.contains(QLatin1Char('*')) || path.contains(QLatin1Char('?'))) {
        throw Refusal(
            path, QStringLiteral("has a * or ? in its path, which 7-Zip takes for a wildcard"));
    }
}

bool readsAsVerdict(const QString &text)
{
    // Unpacking looks for errors in any case.
    return !checkErrors(text.toUpper()).isEmpty() || isEverythingIsOk(text);
}

QString errorIn(const QString &output)
{
    // Below "ERRORS:" where there is such a list; "ERROR:" may stand before it, and a line break
    // behind that.
    static const QRegularExpression List(QStringLiteral("^ERRORS:\\s*(.*)$"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::MultilineOption);
    static const QRegularExpression Line(QStringLiteral("ERROR:\\s*(.*)$"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::MultilineOption);
    const QString fromList = List.match(output).captured(1).trimmed();
    return fromList.isEmpty() ? Line.match(output).captured(1).trimmed() : fromList;
}

std::vector<ArchivedEntry> entriesOfArchive(const QString &firstVolume)
{
    requireSevenZipFile();
    const QFileInfo archive(firstVolume);
    QProcess process;
    process.setWorkingDirectory(archive.path()); // which may hold wildcards
    process.start(sevenZipPath(),
        {QStringLiteral("l"), QStringLiteral("-slt"), QStringLiteral("-sccUTF-8"),
            QStringLiteral("--"), QLatin1String("./") + archive.fileName()});
    process.closeWriteChannel(); // a password that it asks for is not given
    if (!waitForEnd(process)) {
        Interrupt::throwIfStoppedLately();
        refuseUnreadable(firstVolume, process);
    }
    const QString list = QString::fromUtf8(process.readAllStandardOutput());
    const auto endOfHead = list.indexOf(EndOfHead);
    refuseOtherFormats(list.left(endOfHead), firstVolume);
    return endOfHead < 0 ? std::vector<ArchivedEntry>()
                         : parseRecords(list.mid(endOfHead + EndOfHead.size()));
}

int countFiles(const std::vector<ArchivedEntry> &entries)
{
    return static_cast<int>(std::count_if(entries.cbegin(), entries.cend(),
        [](const ArchivedEntry &entry) { return !entry.isFolder; }));
}
