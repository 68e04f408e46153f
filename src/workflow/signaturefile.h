// SPDX-License-Identifier: MIT
#pragma once

#include "blocksums.h"
#include "diskfile.h"

namespace Pellox {

/// A signature file of an old build, of the only kind that the library writes.
class SignatureFile
{
public:
    /// False with error() when the file is missing, or no such signature.
    bool open(const QString &path);

    qint64 blockCount() const { return m_blockCount; }
    /// False with error().
    bool readBlock(qint64 index, BlockRecord *record);
    /// False with error().
    bool readAll(std::vector<BlockRecord> *records);
    /// Writes the whole file to @p output. False with error(); that of @p output is its own.
    bool copyTo(OutputFile &output);

    QString error() const { return m_error; }

private:
    bool fail(const QString &error);

    InputFile m_file;
    qint64 m_blockCount = 0;
    QString m_error;
};

} // namespace Pellox
