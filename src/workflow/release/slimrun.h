// SPDX-License-Identifier: MIT
#pragma once

#include "crew.h"
#include "diskfile.h"
#include "progresscallback.h"
#include "sealfile.h"

#include <QByteArray>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

class QIODevice;

namespace Pellox {

class ReleaseFolder;

/// One call of PatchSeal::writeSlim() from beginning to end.
class SlimRun
{
public:
    struct Settings
    {
        QString patch; ///< folders are absolute, without a separator at the end
        QString slim;
        int threadCount = 1;
    };

    /// @p cancelled may change at any time.
    SlimRun(Settings settings, const std::atomic<bool> &cancelled);

    /// False with error(), which is empty when the run was cancelled.
    bool carryOut(const PROGRESS_CALLBACK &progress);

    QString error() const { return m_error; }

private:
    bool checkFolders();
    bool readSeal();
    bool begin(ReleaseFolder &folder);
    bool copyFiles(const PROGRESS_CALLBACK &progress);
    bool copy(Crew &crew, const QString &path, const SealedFile &expected);
    bool writeManifest(QIODevice &device);
    bool goOn() const { return !m_cancelled; }
    bool fail(const QString &error);
    bool fail(const QString &path, const QString &reason);

    const Settings m_settings;
    const std::atomic<bool> &m_cancelled;
    QString m_error;
    QByteArray m_seal; ///< as it stands in the patch
    SealedPatch m_sealed;
    std::vector<std::pair<QString, SealedFile>> m_files; ///< that are copied, but the manifest
    std::atomic<qint64> m_done{0};                       ///< bytes
};

} // namespace Pellox
