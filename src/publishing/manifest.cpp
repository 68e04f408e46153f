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

bool read(const QString &path, QVariantList *records)
{
    QFile file(path);
    const bool opened
        = !isNamedPipe(QFile::encodeName(path).constData()) && file.open(QIODevice::ReadOnly);
    const QByteArray json = opened ? file.readAll() : QByteArray();
    const bool complete = opened && file.error() == QFileDevice::NoError;
    *records = complete ? QJsonDocument::fromJson(json).toVariant().toList() : QVariantList();
    return complete;
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
