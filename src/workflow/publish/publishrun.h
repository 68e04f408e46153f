// SPDX-License-Identifier: MIT
#pragma once

#include "filetask.h"
#include "manifestfile.h"
#include "progresscallback.h"
#include "publishcontroller.h"

#include <QHash>
#include <QStringList>
#include <QVariant>

#include <chrono>
#include <memory>
#include <vector>

namespace Pellox {

class ReleaseFolder;

/// One call of PublishController from beginning to end.
class PublishRun
{
public:
    struct Settings
    {
        QStringList ignoreFiles;
        int threadCount;
        DeltaSettings deltas;
    };

    /// All folders absolute, without a separator at the end. @p cancelled may change at any time.
    PublishRun(PublishFolders folders, Settings settings, const std::atomic<bool> &cancelled);

    /// False with error(), which is empty when the run was cancelled. What @p progress throws is
    /// thrown on, once all has been cleaned up.
    bool carryOut(const PROGRESS_CALLBACK &progress);

    /// Once carried out: the rules, "copy" ones with the size of the file.
    QVariantList rulesWithSizes() const;

    /// Once carried out, of a release with a patch and signatures.
    QVector<PublishController::MovedFile> movedFiles() const;

    QString error() const { return m_error; }

private:
    using Outputs = std::vector<std::unique_ptr<ReleaseFolder>>;

    bool goOn();
    void report();

    bool checkFolders();
    bool readOldFiles();
    bool findNewFiles();
    bool addNewFile(NewFile file);
    bool isNamedLikeManifest(const NewFile &file) const;
    bool checkSignatures();
    bool decideBeforehand(const std::vector<NewFile *> &files);

    Outputs makeOutputs() const;
    bool forAll(const Outputs &folders, const std::function<bool(ReleaseFolder &)> &step);
    bool begin(ReleaseFolder &folder);
    bool workOnFiles();
    bool work(const PublishFolders &folders, const std::vector<NewFile *> &files,
        FileTask::Progress &bytes);
    bool complete(const Outputs &folders);

    bool writeManifest(const QString &folder, QIODevice &device);
    void forEachRule(const std::function<void(const QJsonObject &)> &take) const;
    void forEachSignature(const std::function<void(const QJsonObject &)> &take) const;
    bool fail(const QString &error);
    bool fail(const QString &path, const QString &reason);

    const PublishFolders m_folders;
    const Settings m_settings;
    const std::atomic<bool> &m_cancelled;
    QString m_error;

    PROGRESS_CALLBACK m_progress;
    std::chrono::steady_clock::time_point m_lastReport;
    FileTask::Progress m_bytes;
    double m_reported = 0; ///< percent

    struct OldFile
    {
        SignedFile file;
        bool isKept = false; ///< a file of the new build, an ignored one too, has its name
    };
    std::vector<OldFile> m_oldFiles; ///< in the order of the manifest
    QHash<QString, std::size_t> m_oldByPath;
    std::vector<NewFile> m_newFiles; ///< in the order of the walk
};

} // namespace Pellox
