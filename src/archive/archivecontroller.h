// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"
#include "progresscallback.h"

#include <QObject>
#include <QString>
#include <QStringList>

namespace Pellox {

/**
 * Packs a folder into a split 7z archive and unpacks archives, with the 7-Zip console
 * program: "7zr" in the folder of the host application. Both calls block in a nested event
 * loop on the caller's thread, where signals and callbacks arrive meanwhile.
 *
 * The outcome is read from 7-Zip's console output alone. A file that is called "ERROR: x"
 * makes a good run count as failed.
 */
class PELLOX_EXPORT ArchiveController : public QObject
{
    Q_OBJECT
public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit ArchiveController(QObject *parent = nullptr);

    /// The size of a volume in bytes, 500 MiB at first; 0 or less means 1 GiB.
    void setChunkSize(qint64 chunkSize);

    /**
     * What becomes of a 7-Zip that ends without a word on success or failure. Off, as at
     * first: the call keeps waiting, as hosts were promised. On: it ends with an error that
     * tells the exit code and the last output.
     */
    void setSilentEndIsError(bool silentEndIsError);

    /**
     * Packs what is in @p sourceFolder into volumes of the archive @p archiveName, which may be
     * relative to @p archiveFolder; that is created, one level deep, where it is missing.
     * @p progress gets 7-Zip's percentages and 100 at the end, whatever the outcome. Returns
     * true after createArchiveSuccess(), false after createArchiveError().
     */
    bool createArchive(const QString &archiveFolder, const QString &archiveName,
        const QString &sourceFolder, PROGRESS_CALLBACK progress = PROGRESS_CALLBACK());

    /**
     * Unpacks @p archivePath into @p destinationFolder, which is created where it is missing. Give
     * an absolute path: a relative one counts from the destination.
     * @p stage is "process" or empty. @p progress gets 7-Zip's percentages. Returns true after
     * extractSuccess(), which may come more than once, false after extractError().
     */
    bool extractArchive(const QString &archivePath, const QString &destinationFolder,
        const QString &stage, PROGRESS_CALLBACK progress = PROGRESS_CALLBACK());

Q_SIGNALS:
    void extractSuccess();                              ///< unpacked; may come more than once
    void extractError(QStringList errors);              ///< why extractArchive() returns false
    void createArchiveSuccess();                        ///< packed
    void createArchiveError(QStringList errors);        ///< why createArchive() returns false
    void extractProgress(double percent, QString file); ///< never emitted

public Q_SLOTS:
    void init(); ///< does nothing

private:
    bool m_extractResult = false;
    bool m_createResult = false;
    qint64 m_chunkSize = 500LL * 1024 * 1024;
    bool m_silentEndIsError = false;
};

} // namespace Pellox
