// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "journal.h"

namespace Pellox {

/**
 * The files that an update sets aside so that it can be undone. While a commit is under way they
 * are in one folder, afterwards in another, so that an update that does not come that far leaves
 * what an earlier one has kept. Each folder has a record beside it: the way back, as a journal.
 */
class SetAside
{
public:
    explicit SetAside(BuildFiles &files)
        : m_files(files)
    {
    }

    /// Before @p journal is carried out: gives what it replaces a second name, so that its own
    /// name holds a file at every moment, and writes the record.
    bool begin(const Journal &journal);
    /// Moves a file that is deleted.
    bool take(const QString &path);
    /// Makes it what can be brought back, in the place of what an earlier update has kept: its
    /// files, then, once these are on the disk, its record. Without a record nothing changes, as
    /// an earlier try has done it.
    bool completeFiles();
    bool completeRecord();
    /// Removes what begin() has made.
    bool abandon();

    /// Whether nothing is there, for certain, that an update has kept.
    bool isEmpty();
    /// The way back. Nothing, with error(), when there is none.
    std::optional<Journal> wayBack();
    /// Removes what can be brought back.
    bool discard();

    const FileError &error() const { return m_error; }

private:
    bool addReplaced(const QString &path, Journal *wayBack);
    bool keep(const QString &path);
    bool copy(const QString &from, const QString &to);
    bool remove(const QString &record, const QString &folder);
    bool removeFolder(const QString &path);
    bool fail(const QString &path, const QString &reason);
    bool failBySystem(const QString &path, const char *what);

    BuildFiles &m_files;
    FileError m_error;
};

} // namespace Pellox
