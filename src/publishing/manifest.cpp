// SPDX-License-Identifier: MIT
#include "manifest.h"

#include "namedpipe.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

namespace Pellox::Manifest {

QString pathIn(const QString &folder, const QString &fileName)
{
    return folder + QDir::separator() + fileName;
}

ReadResult read(const QString &path, QVariantList *records)
{
    records->clear();
    QFile file(path);
    if (isNamedPipe(QFile::encodeName(path).constData()) || !file.open(QIODevice::ReadOnly))
        return ReadResult::NotOpened;
    const QByteArray json = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return ReadResult::Unreadable;
    *records = QJsonDocument::fromJson(json).toVariant().toList();
    return ReadResult::Complete;
}

bool write(const QString &path, const QVariantList &records)
{
    QFile file(path);
    if (isNamedPipe(QFile::encodeName(path).constData()) || !file.open(QIODevice::WriteOnly))
        return false;
    file.write(QJsonDocument::fromVariant(records).toJson(QJsonDocument::Indented));
    return true;
}

} // namespace Pellox::Manifest
