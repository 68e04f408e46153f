// SPDX-License-Identifier: MIT
#pragma once

#include "blocksums.h"
#include "diskfile.h"
#include "goon.h"

namespace Pellox {

/// A signature file of an old build, of the only kind that the library writes.
class SignatureFile
{
public:
    /// Whether a file of a size that a signature can have is at @p path; opens nothing.
    static bool looksWhole(const QString &path);

    /// False with error() when the file is missing, or no such signature.
    bool open(const QString &path);

    qint64 blockCount() const { return m_blockCount; }
    /// False with error().
    bool readBlock(qint64 index, BlockRecord *record);
    /// False with error(), which is empty when @p goOn has said no.
    bool readAll(std::vector<BlockRecord> *records, const GoOn &goOn);
    /// Writes the whole file to @p output. False with error(), which is empty when @p goOn has said
    /// no; that of @p output is its own.
    bool copyTo(OutputFile &output, const GoOn &goOn);

    QString error() const { return m_error; }

private:
    bool fail(const QString &error);

    InputFile m_file;
    qint64 m_blockCount = 0;
    QString m_error;
};

} // namespace Pellox
