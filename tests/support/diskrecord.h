// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <random>
#include <vector>

#include <sys/stat.h>

/**
 * What a program has changed in a folder, call by call, and what a power cut at any point may have
 * left of it. Calls that were synced are there; of all others each may be there or not, in any
 * combination that a file system can hold: a rename may be there without the data of its file.
 */
class DiskRecord
{
public:
    /// Runs @p program to its end and records what it does in @p folder. Ends the test program
    /// when that cannot be.
    DiskRecord(const QString &folder, const QString &program, const QStringList &arguments);

    int status() const { return m_status; }
    /// How many calls there were; a power cut may come before each and after the last.
    int size() const { return static_cast<int>(m_calls.size()); }
    /// The call that comes next at point @p at, for people.
    QString name(int at) const;

    /// The same calls, but nothing was ever synced.
    DiskRecord withoutSyncs() const;

    /// What becomes of a call that was not synced.
    struct Fate
    {
        bool kept = false;
        double share = 1; ///< of the data that a write brings to the disk
    };
    enum class Kind { Data, Name };
    using Chance = std::function<Fate(Kind)>;

    /// Lays the folder as it may be after a power cut before call @p at.
    void lay(int at, const Chance &chance) const;

private:
    struct Call
    {
        QByteArray kind;
        QString path;  ///< relative to the folder, beginning with a separator, like other
        QString other; ///< second path of a rename or a link
        QByteArray data;
        uint mode = 0;
        int file = -1; ///< number of the file that it is about; of a folder -1
        qint64 position = 0;
    };
    struct File
    {
        QByteArray content;
        uint mode = 0644;
        timespec modified = {0, UTIME_OMIT}; ///< of one that was there before
    };
    struct Disk
    {
        QMap<QString, int> names; ///< of files by number; folders have the number Folder
        std::vector<File> files;
    };

    void readFolder();
    void readCalls(const QByteArray &record);
    static void carryOut(const Call &call, double share, Disk *disk);
    std::vector<bool> syncedBefore(int at) const;

    const QString m_folder;
    int m_status = 0;
    Disk m_before;
    std::vector<Call> m_calls;
    int m_fileCount = 0;
};
