// SPDX-License-Identifier: MIT
#include "sevenzip.h"

#include "folders.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>

#include <numeric>

namespace {

QString sevenZipPath()
{
    return QCoreApplication::applicationDirPath() + QLatin1String("/7zr");
}

QString volumePath(const QString &name, int number)
{
    return QStringLiteral("%1.%2").arg(name).arg(number, 3, 10, QLatin1Char('0'));
}

/// The records of "7zr l -slt": one "Name = value" a line, a blank line between two records.
std::vector<ArchivedFile> parseList(const QString &list)
{
    std::vector<ArchivedFile> files;
    ArchivedFile file{};
    bool isFolder = false;
    const auto finish = [&] {
        if (!file.path.isEmpty() && !isFolder)
            files.push_back(file);
        file = {};
        isFolder = false;
    };
    for (const QString &line : list.split(QLatin1Char('\n'))) {
        const int separator = line.indexOf(QLatin1String(" = "));
        if (separator < 0) {
            if (line.trimmed().isEmpty())
                finish();
            continue;
        }
        const QString name = line.left(separator);
        const QString value = line.mid(separator + 3);
        if (name == QLatin1String("Path"))
            file.path = value;
        else if (name == QLatin1String("Size"))
            file.size = value.toLongLong();
        else if (name == QLatin1String("Attributes"))
            isFolder = value.startsWith(QLatin1Char('D'));
        if (name == QLatin1String("Attributes"))
            file.isLink = value.contains(QLatin1String(" l")); // as "ls" shows it
    }
    finish();
    return files;
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

Volumes::Volumes(const QString &archive)
{
    m_name = archive;
    if (m_name.endsWith(QLatin1String(".001")))
        m_name.chop(4);

    const QFileInfo info(m_name);
    const QRegularExpression form(QLatin1Char('^') + QRegularExpression::escape(info.fileName())
        + QLatin1String("\\.(\\d{3,})(\\.tmp)?$"));
    QMap<int, QString> byNumber;
    for (const QString &entry : info.dir().entryList(QDir::Files | QDir::Hidden)) {
        const QRegularExpressionMatch match = form.match(entry);
        const QString path = info.dir().absoluteFilePath(entry);
        if (match.hasMatch() && match.captured(2).isEmpty())
            byNumber.insert(match.captured(1).toInt(), path);
        else if (match.hasMatch())
            m_unfinished.append(path);
    }
    if (byNumber.isEmpty() && info.isFile()) {
        m_paths.append(m_name);
        return;
    }
    m_paths = byNumber.values();
    int expected = 1;
    for (const int number : byNumber.keys()) {
        if (number != expected) {
            m_firstGap = volumePath(m_name, expected);
            return;
        }
        ++expected;
    }
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

void Volumes::remove() const
{
    for (const QString &path : m_paths + m_unfinished) {
        if (!QFile::remove(path))
            throw Refusal(path, QStringLiteral("cannot be replaced"));
    }
}

std::vector<ArchivedFile> filesInArchive(const QString &firstVolume)
{
    QProcess process;
    process.start(sevenZipPath(),
        {QStringLiteral("l"), QStringLiteral("-slt"), QStringLiteral("-ba"),
            QStringLiteral("-sccUTF-8"), QStringLiteral("--"), firstVolume});
    process.closeWriteChannel(); // a password that it asks for is not given
    const bool ended = process.waitForFinished(-1);
    if (!ended || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        const QString output = QString::fromUtf8(
            process.readAllStandardOutput() + '\n' + process.readAllStandardError());
        throw Refusal(firstVolume,
            QStringLiteral("cannot be read as an archive (is a volume missing or damaged, or is "
                           "there a password?): %1")
                .arg(output.simplified()));
    }
    return parseList(QString::fromUtf8(process.readAllStandardOutput()));
}
