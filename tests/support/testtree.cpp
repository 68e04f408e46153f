// SPDX-License-Identifier: MIT
#include "testtree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QStorageInfo>

namespace {

void require(bool done, const char *what, const QString &path)
{
    if (!done)
        qFatal("test tree: cannot %s %s", what, qPrintable(path));
}

} // namespace

void useMemoryForFiles()
{
    const QString memory = QStringLiteral("/dev/shm");
    constexpr qint64 Enough = 3LL << 30;
    if (QFileInfo(memory).isWritable() && QStorageInfo(memory).bytesAvailable() > Enough)
        qputenv("TMPDIR", memory.toLocal8Bit());
}

TestTree::TestTree()
{
    require(m_dir.isValid(), "make", m_dir.path());
}

QString TestTree::path(const QString &relative) const
{
    // The canonical path, so that no link on the way to the temporary folder shows.
    const QString folder = QFileInfo(m_dir.path()).canonicalFilePath();
    return relative.isEmpty() ? folder : folder + QLatin1Char('/') + relative;
}

void TestTree::write(const QString &relative, const QByteArray &content) const
{
    const QString filePath = path(relative);
    require(QDir().mkpath(QFileInfo(filePath).path()), "make the folder of", filePath);
    QFile file(filePath);
    require(
        file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.flush(),
        "write", filePath);
}

QByteArray TestTree::read(const QString &relative) const
{
    QFile file(path(relative));
    require(file.open(QIODevice::ReadOnly), "read", file.fileName());
    return file.readAll();
}

void TestTree::makeFolder(const QString &relative) const
{
    require(QDir().mkpath(path(relative)), "make", path(relative));
}

void TestTree::link(const QString &relative, const QString &target) const
{
    require(QDir().mkpath(QFileInfo(path(relative)).path()), "make the folder of", path(relative));
    require(QFile::link(target, path(relative)), "link", path(relative));
}

void TestTree::remove(const QString &relative) const
{
    const QFileInfo entry(path(relative));
    const bool isFolder = entry.isDir() && !entry.isSymLink();
    require(isFolder ? QDir(entry.filePath()).removeRecursively() : QFile::remove(entry.filePath()),
        "remove", entry.filePath());
}

bool TestTree::exists(const QString &relative) const
{
    const QFileInfo entry(path(relative));
    return entry.exists() || entry.isSymLink();
}

QMap<QString, QByteArray> TestTree::snapshot(const QString &folder)
{
    QMap<QString, QByteArray> entries;
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString entryPath = walk.next();
        const QString relative = entryPath.mid(folder.size() + 1);
        if (walk.fileInfo().isDir()) {
            entries.insert(relative + QLatin1Char('/'), QByteArray());
            continue;
        }
        QFile file(entryPath);
        require(file.open(QIODevice::ReadOnly), "read", entryPath);
        entries.insert(relative, file.readAll());
    }
    return entries;
}

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = static_cast<char>(generator.generate());
    return bytes;
}
