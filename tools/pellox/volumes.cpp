// SPDX-License-Identifier: MIT
#include "volumes.h"

#include "folders.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <numeric>
#include <utility>

namespace {

/// 7-Zip waits for ever at a pipe, and misleads about the others.
void requireFile(const QString &path)
{
    const QFileInfo info(path);
    if (info.isDir())
        throw Refusal(path, QStringLiteral("is a folder, not a volume of an archive"));
    if (!info.exists())
        throw Refusal(path, QStringLiteral("is a link that leads nowhere"));
    if (!info.isFile())
        throw Refusal(path, QStringLiteral("is a pipe, socket or device, not an archive"));
}

} // namespace

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

/// Numbers of more than three digits have their own uses, so one ("game.2024") tells nothing
/// unless all of three digits are there.
bool Volumes::hasVolumeAfter(int number) const
{
    const QFileInfo info(m_name);
    const QLatin1String digits(number < 999 ? "\\.(\\d{3})$" : "\\.(\\d{3,})$");
    const QRegularExpression form(
        QLatin1Char('^') + QRegularExpression::escape(info.fileName()) + digits);
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
    for (const QString &path : m_paths)
        requireFile(path);
    if (!m_firstGap.isEmpty())
        throw Refusal(m_firstGap, QStringLiteral("is missing from the volumes of the archive"));
    if (isEmpty())
        refuseNone();
}

void Volumes::refuseNone() const
{
    if (isThere(m_name))
        requireFile(m_name);
    QString reason
        = QStringLiteral("there is no such archive, neither a file of this name nor ") + path(1);
    const Volumes meant(m_name + QLatin1String(".7z"));
    if (!meant.isEmpty())
        reason += QStringLiteral("; did you mean %1?").arg(meant.paths().first());
    throw Refusal(m_name, reason);
}

void refuseWrongArchive(const QString &archive)
{
    if (QFileInfo(archive).isDir()) {
        throw Refusal(archive,
            QStringLiteral("is a folder: the archive stands first, the folder to fill second"));
    }
    static const QRegularExpression Form(QStringLiteral("^(.+)\\.\\d{3}$"));
    const QString name = Form.match(archive).captured(1);
    const Volumes volumes(name);
    const QString first = volumes.path(1);
    const bool isNameItself
        = name.isEmpty() || archive == first || isThere(Volumes(archive).path(1));
    if (isNameItself)
        return;
    if (isThere(first))
        throw Refusal(archive, QStringLiteral("is not the first volume; give ") + first);
    if (name.endsWith(QLatin1String(".7z")))
        volumes.requireComplete();
}
