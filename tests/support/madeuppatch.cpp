// SPDX-License-Identifier: MIT
#include "madeuppatch.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>

#include <utility>

namespace {

void require(bool done, const QFile &file)
{
    if (!done)
        qFatal("made-up patch: cannot write %s", qPrintable(file.fileName()));
}

QByteArray number(qint64 value)
{
    QByteArray bytes(8, Qt::Uninitialized);
    qToBigEndian(value, bytes.data());
    return bytes;
}

} // namespace

MadeUpPatch::MadeUpPatch(QString folder)
    : m_folder(std::move(folder))
{
}

void MadeUpPatch::patch(const QString &path, qint64 copied, qint64 literal)
{
    QByteArray delta = QByteArray::fromHex("72730236");
    if (copied > 0)
        delta += '\x54' + number(0) + number(copied);
    if (literal > 0)
        delta += '\x44' + number(literal);
    write(path, delta, literal + 1); // the end of a delta is a zero byte
    m_rules.append(QJsonObject{{QStringLiteral("rule"), QStringLiteral("patch")},
        {QStringLiteral("relative_path"), path}, {QStringLiteral("file_size"), copied + literal},
        {QStringLiteral("sha512"), QString(128, QLatin1Char('0'))}});
}

void MadeUpPatch::copy(const QString &path, qint64 size)
{
    write(path, QByteArray(), size);
    m_rules.append(QJsonObject{
        {QStringLiteral("rule"), QStringLiteral("copy")}, {QStringLiteral("relative_path"), path}});
}

void MadeUpPatch::remove(const QString &path)
{
    m_rules.append(QJsonObject{{QStringLiteral("rule"), QStringLiteral("delete")},
        {QStringLiteral("relative_path"), path}});
}

void MadeUpPatch::finish() const
{
    write(QStringLiteral("/patchRules.json"), QJsonDocument(m_rules).toJson(), 0);
}

void MadeUpPatch::write(const QString &path, const QByteArray &begin, qint64 hole) const
{
    QFile file(m_folder + path);
    QDir().mkpath(QFileInfo(file.fileName()).path());
    require(file.open(QIODevice::WriteOnly | QIODevice::Truncate)
            && file.write(begin) == begin.size() && file.resize(begin.size() + hole),
        file);
}
