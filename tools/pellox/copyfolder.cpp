// SPDX-License-Identifier: MIT
#include "copyfolder.h"

#include "buildcheck.h"
#include "console.h"
#include "diskroom.h"
#include "folders.h"
#include "interrupt.h"
#include "manifests.h"
#include "newfolders.h"

#include <Pellox/BinariesController>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <utility>

namespace {

bool haveSameContent(const QString &path, const QString &otherPath)
{
    constexpr qint64 ReadSize = 1 << 20;
    QFile file(path);
    QFile other(otherPath);
    if (!file.open(QIODevice::ReadOnly) || !other.open(QIODevice::ReadOnly)
        || file.size() != other.size())
        return false;
    while (!file.atEnd()) {
        const QByteArray part = file.read(ReadSize);
        if (part.isEmpty() || part != other.read(ReadSize))
            return false;
    }
    return true;
}

/// A copy replaces what stands in its place, which must not be the source by way of a link.
void requireOutsideSource(const QStringList &copies, const QString &source)
{
    QSet<QString> checked;
    for (const QString &copy : copies) {
        const QString folder = QFileInfo(copy).path();
        if (!checked.contains(folder))
            requireOutside(folder, source);
        checked.insert(folder);
    }
}

QStringList copiesOf(const QStringList &files, const QString &source, const QString &target)
{
    QStringList copies;
    for (const QString &file : files)
        copies.append(target + file.mid(source.size()));
    return copies;
}

/// Tells of each file that did not arrive, and why: for those that the disk did not take, once.
class Arrival
{
public:
    Arrival(Console &console, QString target)
        : m_console(console)
        , m_target(std::move(target))
    {
    }

    void check(const QString &file, const QString &copy)
    {
        if (haveSameContent(file, copy))
            return;
        if (!QFile(file).open(QIODevice::ReadOnly)) {
            m_console.error(file, QStringLiteral("cannot be read"));
        } else {
            m_console.error(file, QStringLiteral("did not arrive in ") + m_target);
            m_lacking += QFileInfo(file).size();
        }
    }

    void tellReason()
    {
        if (m_lacking > 0)
            m_console.error(m_target, reasonNotWritten(m_lacking, m_target));
    }

private:
    Console &m_console;
    QString m_target;
    qint64 m_lacking = 0;
};

void requireFree(const QString &copy, bool force)
{
    const QString folder = existingAncestor(QFileInfo(copy).path());
    if (!QFileInfo(folder).isDir())
        throw Refusal(folder, QStringLiteral("is a file, and a folder belongs there"));
    if (QFileInfo(copy).isDir())
        throw Refusal(copy, QStringLiteral("is a folder, and a copy belongs there"));
    if (!force && isThere(copy))
        throw Refusal(copy, QStringLiteral("exists; --force replaces it"));
}

/// Takes the copies that were not there before away again, unless told to keep them.
class NewCopies
{
public:
    explicit NewCopies(const QString &target) { m_newFolders.expect(target); }
    ~NewCopies()
    {
        for (const QString &path : qAsConst(m_paths))
            QFile::remove(path);
    }
    NewCopies(const NewCopies &) = delete;
    NewCopies &operator=(const NewCopies &) = delete;

    /// Call it before @p copy is made.
    void expect(const QString &copy)
    {
        m_newFolders.expect(QFileInfo(copy).path());
        if (!isThere(copy))
            m_paths.append(copy);
    }
    void keep()
    {
        m_paths.clear();
        m_newFolders.keep();
    }

private:
    NewFolders m_newFolders; // goes after the files have
    QStringList m_paths;
};

/// File by file, as the library's copy of a whole build cannot be stopped.
void copyAll(const QStringList &files, const QStringList &copies, NewCopies &newCopies)
{
    for (int i = 0; i < files.size(); ++i) {
        Interrupt::throwIfStopped();
        newCopies.expect(copies.at(i));
        Pellox::BinariesController::copyRecursively(files.at(i), copies.at(i)); // looked at below
    }
}

void compareAll(
    Console &console, const QStringList &files, const QStringList &copies, const QString &target)
{
    console.startProgress(QStringLiteral("compare"), Progress::Unit::Files, files.size());
    Arrival arrival(console, target);
    for (int i = 0; i < files.size(); ++i) {
        Interrupt::throwIfStopped();
        arrival.check(files.at(i), copies.at(i));
        console.advanceTo(i + 1);
    }
    console.stopProgress();
    arrival.tellReason();
}

} // namespace

bool copyFolder(Console &console, const QString &source, const QString &target, bool force)
{
    requireApart(target, source);
    requireListable(source);
    const QStringList files = filesOfBuild(source);
    const QStringList copies = copiesOf(files, source, target);
    requireOutsideSource(copies, source);
    for (const QString &copy : copies)
        requireFree(copy, force);
    const Interrupt::Watch watch([] {});
    NewCopies newCopies(target);
    if (!QDir().mkpath(target)) // an empty build leaves an empty folder
        throw Refusal(target, QStringLiteral("cannot be created"));
    console.note(QStringLiteral("copying %1 (%2)")
                     .arg(fileCount(files.size()), byteCount(totalSize(files))));
    copyAll(files, copies, newCopies);
    compareAll(console, files, copies, target);
    newCopies.keep();
    if (console.errorCount() > 0)
        return false;
    console.result(QStringLiteral("Copied %1 (%2): %3")
                       .arg(fileCount(files.size()), byteCount(totalSize(files)), target));
    return true;
}
