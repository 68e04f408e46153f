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
        m_deltaWriter.emplace(*targets.delta, !targets.oldBlocks->isEmpty());
}

FilePass::~FilePass() = default;

Sha512 FilePass::sha512()
{
    return Sha512::fromDigest(m_digest->finish());
}

bool FilePass::step(std::unique_lock<std::mutex> &lock)
{
    const auto chunkWithout = [this](bool Chunk::*mark) -> Chunk & {
        return **std::find_if(m_chunks.begin(), m_chunks.end(),
            [mark](const auto &chunk) { return !((*chunk).*mark); });
    };
    switch (nextStep()) {
    case Step::None:
        return false;
    case Step::Digest: {
        Chunk &chunk = chunkWithout(&Chunk::isDigested);
        m_digesting = true;
        lock.unlock();
        m_digest->add(reinterpret_cast<const char *>(chunk.bytes.data()), chunk.size);
        lock.lock();
        m_digesting = false;
        chunk.isDigested = true;
        break;
    }
    case Step::Write: {
        Chunk &chunk = chunkWithout(&Chunk::isWritten);
        m_writing = true;
        lock.unlock();
        write(chunk);
        lock.lock();
        m_writing = false;
        chunk.isWritten = true;
        break;
    }
    case Step::Compute: {
        Chunk &chunk = *firstToCompute();
        chunk.isBeingComputed = true;
        lock.unlock();
        compute(chunk);
        lock.lock();
        chunk.isComputed = true;
        break;
    }
    case Step::Read: {
        Chunk *previous = m_chunks.empty() ? nullptr : m_chunks.back().get();
        Chunk &chunk = addChunk();
        m_reading = true;
        lock.unlock();
        read(chunk, previous);
        lock.lock();
        m_reading = false;
        chunk.isRead = true;
        break;
    }
    }
    releaseDone();
    return true;
}

/// What can be done now. First what must go in order, as all the rest waits for it in the end.
FilePass::Step FilePass::nextStep() const
{
    if (m_failed)
        return Step::None;
    const auto firstWithout = [this](bool Chunk::*mark) -> const Chunk * {
        const auto found = std::find_if(m_chunks.begin(), m_chunks.end(),
            [mark](const auto &chunk) { return !((*chunk).*mark); });
        return found == m_chunks.end() ? nullptr : found->get();
    };
    if (!m_digesting) {
        const Chunk *chunk = firstWithout(&Chunk::isDigested);
        if (chunk && chunk->isRead)
            return Step::Digest;
    }
    if (!m_writing) {
        const Chunk *chunk = firstWithout(&Chunk::isWritten);
        if (chunk && chunk->isRead && chunk->isComputed)
            return Step::Write;
    }
    if (firstToCompute())
        return Step::Compute;
    if (!m_reading && m_chunksRead < m_chunkCount && m_chunks.size() < window())
        return Step::Read;
    return Step::None;
}

/// The first chunk whose sums and matches nobody has begun with and whose data is all there.
FilePass::Chunk *FilePass::firstToCompute() const
{
    for (std::size_t i = 0; i < m_chunks.size(); ++i) {
        const Chunk &chunk = *m_chunks[i];
        if (chunk.isBeingComputed || chunk.isComputed)
            continue;
        const bool needsNext = m_targets.delta && chunk.end() < m_input.size();
        const bool hasNext = i + 1 < m_chunks.size() && m_chunks[i + 1]->isRead;
        return chunk.isRead && (!needsNext || hasNext) ? m_chunks[i].get() : nullptr;
    }
    return nullptr;
}

/// How many chunks may be in memory: enough for all threads, but no more for many files at once.
std::size_t FilePass::window() const
{
    constexpr int ChunksPerThread = 6;
    constexpr int Least = 3;
    return static_cast<std::size_t>(std::max(
        Least, ChunksPerThread * m_crew.threadCount() / std::max(1, m_crew.sharedWorks())));
}

FilePass::Chunk &FilePass::addChunk()
{
    auto chunk = std::make_unique<Chunk>();
    chunk->begin = m_chunksRead * ChunkSize;
    chunk->size = std::min(ChunkSize, m_input.size() - chunk->begin);
    chunk->isDigested = !m_targets.digest;
    chunk->isComputed = !wantsSums();
    chunk->isWritten = !wantsOutput();
    if (!m_spare.empty()) {
        chunk->bytes = std::move(m_spare.back());
        m_spare.pop_back();
    }
    m_chunks.push_back(std::move(chunk));
    ++m_chunksRead;
    return *m_chunks.back();
}

void FilePass::read(Chunk &chunk, Chunk *previous)
{
    if (!m_contentGiven) {
        const bool isLast = chunk.end() == m_input.size();
        chunk.bytes.resize(
            static_cast<std::size_t>(chunk.size + (m_targets.delta && !isLast ? Overlap : 0)));
        if (!m_input.readAt(chunk.begin, chunk.bytes.data(), chunk.size)
            || (isLast && !m_input.isUnchanged())) {
            fail(m_input.error());
            return;
        }
    }
    if (previous && m_targets.delta) {
        previous->overlap = std::min(Overlap, chunk.size);
        std::copy_n(chunk.bytes.data(), previous->overlap, previous->bytes.data() + previous->size);
    }
}

void FilePass::compute(Chunk &chunk)
{
    const auto failSums = [&] { fail({m_input.path(), QStringLiteral("cannot be signed")}); };
    if (m_targets.signature
        && !computeBlockSums(chunk.bytes.data(), static_cast<std::size_t>(chunk.size), &chunk.sums))
        return failSums();
    if (m_targets.delta && !m_targets.oldBlocks->isEmpty()) {
        const Stretch stretch = stretchOf(chunk);
        BlockMatcher matcher(*m_targets.oldBlocks, stretch, chunk.sums);
        if (!matcher.find(chunk.begin, chunk.end(), &chunk.matches))
            return failSums();
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
        writeDelta(chunk);
    check(m_targets.signature);
    check(m_targets.copy);
    check(m_targets.delta);
}

void FilePass::writeDelta(Chunk &chunk)
{
    if (!joinMatches(chunk)) {
        fail({m_input.path(), QStringLiteral("cannot be signed")});
        return;
    }
    const auto literalUpTo = [&](qint64 end) {
        if (end > m_deltaEnd)
            m_deltaWriter->literal(
                chunk.bytes.data() + (m_deltaEnd - chunk.begin), end - m_deltaEnd);
    };
    for (const Match &match : chunk.matches) {
        literalUpTo(match.position);
        m_deltaWriter->copy(match.block * BlockLength, match.length);
        m_deltaEnd = match.end();
    }
    if (m_deltaEnd < chunk.end()) {
        literalUpTo(chunk.end());
        m_deltaEnd = chunk.end();
    }
    if (chunk.end() == m_input.size())
        m_deltaWriter->finish();
}

/**
 * Makes the matches of @p chunk those that a search from the file's beginning would find. The
 * chunk was searched from its first byte, but where the last match of the chunk before reaches
 * into it, that search would have gone on behind that match. From a position that lies in no
 * match of either search, both find the same.
 */
bool FilePass::joinMatches(Chunk &chunk)
{
    std::vector<Match> joined;
    qint64 position = std::max(chunk.begin, m_deltaEnd);
    auto match = chunk.matches.cbegin();
    const auto last = chunk.matches.cend();
    const Stretch stretch = stretchOf(chunk);
    BlockMatcher matcher(*m_targets.oldBlocks, stretch, chunk.sums);
    while (position < chunk.end()) {
        while (match != last && match->end() <= position)
            ++match;
        if (match == last || match->position >= position) {
            joined.insert(joined.end(), match, last);
            break;
        }
        // Inside a match that the search from here has not made.
        const std::size_t before = joined.size();
        const qint64 to = std::min(match->end(), chunk.end());
        if (!matcher.find(position, to, &joined, 1))
            return false;
        position = joined.size() > before ? joined.back().end() : to;
    }
    chunk.matches = std::move(joined);
    return true;
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
