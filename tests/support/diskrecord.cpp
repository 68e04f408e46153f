// SPDX-License-Identifier: MIT
#include "diskrecord.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryFile>

#include <algorithm>

#include <sys/stat.h>

namespace {

constexpr int Folder = -1;
constexpr int Nothing = -2;

void require(bool done, const char *what)
{
    if (!done)
        qFatal("disk record: cannot %s", what);
}

QString parentOf(const QString &path)
{
    return path.left(path.lastIndexOf(QLatin1Char('/')));
}

/// Of a name on the disk; the top is always there.
int find(const QMap<QString, int> &names, const QString &path)
{
    return path.isEmpty() ? Folder : names.value(path, Nothing);
}

bool isEmptyFolder(const QMap<QString, int> &names, const QString &path)
{
    const auto next = names.lowerBound(path + QLatin1Char('/'));
    return find(names, path) == Folder
        && (next == names.cend() || !next.key().startsWith(path + QLatin1Char('/')));
}

/// With all that is in it.
void renameFolder(const QString &from, const QString &to, QMap<QString, int> *names)
{
    const QMap<QString, int> before = *names;
    for (auto name = before.cbegin(); name != before.cend(); ++name) {
        if (name.key() == from || name.key().startsWith(from + QLatin1Char('/'))) {
            names->remove(name.key());
            names->insert(to + name.key().mid(from.size()), name.value());
        }
    }
}

} // namespace

DiskRecord::DiskRecord(const QString &folder, const QString &program, const QStringList &arguments)
    : m_folder(folder)
{
    readFolder();
    QTemporaryFile record;
    require(record.open(), "make a file for the calls");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral(RECORDER_LIBRARY));
    environment.insert(QStringLiteral("RECORD_PATH"), folder);
    environment.insert(QStringLiteral("RECORD_TO"), record.fileName());
    // AddressSanitizer wants to be the first of the libraries, but does well as the second.
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
        QString::fromLocal8Bit(qgetenv("ASAN_OPTIONS") + ":verify_asan_link_order=0"));
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    require(process.waitForFinished(300000) && process.exitStatus() == QProcess::NormalExit,
        "run the program to its end");
    m_status = process.exitCode();
    readCalls(record.readAll());
}

void DiskRecord::readFolder()
{
    QDirIterator walk(m_folder, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        QFile file(walk.next());
        const QString name = file.fileName().mid(m_folder.size());
        if (walk.fileInfo().isDir()) {
            m_before.names.insert(name, Folder);
            continue;
        }
        struct stat status = {};
        require(file.open(QIODevice::ReadOnly) && ::fstat(file.handle(), &status) == 0,
            "read the folder");
        m_before.names.insert(name, static_cast<int>(m_before.files.size()));
        m_before.files.push_back({file.readAll(), status.st_mode & 07777U, status.st_mtim});
    }
}

/// Finds out which file each call is about.
void DiskRecord::readCalls(const QByteArray &record)
{
    Disk disk = m_before;
    for (const QByteArray &line : record.split('\n')) {
        if (line.isEmpty())
            continue;
        const QList<QByteArray> parts = line.split('\t');
        require(parts.size() == 3, "read the record");
        Call call;
        call.kind = parts.at(0);
        call.path = QFile::decodeName(parts.at(1)).mid(m_folder.size());
        if (call.kind == "rename" || call.kind == "link")
            call.other = QFile::decodeName(parts.at(2)).mid(m_folder.size());
        if (call.kind == "create" || call.kind == "mode")
            call.mode = parts.at(2).toUInt(nullptr, 8);
        if (call.kind == "write")
            call.data = QByteArray::fromHex(parts.at(2));
        call.file = find(disk.names, call.path);
        if (call.kind == "create") {
            call.file = static_cast<int>(disk.files.size());
            disk.files.emplace_back();
        }
        if (call.kind == "write")
            call.position = disk.files.at(static_cast<std::size_t>(call.file)).content.size();
        carryOut(call, 1, &disk);
        m_calls.push_back(call);
    }
    m_fileCount = static_cast<int>(disk.files.size());
}

DiskRecord DiskRecord::withoutSyncs() const
{
    DiskRecord record = *this;
    const auto isSync = [](const Call &call) { return call.kind.startsWith("sync"); };
    record.m_calls.erase(
        std::remove_if(record.m_calls.begin(), record.m_calls.end(), isSync), record.m_calls.end());
    return record;
}

QString DiskRecord::name(int at) const
{
    if (at >= size())
        return QStringLiteral("the end");
    const Call &call = m_calls.at(static_cast<std::size_t>(at));
    return QLatin1String(call.kind) + QLatin1Char(' ')
        + (call.other.isEmpty() ? call.path : call.other);
}

/// What cannot be, as a call before it is lost, is not done.
void DiskRecord::carryOut(const Call &call, double share, Disk *disk)
{
    QMap<QString, int> &names = disk->names;
    const auto isFree = [&names](const QString &path) {
        return find(names, path) == Nothing && find(names, parentOf(path)) == Folder;
    };
    const auto file = [&]() -> File & { return disk->files[static_cast<std::size_t>(call.file)]; };
    if (call.kind == "create") {
        file().mode = call.mode;
        if (isFree(call.path))
            names.insert(call.path, call.file);
    } else if (call.kind == "write") {
        const int size = static_cast<int>(call.data.size() * share);
        const int end = static_cast<int>(call.position) + size;
        QByteArray &content = file().content;
        if (content.size() < end)
            content.append(QByteArray(end - content.size(), '\0'));
        content.replace(static_cast<int>(call.position), size, call.data.left(size));
    } else if (call.kind == "mode") {
        file().mode = call.mode;
    } else if (call.kind == "link") {
        if (isFree(call.other))
            names.insert(call.other, call.file);
    } else if (call.kind == "rename" && call.file == Folder) {
        if (find(names, call.path) == Folder && isFree(call.other))
            renameFolder(call.path, call.other, &names);
    } else if (call.kind == "rename") {
        if (find(names, parentOf(call.other)) != Folder || find(names, call.other) == Folder)
            return;
        if (find(names, call.path) == call.file)
            names.remove(call.path);
        names.insert(call.other, call.file);
    } else if (call.kind == "unlink") {
        if (find(names, call.path) == call.file)
            names.remove(call.path);
    } else if (call.kind == "mkdir") {
        if (isFree(call.path))
            names.insert(call.path, Folder);
    } else if (call.kind == "rmdir") {
        if (isEmptyFolder(names, call.path))
            names.remove(call.path);
    } else {
        require(call.kind == "sync" || call.kind == "syncall", "understand the record");
    }
}

/// Whether each call before @p at is on the disk for certain. A file that is synced brings its
/// data and permissions, not its name.
std::vector<bool> DiskRecord::syncedBefore(int at) const
{
    std::vector<bool> synced(static_cast<std::size_t>(at), false);
    for (int i = 0; i < at; ++i) {
        const Call &sync = m_calls[static_cast<std::size_t>(i)];
        for (int j = 0; j < i; ++j) {
            const Call &call = m_calls[static_cast<std::size_t>(j)];
            const bool isOfFile = sync.kind == "sync" && call.file == sync.file
                && (call.kind == "write" || call.kind == "mode");
            if (sync.kind == "syncall" || isOfFile)
                synced[static_cast<std::size_t>(j)] = true;
        }
    }
    return synced;
}

void DiskRecord::lay(int at, const Chance &chance) const
{
    Disk disk = m_before;
    disk.files.resize(static_cast<std::size_t>(m_fileCount));
    const std::vector<bool> synced = syncedBefore(at);
    for (int i = 0; i < at; ++i) {
        const Call &call = m_calls[static_cast<std::size_t>(i)];
        const bool isData = call.kind == "write" || call.kind == "mode";
        const Fate fate = synced[static_cast<std::size_t>(i)]
            ? Fate{true, 1}
            : chance(isData ? Kind::Data : Kind::Name);
        if (fate.kept)
            carryOut(call, fate.share, &disk);
    }

    require(QDir(m_folder).removeRecursively() && QDir().mkpath(m_folder), "remove the folder");
    for (auto name = disk.names.cbegin(); name != disk.names.cend(); ++name) {
        const QString path = m_folder + name.key();
        if (name.value() == Folder) {
            require(QDir().mkpath(path), "make a folder");
            continue;
        }
        const File &file = disk.files[static_cast<std::size_t>(name.value())];
        QFile output(path);
        const timespec times[] = {{0, UTIME_OMIT}, file.modified};
        require(output.open(QIODevice::WriteOnly | QIODevice::Unbuffered)
                && output.write(file.content) == file.content.size()
                && ::fchmod(output.handle(), file.mode) == 0
                && ::futimens(output.handle(), times) == 0,
            "write a file");
    }
}
