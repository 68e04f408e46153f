// SPDX-License-Identifier: MIT
#pragma once

#include "filepass.h"
#include "goon.h"

#include <QString>

namespace Pellox {

/// The folders of a run; a relative path is appended to them as it is. An empty one is not wanted.
struct PublishFolders
{
    QString newBuild;
    QString oldSignatures;
    QString patch;
    QString newSignatures;
    QString oldBuild;
};

/// How deltas are made where the old build is at hand.
struct DeltaSettings
{
    SearchEffort effort;
    qint64 memory; ///< bytes, for all that the search works with
    bool verifies; ///< applies each delta before it counts

    /// How many of @p wanted threads that is enough for, and an index of the same size; at least 1.
    int threads(int wanted) const;
    /// What @p threadCount threads leave for all indexes together: at least half of it.
    qint64 indexMemory(int threadCount) const;
};

/// A file of the new build, and what became of it.
struct NewFile
{
    enum class Rule { None, Patch, Copy };

    QString relativePath;
    qint64 size = 0;
    bool isIgnored = false;
    const Sha512 *oldSha512 = nullptr; ///< of the old build's file of this name, if there is one

    Rule rule = Rule::None;
    Sha512 sha512; ///< where it was needed
};

/// Does for one file of the new build all that a run wants.
class FileTask
{
public:
    struct Progress
    {
        std::atomic<qint64> done{0};
        std::atomic<qint64> total{0};
    };

    /// All must outlive the task.
    FileTask(Crew &crew, const PublishFolders &folders, const DeltaSettings &deltas, NewFile &file,
        Progress &progress);

    /// What fails stops the crew.
    void carryOut();

    /// Whether several threads work on a file of @p size bytes.
    static bool isLarge(qint64 size) { return size > FilePass::ChunkSize; }

private:
    bool wantsSignature() const { return !m_folders.newSignatures.isEmpty(); }
    bool wantsRule() const { return !m_file.isIgnored && !m_folders.oldSignatures.isEmpty(); }

    void doUnknown();
    void doKnown();
    void decideRule();
    bool showsChange();
    void takeOverSignature();
    bool describeChange(bool digest, FilePass::Bytes content);

    struct Outputs;
    bool openDelta(Outputs &outputs, FilePass::Targets &targets);
    bool readOldSignature(Outputs &outputs);
    bool readOldContent(Outputs &outputs);
    bool makeIndex(Outputs &outputs);
    bool finishDelta(Outputs &outputs);
    bool verifyDelta();
    GoOn goOn() const;
    bool open(OutputFile &output, const QString &folder);
    bool close(OutputFile &output);
    bool pass(FilePass &pass);
    bool fail(const QString &error);

    Crew &m_crew;
    const PublishFolders &m_folders;
    const DeltaSettings &m_deltas;
    NewFile &m_file;
    Progress &m_progress;
    InputFile m_input;
};

} // namespace Pellox
