// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "goon.h"
#include "journal.h"

#include <QHash>
#include <QSet>

namespace Pellox {

/**
 * The files that an update sets aside so that it can be undone. While a commit is under way they
 * are in one folder, afterwards in another, so that an update that does not come that far leaves
 * what an earlier one has kept. Each folder has a record beside it: the way back, as a journal.
 *
 * What stands in the place of a rule's file is the build's, whoever has put it there: the way back
 * replaces or deletes it, also where it was changed after the update.
 */
class SetAside
{
public:
    explicit SetAside(BuildFiles &files)
        : m_files(files)
    {
    }

    /// Before @p journal is carried out: gives what it replaces a second name, so that its own
    /// name holds a file at every moment, and writes the record. False with error(), or without one
    /// when @p goOn said no.
    bool begin(const Journal &journal, const GoOn &goOn);
    /// Moves a file that is deleted.
    bool take(const QString &path);
    /// Once all of @p deletions have had their turn: what was not taken, as it was changed or gone
    /// by then, is no part of the way back. @p syncs: the new record is on the disk before its
    /// name. Can be repeated at any point from then on.
    bool forgetSpared(const std::vector<Journal::Deletion> &deletions, bool syncs);
    /// Makes it what can be brought back, in the place of what an earlier update has kept: its
    /// files, then, once these are on the disk, its record. Without a record nothing changes, as
    /// an earlier try has done it.
    bool completeFiles();
    bool completeRecord();
    /// Removes what begin() has made.
    bool abandon();
    /// Whether begin() copies what it keeps, as the file system knows no second names. Tried out on
    /// a file of its own; where not even that can be made, begin() will tell why.
    bool copies();

    /// Whether nothing is there, for certain, that an update has kept.
    bool isEmpty();
    /// The way back. Nothing, with error(), when there is none.
    std::optional<Journal> wayBack();
    /// Removes what can be brought back.
    bool discard();

    const FileError &error() const { return m_error; }

private:
    using Names = QHash<QString, QString>;

    bool addAllReplaced(const Journal &journal, Journal *wayBack);
    bool addReplaced(const QString &path, const Names &deleted, Journal *wayBack);
    QString nameOf(const QString &path, const Standing &standing, const Names &deleted);
    void addDeleted(const Journal &journal, Journal *wayBack) const;
    bool findSpared(const std::vector<Journal::Deletion> &deletions, QSet<QString> *spared);
    bool replaceRecord(const Journal &wayBack, bool syncs);
    bool keep(const QString &path, const QString &name);
    bool copy(const QString &from, const QString &to);
    bool remove(const QString &record, const QString &folder);
    bool removeFolder(const QString &path);
    bool fail(const QString &path, const QString &reason);
    bool failBySystem(const QString &path, const char *what);

    BuildFiles &m_files;
    GoOn m_goOn;
    QSet<QString>
        m_otherNames; ///< of files that are replaced under one name, deleted under another
    FileError m_error;
};

} // namespace Pellox
