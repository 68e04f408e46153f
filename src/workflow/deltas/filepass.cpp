// SPDX-License-Identifier: MIT
#include "filepass.h"

#include <algorithm>

namespace Pellox {

namespace {

constexpr auto BlockLength = static_cast<qint64>(SignatureFormat::BlockLength);
static_assert(FilePass::ChunkSize % BlockLength == 0);

/// Of the next chunk, so that the blocks that begin in one can be looked at.
constexpr qint64 Overlap = BlockLength - 1;

} // namespace

struct FilePass::Chunk
{
    Bytes bytes;      ///< the chunk's own, then the overlap
    qint64 begin = 0; ///< in the file
    qint64 size = 0;
    qint64 overlap = 0;
    bool isRead = false;
    bool isDigested = false;
    bool isBeingComputed = false;
    bool isComputed = false;
    bool isWritten = false;
    std::vector<BlockRecord> sums;
    std::vector<Match> matches;
    std::vector<quint32> samples; ///< for the index

    qint64 end() const { return begin + size; }
};

FilePass::FilePass(Crew &crew, Content &input, const Targets &targets, std::atomic<qint64> &done)
    : m_crew(crew)
    , m_input(input)
    , m_targets(targets)
    , m_done(done)
    , m_chunkCount(std::max<qint64>(1, (input.size() + ChunkSize - 1) / ChunkSize))
{
    if (targets.digest)
        m_digest.emplace(QCryptographicHash::Sha512);
    if (targets.signature)
        targets.signature->write(signatureHeader().data(), signatureHeader().size());
    if (targets.delta)
        m_deltaMaker.emplace(*targets.delta, *targets.finder);
}

FilePass::~FilePass() = default;

bool FilePass::step(std::unique_lock<std::mutex> &lock)
{
    const Next next = this->next();
    Chunk *chunk = next.chunk;
    switch (next.step) {
    case Step::None:
        return false;
    case Step::Digest:
        workUnlocked(lock, m_digesting, [&] { digest(*chunk); });
        chunk->isDigested = true;
        break;
    case Step::Write:
        workUnlocked(lock, m_writing, [&] { write(*chunk); });
        chunk->isWritten = true;
        break;
    case Step::Compute:
        workUnlocked(lock, chunk->isBeingComputed, [&] { compute(*chunk); });
        chunk->isComputed = true;
        break;
    case Step::Read:
        readNext(lock);
        break;
    }
    releaseDone();
    return true;
}

template <typename Work>
void FilePass::workUnlocked(std::unique_lock<std::mutex> &lock, bool &isBusy, const Work &work)
{
    isBusy = true;
    lock.unlock();
    work();
    lock.lock();
    isBusy = false;
}

/// What can be done now. First what must go in order, as all the rest waits for it in the end.
FilePass::Next FilePass::next() const
{
    if (m_failed)
        return {};
    if (!m_digesting) {
        Chunk *chunk = firstWithout(&Chunk::isDigested);
        if (chunk && chunk->isRead)
            return {Step::Digest, chunk};
    }
    if (!m_writing) {
        Chunk *chunk = firstWithout(&Chunk::isWritten);
        if (chunk && chunk->isRead && chunk->isComputed)
            return {Step::Write, chunk};
    }
    if (Chunk *chunk = firstToCompute())
        return {Step::Compute, chunk};
    if (!m_reading && m_chunksRead < m_chunkCount && m_chunks.size() < window())
        return {Step::Read, nullptr};
    return {};
}

FilePass::Chunk *FilePass::firstWithout(bool Chunk::*mark) const
{
    const auto found = std::find_if(
        m_chunks.begin(), m_chunks.end(), [mark](const auto &chunk) { return !((*chunk).*mark); });
    return found == m_chunks.end() ? nullptr : found->get();
}

/// The first chunk whose sums and matches nobody has begun with and whose data is all there.
FilePass::Chunk *FilePass::firstToCompute() const
{
    for (std::size_t i = 0; i < m_chunks.size(); ++i) {
        const Chunk &chunk = *m_chunks[i];
        if (chunk.isBeingComputed || chunk.isComputed)
            continue;
        const bool needsNext = wantsOverlap() && chunk.end() < m_input.size();
        const bool hasNext = i + 1 < m_chunks.size() && m_chunks[i + 1]->isRead;
        return chunk.isRead && (!needsNext || hasNext) ? m_chunks[i].get() : nullptr;
    }
    return nullptr;
}

/// How many chunks may be in memory: enough for all threads, but no more for many files at once.
std::size_t FilePass::window() const
{
    constexpr qint64 ChunksPerThread = 6;
    constexpr qint64 Least = 3;
    const qint64 all = ChunksPerThread * m_crew.threadCount();
    return static_cast<std::size_t>(std::max(Least, all / std::max(1, m_crew.sharedWorks())));
}

FilePass::Chunk &FilePass::addChunk()
{
    auto chunk = std::make_unique<Chunk>();
    chunk->begin = m_chunksRead * ChunkSize;
    chunk->size = std::min(ChunkSize, m_input.size() - chunk->begin);
    chunk->isDigested = !m_targets.digest;
    chunk->isComputed = !wantsComputing();
    chunk->isWritten = !wantsWriting();
    if (!m_spare.empty()) {
        chunk->bytes = std::move(m_spare.back());
        m_spare.pop_back();
    }
    m_chunks.push_back(std::move(chunk));
    ++m_chunksRead;
    return *m_chunks.back();
}

void FilePass::readNext(std::unique_lock<std::mutex> &lock)
{
    Chunk *previous = m_chunks.empty() ? nullptr : m_chunks.back().get();
    Chunk &chunk = addChunk();
    workUnlocked(lock, m_reading, [&] { read(chunk, previous); });
    chunk.isRead = true;
}

void FilePass::read(Chunk &chunk, Chunk *previous)
{
    if (!m_contentGiven) {
        const bool isLast = chunk.end() == m_input.size();
        chunk.bytes.resize(
            static_cast<std::size_t>(chunk.size + (wantsOverlap() && !isLast ? Overlap : 0)));
        if (!m_input.readAt(chunk.begin, chunk.bytes.data(), chunk.size)
            || (isLast && !m_input.isUnchanged())) {
            fail(m_input.error());
            return;
        }
    }
    if (previous && wantsOverlap()) {
        previous->overlap = std::min(Overlap, chunk.size);
        std::copy_n(chunk.bytes.data(), previous->overlap, previous->bytes.data() + previous->size);
    }
}

/// The file's digest is ready once that of the last chunk is.
void FilePass::digest(const Chunk &chunk)
{
    m_digest->add(reinterpret_cast<const char *>(chunk.bytes.data()), chunk.size);
    if (chunk.end() < m_input.size())
        return;
    const QByteArray digest = m_digest->finish();
    if (digest.isEmpty())
        fail({m_input.path(), QStringLiteral("cannot be hashed")});
    else
        m_sha512 = Sha512::fromDigest(digest);
}

void FilePass::compute(Chunk &chunk)
{
    const auto size = static_cast<std::size_t>(chunk.size);
    if (m_targets.signature)
        computeBlockSums(chunk.bytes.data(), size, &chunk.sums);
    FileError error;
    if (m_targets.delta
        && !m_targets.finder->find(stretchOf(chunk), chunk.sums, &chunk.matches, &error))
        fail(error);
    if (m_targets.index) {
        const qint64 windows = chunk.size + chunk.overlap - m_targets.index->window() + 1;
        m_targets.index->sample(chunk.bytes.data(), std::min(chunk.size, windows), &chunk.samples);
    }
}

Stretch FilePass::stretchOf(const Chunk &chunk) const
{
    const qint64 available = chunk.end() + chunk.overlap;
    return {chunk.bytes.data(), chunk.begin, chunk.end(), available, available == m_input.size()};
}

void FilePass::write(Chunk &chunk)
{
    const auto check = [this](const OutputFile *file) {
        if (file && !file->error().isEmpty())
            fail(file->error());
    };
    if (m_targets.signature) {
        m_targets.signature->write(
            chunk.sums.data(), chunk.sums.size() * SignatureFormat::RecordLength);
    }
    if (m_targets.copy)
        m_targets.copy->write(chunk.bytes.data(), static_cast<std::size_t>(chunk.size));
    if (m_targets.delta)
        m_deltaMaker->write(stretchOf(chunk), chunk.sums, std::move(chunk.matches));
    if (m_targets.index)
        m_targets.index->insert(chunk.bytes.data(), chunk.begin, chunk.samples);
    check(m_targets.signature);
    check(m_targets.copy);
    check(m_targets.delta);
}

/// Ends the pass; the first error is kept.
void FilePass::fail(const FileError &error)
{
    const std::lock_guard lock(m_errorMutex);
    if (!m_failed)
        m_error = error;
    m_failed = true;
}

/// Lets go of the chunks at the front that nobody needs any more.
void FilePass::releaseDone()
{
    while (!m_chunks.empty()) {
        Chunk &chunk = *m_chunks.front();
        if (!chunk.isRead || !chunk.isDigested || !chunk.isComputed || !chunk.isWritten)
            break;
        m_done += chunk.size;
        ++m_chunksDone;
        m_spare.push_back(std::move(chunk.bytes));
        m_chunks.pop_front();
    }
}

} // namespace Pellox
