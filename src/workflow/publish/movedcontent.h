// SPDX-License-Identifier: MIT
#pragma once

#include "diskfile.h"
#include "movesources.h"
#include "signatureset.h"

#include <QStringList>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace Pellox {

/// Where content of a new file stands in an old build.
struct FoundContent
{
    QString path;             ///< of the old file that most of it is in; empty where there is none
    qint64 bytes = 0;         ///< how much of the new file
    bool isWhole = false;     ///< the two files are the same
    bool isEstimated = false; ///< the bytes are
};

/**
 * The content of an old build by its signatures: whole files by their SHA-512, parts of files by
 * the sums of their blocks, wherever these stand in a new file. Of very many blocks only each
 * so-and-so-many-th is known, and so how much of a file is found is an estimate.
 */
class MovedContent
{
public:
    static constexpr qint64 MostBlocks = 1 << 21; ///< of 4 GiB, in 150 MiB of memory or so

    /// @p signatures: the folder; absolute, without a separator at the end.
    explicit MovedContent(QString signatures, qint64 mostBlocks = MostBlocks);

    /// Reads which files there are. @p touched are those that rules of the patch name. False after
    /// @p error.
    bool read(const QStringList &touched, FileError *error);

    /// Of 1, how far it is.
    using Report = std::function<void(double share)>;
    /// Looks for the content of file @p path, which stands at @p relativePath in the new build.
    /// Nothing after @p error.
    std::optional<FoundContent> find(
        const QString &path, const QString &relativePath, const Report &report, FileError *error);

private:
    /// The blocks of one old file, from this one on.
    struct FirstBlock
    {
        std::size_t block; ///< its number among those that are known
        std::size_t file;
    };

    bool readBlocks(const std::function<void()> &report, FileError *error);
    bool addBlocks(std::size_t file, qint64 *next, qint64 *begin, std::vector<BlockRecord> *records,
        FileError *error);
    std::optional<FoundContent> search(InputFile &file, const Report &report) const;
    std::size_t fileOf(std::size_t block) const;

    const QString m_signatures;
    const qint64 m_mostBlocks;
    QStringList m_files; ///< of the old build
    MoveSources m_sources;
    qint64 m_every = 1; ///< of so many blocks one is known
    std::vector<FirstBlock> m_firstBlocks;
    std::size_t m_blockCount = 0;
    std::optional<SignatureSet> m_blocks; ///< once they are needed
};

} // namespace Pellox
