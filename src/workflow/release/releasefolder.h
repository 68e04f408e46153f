// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "goon.h"

#include <QSaveFile>
#include <QString>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Pellox {

/**
 * A folder of a release while it is written: the manifest comes last, and what is not completed is
 * taken away again.
 *
 * A hidden marker stands in the folder as long as it is not complete. It is locked, so that no
 * other run writes there, and it names each file of which the folder may hold a part, so that what
 * a crash has left is known for what it is, and nothing else is taken for it. Hidden entries belong
 * to nobody's release and are never touched.
 */
class ReleaseFolder
{
public:
    ReleaseFolder(QString path, QString manifestName);
    /// Cleans up unless the folder is complete, however long that takes.
    ~ReleaseFolder();
    ReleaseFolder(const ReleaseFolder &) = delete;
    ReleaseFolder &operator=(const ReleaseFolder &) = delete;

    QString path() const { return m_path; }

    // All of these are false with error(), or without one when @p goOn has said no.

    /// Touches nothing. False when there is anything that is no part of an earlier release.
    bool check(const GoOn &goOn = GoOn());

    /// Takes the relative path of each file that the release may have.
    using Names = std::function<void(const std::function<void(const QString &)> &)>;
    /// Once checked: makes the folder, or empties that of an earlier release.
    bool begin(const Names &names, const GoOn &goOn = GoOn());
    /// Lets @p write write the manifest, not yet under its name.
    bool prepare(const std::function<bool(QIODevice &)> &write);
    /// Waits until all that is in the folder is on the disk.
    bool sync();
    /// Puts the manifest under its name.
    bool commit();

    /// After all folders of the release are committed: it is complete, and no longer locked.
    void finish();
    /// Takes the manifest away again.
    void revoke();

    QString error() const { return m_error; }

private:
    using Paths = std::set<std::string>; ///< as the system has them, relative

    QString markerPath() const;
    QString manifestPath() const;
    bool fail(const QString &path, const QString &reason);
    bool failBySystem(const QString &path, const char *what);

    bool readEarlierFiles(Paths *files, bool *isRelease, const GoOn &goOn);
    bool readMarker(Paths *files, bool *isRelease);
    bool findFiles(const std::string &folder, const GoOn &goOn);
    bool takeMarker();
    bool tryToTakeMarker(bool *taken);
    bool writeMarker(const Names &names);
    bool clear(const GoOn &goOn = GoOn());

    const QString m_path;
    const QString m_manifestName;
    FileHandle m_marker;
    std::unique_ptr<QSaveFile> m_manifest;
    std::vector<std::string> m_found; ///< by check(): the files that begin() will remove
    bool m_isNew = false;
    bool m_isOpen = false;        ///< begun and not complete
    bool m_isHalfEmptied = false; ///< stopped while the earlier release was removed
    QString m_error;
};

} // namespace Pellox
