// SPDX-License-Identifier: MIT
#pragma once

#include <QSaveFile>
#include <QString>

#include <functional>
#include <memory>

namespace Pellox {

/**
 * A folder of a release while it is written: the manifest comes last, and what is not completed is
 * taken away again.
 *
 * A hidden marker stands in the folder as long as it is not complete, so that what a crash has left
 * is known for what it is. Hidden entries belong to nobody's release and are never touched.
 */
class ReleaseFolder
{
public:
    ReleaseFolder(const QString &path, const QString &manifestName);
    ~ReleaseFolder();
    ReleaseFolder(const ReleaseFolder &) = delete;
    ReleaseFolder &operator=(const ReleaseFolder &) = delete;

    QString path() const { return m_path; }

    /// Touches nothing. False with error() when something stands there that is no earlier release.
    bool check();
    /// Makes the folder, or empties that of an earlier release. False with error().
    bool begin();
    /// Lets @p write write the manifest, not yet under its name. False with error().
    bool prepare(const std::function<bool(QIODevice &)> &write);
    /// Makes the folder complete. False with error().
    bool complete();
    /// Takes the manifest away again.
    void revoke();

    QString error() const { return m_error; }

private:
    QString markerPath() const;
    QString manifestPath() const;
    bool fail(const QString &path, const QString &reason);
    bool clear();

    const QString m_path;
    const QString m_manifestName;
    std::unique_ptr<QSaveFile> m_manifest;
    bool m_isNew = false;
    bool m_isOpen = false; ///< begun and not complete
    QString m_error;
};

} // namespace Pellox
