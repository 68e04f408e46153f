// SPDX-License-Identifier: MIT
#include "filetask.h"

#include "blockmatcher.h"
#include "contentmatcher.h"
#include "rsyncpatched.h"
#include "signaturefile.h"

#include <algorithm>

namespace Pellox {

int DeltaSettings::threads(int wanted) const
{
    const qint64 enoughFor = memory / 2 / effort.memoryPerThread;
    return static_cast<int>(std::clamp<qint64>(enoughFor, 1, wanted));
}

qint64 DeltaSettings::indexMemory(int threadCount) const
{
    return std::max(memory / 2, memory - threadCount * effort.memoryPerThread);
}

FileTask::FileTask(Crew &crew, const PublishFolders &folders, const DeltaSettings &deltas,
    NewFile &file, Progress &progress)
    : m_crew(crew)
    , m_folders(folders)
    , m_deltas(deltas)
    , m_file(file)
    , m_progress(progress)
{
}

void FileTask::carryOut()
{
    if (!m_input.open(m_folders.newBuild + m_file.relativePath)) {
        fail(m_input.error());
        return;
    }
    if (m_input.size() != m_file.size) {
        fail(aboutFile(m_input.path(), QStringLiteral("changed while it was read")));
        return;
    }
    if (!wantsRule() && !wantsSignature())
        m_progress.done += m_file.size;
    else if (m_file.oldSha512)
        doKnown();
    else
        doUnknown();
}

/// A file that the old build does not have: signed and copied in one reading.
void FileTask::doUnknown()
{
    if (wantsRule())
        m_file.rule = NewFile::Rule::Copy;
    OutputFile signature;
    OutputFile copy;
    FilePass::Targets targets;
    if (wantsSignature()) {
        if (!open(signature, m_folders.newSignatures))
            return;
        targets.digest = true;
        targets.signature = &signature;
    }
    if (wantsRule() && !m_folders.patch.isEmpty()) {
        if (!open(copy, m_folders.patch))
            return;
        copy.setPermissions(m_input.permissions());
        targets.copy = &copy;
    }
    if (!targets.signature && !targets.copy) {
        m_progress.done += m_file.size;
        return;
    }
    FilePass reading(m_crew, m_input, targets, m_progress.done);
    if (!pass(reading))
        return;
    if (targets.digest)
        m_file.sha512 = reading.sha512();
    if (targets.signature && !close(signature))
        return;
    if (targets.copy)
        close(copy);
}

/**
 * A file that the old build has too. Only its digest tells whether it changed. A small one stays in
 * memory until that is known; a large one that shows a change at once is read once, any other
 * one that changed a second time.
 */
void FileTask::doKnown()
{
    const bool onlyDecides = m_folders.newSignatures.isEmpty() && m_folders.patch.isEmpty();
    if (isLarge(m_file.size) && !onlyDecides && showsChange()) {
        if (describeChange(true, {}) && m_file.sha512 == *m_file.oldSha512) {
            fail(aboutFile(m_folders.oldSignatures + m_file.relativePath,
                QStringLiteral("is not the signature of its file")));
        }
        decideRule();
        return;
    }

    FilePass::Targets targets;
    targets.digest = true;
    FilePass reading(m_crew, m_input, targets, m_progress.done);
    if (!pass(reading))
        return;
    m_file.sha512 = reading.sha512();
    decideRule();
    if (m_file.sha512 == *m_file.oldSha512) {
        if (wantsSignature())
            takeOverSignature();
        return;
    }
    if (onlyDecides)
        return;
    if (!isLarge(m_file.size)) {
        describeChange(false, reading.takeContent());
        return;
    }
    const Sha512 sha512 = m_file.sha512;
    m_progress.total += m_file.size;
    if (describeChange(true, {}) && m_file.sha512 != sha512)
        fail(aboutFile(m_input.path(), QStringLiteral("changed while it was read")));
}

void FileTask::decideRule()
{
    if (wantsRule() && m_file.sha512 != *m_file.oldSha512)
        m_file.rule = NewFile::Rule::Patch;
}

/**
 * Whether the file surely changed: when its signature would have another number of blocks, or when
 * one of a few blocks differs. Spares most changed files the reading for the digest alone.
 */
bool FileTask::showsChange()
{
    constexpr qint64 BlockLength = SignatureFormat::BlockLength;
    constexpr qint64 Samples = 16;
    SignatureFile old;
    if (!old.open(m_folders.oldSignatures + m_file.relativePath))
        return false; // said when the signature is needed
    const qint64 blocks = SignatureFormat::blockCount(m_file.size);
    if (old.blockCount() != blocks)
        return true;

    std::array<uchar, SignatureFormat::BlockLength> bytes{};
    for (qint64 i = 0; i < Samples; ++i) {
        const qint64 block = i * (blocks - 1) / (Samples - 1);
        const qint64 begin = block * BlockLength;
        const qint64 size = std::min(BlockLength, m_file.size - begin);
        BlockRecord oldSums{};
        std::vector<BlockRecord> sums;
        if (!m_input.readAt(begin, bytes.data(), size) || !old.readBlock(block, &oldSums))
            return false; // said when it is read as a whole
        computeBlockSums(bytes.data(), static_cast<std::size_t>(size), &sums);
        if (sums.front() != oldSums)
            return true;
    }
    return false;
}

void FileTask::takeOverSignature()
{
    const QString oldPath = m_folders.oldSignatures + m_file.relativePath;
    SignatureFile old;
    if (!old.open(oldPath)) {
        fail(old.error());
        return;
    }
    if (old.blockCount() != SignatureFormat::blockCount(m_file.size)) {
        fail(aboutFile(oldPath, QStringLiteral("is not the signature of its file")));
        return;
    }
    OutputFile output;
    if (!open(output, m_folders.newSignatures))
        return;
    if (old.copyTo(output, goOn()))
        close(output);
    else if (!old.error().isEmpty())
        fail(old.error());
}

/// Releases at its end what was reserved.
class Reserved
{
public:
    Reserved(Crew &crew, qint64 amount)
        : m_crew(crew)
        , m_amount(amount)
    {
    }
    ~Reserved() { m_crew.release(m_amount); }
    Reserved(const Reserved &) = delete;
    Reserved &operator=(const Reserved &) = delete;

private:
    Crew &m_crew;
    const qint64 m_amount;
};

/// The files that describe a change, and what they are made from.
struct FileTask::Outputs
{
    std::optional<Reserved> reserved; ///< memory, for the index
    OutputFile signature;
    OutputFile delta;
    std::unique_ptr<MatchFinder> finder;
    std::optional<SignatureSet> oldBlocks; ///< what it looks into ...
    InputFile oldInput;                    ///< ... or these
    std::optional<ContentIndex> oldIndex;
    std::optional<OldFile> old;
};

/// Makes signature and delta of a file that changed, as wanted; @p content is that of a small one.
bool FileTask::describeChange(bool digest, FilePass::Bytes content)
{
    Outputs outputs;
    FilePass::Targets targets;
    targets.digest = digest;
    if (wantsRule() && !m_folders.patch.isEmpty() && !openDelta(outputs, targets))
        return false;
    if (wantsSignature()) {
        if (!open(outputs.signature, m_folders.newSignatures))
            return false;
        targets.signature = &outputs.signature;
    }

    FilePass reading(m_crew, m_input, targets, m_progress.done);
    if (!content.empty()) {
        m_progress.total += m_file.size;
        reading.setContent(std::move(content));
    }
    if (!pass(reading))
        return false;
    if (digest)
        m_file.sha512 = reading.sha512();
    return (!targets.signature || close(outputs.signature))
        && (!targets.delta || finishDelta(outputs));
}

bool FileTask::openDelta(Outputs &outputs, FilePass::Targets &targets)
{
    const bool isRead
        = m_folders.oldBuild.isEmpty() ? readOldSignature(outputs) : readOldContent(outputs);
    targets.finder = outputs.finder.get();
    targets.delta = &outputs.delta;
    return isRead && open(outputs.delta, m_folders.patch);
}

bool FileTask::readOldSignature(Outputs &outputs)
{
    SignatureFile signature;
    std::vector<BlockRecord> records;
    if (!signature.open(m_folders.oldSignatures + m_file.relativePath)
        || !signature.readAll(&records, goOn()))
        return !signature.error().isEmpty() && fail(signature.error());
    outputs.oldBlocks.emplace(std::move(records), goOn());
    outputs.finder = std::make_unique<BlockMatchFinder>(*outputs.oldBlocks);
    return !m_crew.isStopped();
}

/// Once, for its index and to see that it is the file that players have.
bool FileTask::readOldContent(Outputs &outputs)
{
    InputFile &old = outputs.oldInput;
    if (!old.open(m_folders.oldBuild + m_file.relativePath))
        return fail(old.error());
    if (!makeIndex(outputs))
        return false;
    FilePass::Targets targets;
    targets.digest = true;
    targets.index = &*outputs.oldIndex;
    m_progress.total += old.size();
    FilePass reading(m_crew, old, targets, m_progress.done);
    if (!pass(reading))
        return false;
    if (reading.sha512() != *m_file.oldSha512)
        return fail(
            aboutFile(old.path(), QStringLiteral("is not the file that the signatures describe")));
    outputs.old.emplace(
        old.path(), old.size(), isLarge(old.size()) ? FilePass::Bytes() : reading.takeContent());
    outputs.finder
        = std::make_unique<ContentMatchFinder>(m_deltas.effort, *outputs.oldIndex, *outputs.old);
    return true;
}

/// Most of the memory is for large files, which wait for one another where it does not do for all;
/// each thread has its part of the rest, an eighth, for a small one.
bool FileTask::makeIndex(Outputs &outputs)
{
    const qint64 forAll = m_deltas.indexMemory(m_crew.threadCount());
    const qint64 forSmall = forAll / 8;
    const qint64 forLarge = forAll - forSmall;
    const qint64 size = outputs.oldInput.size();
    qint64 memory = forSmall / m_crew.threadCount();
    if (isLarge(m_file.size)) {
        memory = std::min(forLarge, ContentIndex::memoryFor(size, m_deltas.effort));
        outputs.reserved.emplace(m_crew, memory);
        if (!m_crew.reserve(memory, forLarge))
            return false;
    }
    outputs.oldIndex.emplace(size, m_deltas.effort, memory);
    return true;
}

bool FileTask::finishDelta(Outputs &outputs)
{
    if (!close(outputs.delta))
        return false;
    if (m_folders.oldBuild.isEmpty())
        return true;
    if (!outputs.oldInput.isUnchanged())
        return fail(outputs.oldInput.error());
    outputs.oldIndex.reset();
    outputs.reserved.reset();
    return !m_deltas.verifies || verifyDelta();
}

/// Applies the delta as a player's machine will.
bool FileTask::verifyDelta()
{
    const QString delta = m_folders.patch + m_file.relativePath;
    RsyncPatched patched;
    if (!patched.open(m_folders.oldBuild + m_file.relativePath, delta, m_file.size))
        return fail(patched.error());
    FilePass::Targets targets;
    targets.digest = true;
    m_progress.total += m_file.size;
    FilePass reading(m_crew, patched, targets, m_progress.done);
    if (!pass(reading))
        return false;
    return reading.sha512() == m_file.sha512
        || fail(aboutFile(delta, QStringLiteral("does not make the new file")));
}

GoOn FileTask::goOn() const
{
    return [this] { return !m_crew.isStopped(); };
}

bool FileTask::open(OutputFile &output, const QString &folder)
{
    return output.open(folder + m_file.relativePath) || fail(output.error());
}

bool FileTask::close(OutputFile &output)
{
    return output.close() || fail(output.error());
}

bool FileTask::pass(FilePass &pass)
{
    const bool done = isLarge(m_file.size) ? m_crew.share(pass) : m_crew.doAlone(pass);
    return done && (pass.error().isEmpty() || fail(pass.error()));
}

bool FileTask::fail(const QString &error)
{
    m_crew.fail(error);
    return false;
}

} // namespace Pellox
