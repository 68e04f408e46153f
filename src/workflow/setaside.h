// SPDX-License-Identifier: MIT
#pragma once

#include "journal.h"
#include "workfolder.h"

namespace Pellox {

/**
 * The files that an update sets aside so that it can be undone. While a commit is under way they
 * are in one folder, afterwards in another, so that an update that does not come that far leaves
 * what an earlier one has kept. Each folder has a record beside it: the way back, as a journal.
 */
class SetAside
{
public:
    explicit SetAside(QString build)
        : m_build(std::move(build))
    {
    }

    /// Before @p journal is carried out: gives what it replaces a second name, so that its own
    /// name holds a file at every moment, and writes the record.
    bool begin(const Journal &journal);
    /// Moves a file that is deleted.
    bool take(const QString &path);
    /// Makes it what can be brought back, in the place of what an earlier update has kept.
    bool complete();
    /// Removes what begin() has made.
    bool abandon();

    /// Whether nothing is there that an update has kept.
    bool isEmpty() const;
    /// The way back. Nothing, with error(), when there is none.
    std::optional<Journal> wayBack();
    /// Removes what can be brought back.
    bool discard();

    const FileError &error() const { return m_error; }

private:
    bool keep(const QString &path);
    bool copy(const QString &from, const QString &to);
    bool remove(const QString &record, const QString &folder);
    bool removeFolder(const QString &path);
    bool fail(const QString &path, const QString &reason);
    bool failBySystem(const QString &path, const char *what);

    QString absolute(const QString &path) const { return m_build + path; }

    const QString m_build;
    FileError m_error;
};

} // namespace Pellox
