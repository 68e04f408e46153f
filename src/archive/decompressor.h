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
 * Unpacks a 7z archive with the 7-Zip console program, "7zr" in the folder of the host
 * application. The way to unpack is taken from a queue of stages; when one fails the next
 * is tried. Never blocks: the outcome comes as signals, all on the thread of the object,
 * which needs an event loop. One object serves one extraction. A run that ends with neither
 * success nor an error line emits nothing.
 */
class PELLOX_EXPORT Decompressor : public QObject
{
    Q_OBJECT
public:
    /// Starts nothing. The object belongs to @p parent, where there is one.
    explicit Decompressor(QObject *parent = nullptr);
    /// Ends a child that still runs; emits nothing.
    ~Decompressor() override;

    /**
     * Starts to unpack @p archivePath into @p baseFolder by @p stage: "process", which an empty
     * one means too. Any other stage is an error. @p destination, a folder in @p baseFolder or
     * empty, is created where it is missing; the files go to @p baseFolder all the same.
     */
    void start(const QString &archivePath, const QString &destination, const QString &baseFolder,
        const QString &stage);

Q_SIGNALS:
    void started();  ///< by start(), and again when the program is started
    void finished(); ///< unpacked; again for each chunk of output that still comes
    /// All error texts so far; while the child may still run, and once more at its end.
    void error(QStringList error);
    void progress(double percents); ///< for every non-empty line of output, 0 where it tells none

private:
    friend class Pellox::ArchiveController;

    void _startExtract();
    void _extractBy7za();
    void _extractByWrapper();
    void _onOutput();
    void _onStateChanged();
    void _onStartFailed();

    QProcess *m_process;
    QStringList m_defaultArguments;
    QString m_programPath;
    QString m_baseFolder;
    QString m_archivePath;
    QString m_destination;
    QString m_password;
    QStringList m_errors;
    QStringList m_stages;
    bool m_everythingOk = false;

    bool m_hasRun = false;
    QString m_lastOutput;
    std::function<void(int exitCode, const QString &lastOutput)> m_onSilentEnd;
};
