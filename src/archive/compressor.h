// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>

class QProcess;

namespace Pellox {
class ArchiveController;
}

/**
 * Packs a folder or files into a 7z archive with the 7-Zip console program, "7zr" in the
 * folder of the host application. Never blocks: start() returns at once and the outcome
 * comes as signals, all on the thread of the object, which needs an event loop. One object
 * serves one run. A run that ends with neither success nor an error line emits nothing.
 */
class PELLOX_EXPORT Compressor : public QObject
{
    Q_OBJECT
public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit Compressor(QObject *parent = nullptr);
    /// Ends a child that still runs; emits nothing.
    ~Compressor() override;

    /// Kept between -1 and 9, and so far carried to no switch. 5 at first.
    void setCompressionLevel(int level);
    /// Whether to split the archive into volumes. Off at first.
    void setMultiVolume(bool multiVolume);
    /// In bytes; 0 or less means 1 GiB. Above 1 GiB it is cut to whole GiB. 5 GiB at first.
    void setVolumeSize(qint64 volumeSize);
    /// Adds what to pack when no source folder is set.
    void addFiles(const QStringList &files);
    /// The folder whose contents are packed, without itself.
    void setArchiveArchivePath(const QString &path);
    /// Packs under a password; empty, as at first, is none. The quotes that are put around it are a
    /// part of it.
    void setPassword(const QString &password);

    /// Starts to pack into @p archiveName, which may be relative to @p workingDirectory.
    void start(const QString &archiveName, const QString &workingDirectory);

Q_SIGNALS:
    void started();  ///< also when the program turns out only later to be missing
    void finished(); ///< packed
    /// All distinct error texts so far; while the child may still run, and once more at its end.
    void error(QStringList error);
    void progress(int percents); ///< for every non-empty line of output, 0 where it tells none

private:
    friend class Pellox::ArchiveController;

    void _onOutput();
    void _onStateChanged();
    void _onStartFailed();

    QProcess *m_process;
    int m_compressionLevel = 5;
    bool m_multiVolume = false;
    qint64 m_volumeSize = 5LL * 1024 * 1024 * 1024;
    QStringList m_files;
    QStringList m_defaultArguments;
    QString m_programPath;
    QString m_workingDirectory;
    QString m_archiveName;
    QStringList m_errors;
    QString m_archiveArchivePath;
    QString m_password;
    bool m_everythingOk = false;

    bool m_hasRun = false;
    QString m_lastOutput;
    std::function<void(int exitCode, const QString &lastOutput)> m_onSilentEnd;
};
