// SPDX-License-Identifier: MIT
#include "sevenzip.h"

#include "folders.h"
#include "interrupt.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <algorithm>
#include <numeric>
#include <utility>

namespace {

QString sevenZipPath()
{
    return QCoreApplication::applicationDirPath() + QLatin1String("/7zr");
}

bool isThere(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

void readField(ArchivedEntry &entry, const QString &name, const QString &value)
{
    if (name == QLatin1String("Path")) {
        entry.path = value;
    } else if (name == QLatin1String("Size")) {
        entry.size = value.toLongLong();
    } else if (name == QLatin1String("Encrypted")) {
        entry.isEncrypted = value == QLatin1String("+");
    } else if (name == QLatin1String("Attributes")) {
        entry.isFolder = value.startsWith(QLatin1Char('D'));
        entry.isLink = value.contains(QLatin1String(" l")); // as "ls" shows it
    }
}

/// The records of "7zr l -slt": one "Name = value" a line, a blank line between two records.
std::vector<ArchivedEntry> parseList(const QString &list)
{
    std::vector<ArchivedEntry> entries;
    ArchivedEntry entry{};
    const auto finish = [&] {
        if (!entry.path.isEmpty())
            entries.push_back(entry);
        entry = {};
    };
    for (const QString &line : list.split(QLatin1Char('\n'))) {
        const int separator = line.indexOf(QLatin1String(" = "));
        if (separator >= 0)
            readField(entry, line.left(separator), line.mid(separator + 3));
        else if (line.trimmed().isEmpty())
            finish();
    }
    finish();
    return entries;
}

/// Returns true when it ended well.
bool waitForEnd(QProcess &process)
{
    constexpr int Interval = 50; // milliseconds
    while (!process.waitForFinished(Interval) && process.state() != QProcess::NotRunning) {
        if (Interrupt::isStopped())
            process.kill();
    }
    Interrupt::throwIfStopped();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0
        && process.error() != QProcess::FailedToStart;
}

} // namespace

void requireSevenZip()
{
    if (!QFileInfo(sevenZipPath()).isExecutable()) {
        throw Refusal(sevenZipPath(),
            QStringLiteral("is not there: put the 7-Zip console program 7zr, or a link to it, "
                           "beside the program (Debian has it in the package p7zip)"));
    }
}

void refuseWildcards(const QString &path)
{
    if (path.contains(QLatin1Char('*')) || path.contains(QLatin1Char('?'))) {
        throw Refusal(
            path, QStringLiteral("has a * or ? in its path, which 7-Zip takes for a wildcard"));
    }
}

Volumes::Volumes(QString archive)
    : m_name(std::move(archive))
{
    const QLatin1String firstNumber(".001");
    if (m_name.endsWith(firstNumber) && QFileInfo(m_name).fileName() != firstNumber)
        m_name.chop(firstNumber.size());

    int number = 1;
    for (; isThere(path(number)); ++number)
        m_paths.append(path(number));
    const bool isAlone = m_paths.isEmpty() && QFileInfo(m_name).isFile();
    if (isAlone)
        m_paths.append(m_name);
    else if (hasVolumeAfter(number))
        m_firstGap = path(number);
}

/// Numbers of more than three digits have their own uses, so a lone one ("game.2024") tells
/// nothing.
bool Volumes::hasVolumeAfter(int number) const
{
    const QFileInfo info(m_name);
    const QRegularExpression form(QLatin1Char('^') + QRegularExpression::escape(info.fileName())
        + QLatin1String("\\.(\\d{3})$"));
    const QStringList entries = info.dir().entryList(QDir::Files | QDir::Hidden);
    return std::any_of(entries.cbegin(), entries.cend(),
        [&](const QString &entry) { return form.match(entry).captured(1).toInt() > number; });
}

QString Volumes::path(int number) const
{
    return m_name + QStringLiteral(".%1").arg(number, 3, 10, QLatin1Char('0'));
}

QStringList Volumes::pathsToReplace() const
{
    QStringList paths = m_paths;
    if (isThere(m_name) && !paths.contains(m_name))
        paths.append(m_name);
    return paths;
}

qint64 Volumes::size() const
{
    return std::accumulate(m_paths.cbegin(), m_paths.cend(), qint64(0),
        [](qint64 sum, const QString &path) { return sum + QFileInfo(path).size(); });
}

void Volumes::requireComplete() const
{
    if (isEmpty())
        throw Refusal(m_name, QStringLiteral("there is no such archive"));
    if (!m_firstGap.isEmpty())
        throw Refusal(m_firstGap, QStringLiteral("is missing from the volumes of the archive"));
}

std::vector<ArchivedEntry> entriesOfArchive(const QString &firstVolume)
{
    const QFileInfo archive(firstVolume);
    QProcess process;
    process.setWorkingDirectory(archive.path()); // which may hold wildcards
    process.start(sevenZipPath(),
        {QStringLiteral("l"), QStringLiteral("-slt"), QStringLiteral("-ba"),
            QStringLiteral("-sccUTF-8"), QStringLiteral("--"),
            QLatin1String("./") + archive.fileName()});
    process.closeWriteChannel(); // a password that it asks for is not given
    if (!waitForEnd(process)) {
        Interrupt::throwIfStoppedLately();
        const QString output = QString::fromUtf8(
            process.readAllStandardOutput() + '\n' + process.readAllStandardError());
        throw Refusal(firstVolume,
            QStringLiteral("cannot be read as an archive (is a volume missing or damaged, or is "
                           "there a password?): %1")
                .arg(output.simplified()));
    }
    return parseList(QString::fromUtf8(process.readAllStandardOutput()));
}

int countFiles(const std::vector<ArchivedEntry> &entries)
{
    return static_cast<int>(std::count_if(entries.cbegin(), entries.cend(),
        [](const ArchivedEntry &entry) { return !entry.isFolder; }));
}
