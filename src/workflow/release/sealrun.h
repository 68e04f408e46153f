// SPDX-License-Identifier: MIT
#pragma once

#include "manifestfile.h"
#include "movesources.h"
#include "patchfiles.h"
#include "progresscallback.h"

#include <atomic>
#include <vector>

namespace Pellox {

class InputFile;

/// One call of PatchSeal::seal() from beginning to end.
class SealRun
{
public:
    struct Settings
    {
        QString patch; ///< folders are absolute, without a separator at the end
        QString oldSignatures;
        qint64 release = 0;
        QStringList privateKeys;
        int threadCount = 1;
    };

    /// @p cancelled may change at any time.
    SealRun(Settings settings, const std::atomic<bool> &cancelled);
    ~SealRun();

    /// False with error(), which is empty when the run was cancelled.
    bool carryOut(const PROGRESS_CALLBACK &progress);

    QString error() const { return m_error; }

private:
    bool checkSettings();
    bool readKeys();
    bool readRules(InputFile &manifest);
    bool readOldBuild();
    bool findFiles();
    bool hashPatch(const PROGRESS_CALLBACK &progress);
    void findSources();
    bool sealRules();
    bool sealRule(const UpdateRule &rule, ByPath<Sha512> *build);
    bool fail(const QString &error);
    bool fail(const QString &path, const QString &reason);
    QString sealPath() const;

    const Settings m_settings;
    const std::atomic<bool> &m_cancelled;
    QString m_error;
    std::vector<Ed25519::PrivateKey> m_keys;
    std::vector<UpdateRule> m_rules;
    ByPath<Sha512> m_oldBuild;
    MoveSources m_sources;
    std::vector<PatchFile> m_files; ///< of the patch folder, but for the seal
    SealedPatch m_sealed;
};

} // namespace Pellox
