// SPDX-License-Identifier: MIT
#pragma once

#include "contentindex.h"
#include "crew.h"
#include "deltamaker.h"
#include "digest.h"
#include "diskfile.h"
#include "sha512.h"

#include <atomic>
#include <deque>
#include <memory>
#include <optional>

namespace Pellox {

/**
 * Reads a file once and does with its content all that is wanted: digest, signature, copy, delta,
 * index.
 *
 * The file goes through memory in chunks. Sums, matches and samples of chunks are computed side by
 * side on all threads; reading, the digest and the writing go from chunk to chunk, each on one
 * thread at a time.
 */
class FilePass : public SharedWork
{
public:
    static constexpr qint64 ChunkSize = 1 << 20; ///< a multiple of the block length

    /// What is wanted. Files must be open and outlive the pass.
    struct Targets
    {
        bool digest = false;
        OutputFile *signature = nullptr;
        OutputFile *copy = nullptr;
        OutputFile *delta = nullptr;
        MatchFinder *finder = nullptr; ///< for the delta
        ContentIndex *index = nullptr; ///< takes in the content
    };

    using Bytes = std::vector<uchar>;

    /// @p done counts the bytes that are done with.
    FilePass(Crew &crew, Content &input, const Targets &targets, std::atomic<qint64> &done);
    ~FilePass() override;

    bool step(std::unique_lock<std::mutex> &lock) override;
    bool isDone() const override { return m_failed || m_chunksDone == m_chunkCount; }

    /// Once done: why it was not done to the end; empty when it was.
    const FileError &error() const { return m_error; }

    /// Once done without an error, where the digest was wanted.
    const Sha512 &sha512() const { return m_sha512; }

    /// Once done, of a file of one chunk: takes the content, for another pass.
    Bytes takeContent() { return std::move(m_spare.back()); }
    /// Before the first step: the content of a file of one chunk, so that it is not read again.
    void setContent(Bytes content)
    {
        m_spare.push_back(std::move(content));
        m_contentGiven = true;
    }

private:
    enum class Step { None, Read, Digest, Compute, Write };
    struct Chunk;
    struct Next
    {
        Step step = Step::None;
        Chunk *chunk = nullptr; ///< none yet where one is to be read
    };

    Next next() const;
    bool wantsComputing() const
    {
        return m_targets.signature || m_targets.delta || m_targets.index;
    }
    bool wantsWriting() const { return wantsComputing() || m_targets.copy; }
    /// Whether what is computed of a chunk looks into the next one.
    bool wantsOverlap() const { return m_targets.delta || m_targets.index; }
    Chunk *firstWithout(bool Chunk::*mark) const;
    Chunk *firstToCompute() const;
    std::size_t window() const;
    template <typename Work>
    void workUnlocked(std::unique_lock<std::mutex> &lock, bool &isBusy, const Work &work);

    Chunk &addChunk();
    void readNext(std::unique_lock<std::mutex> &lock);
    void read(Chunk &chunk, Chunk *previous);
    void digest(const Chunk &chunk);
    void compute(Chunk &chunk);
    void write(Chunk &chunk);
    Stretch stretchOf(const Chunk &chunk) const;
    void releaseDone();
    void fail(const FileError &error);

    Crew &m_crew;
    Content &m_input;
    const Targets m_targets;
    std::atomic<qint64> &m_done;
    const qint64 m_chunkCount;
    bool m_contentGiven = false;

    std::deque<std::unique_ptr<Chunk>> m_chunks; ///< in memory, in the order of the file
    std::vector<Bytes> m_spare;
    qint64 m_chunksRead = 0; ///< begun to read
    qint64 m_chunksDone = 0;
    bool m_reading = false;
    bool m_digesting = false;
    bool m_writing = false;

    std::mutex m_errorMutex;
    FileError m_error;
    std::atomic<bool> m_failed{false};

    std::optional<Digest> m_digest;
    Sha512 m_sha512;
    std::optional<DeltaMaker> m_deltaMaker;
};

} // namespace Pellox
