// SPDX-License-Identifier: MIT
#include "signaturefile.h"

#include <algorithm>
#include <limits>

namespace Pellox {

namespace {

constexpr auto HeaderLength = static_cast<qint64>(SignatureFormat::HeaderLength);
constexpr auto RecordLength = static_cast<qint64>(SignatureFormat::RecordLength);

} // namespace

bool SignatureFile::open(const QString &path)
{
    if (!m_file.open(path))
        return fail(m_file.error());
    const QString broken = aboutFile(path, QStringLiteral("is no signature, or broken"));
    if (m_file.size() < HeaderLength || (m_file.size() - HeaderLength) % RecordLength != 0)
        return fail(broken);
    std::array<uchar, SignatureFormat::HeaderLength> header{};
    if (!m_file.readAt(0, header.data(), HeaderLength))
        return fail(m_file.error());
    m_blockCount = (m_file.size() - HeaderLength) / RecordLength;
    return (header == signatureHeader() && m_blockCount < std::numeric_limits<qint32>::max())
        || fail(broken);
}

bool SignatureFile::readBlock(qint64 index, BlockRecord *record)
{
    return m_file.readAt(HeaderLength + index * RecordLength, record->data(), RecordLength)
        || fail(m_file.error());
}

bool SignatureFile::readAll(std::vector<BlockRecord> *records)
{
    records->resize(static_cast<std::size_t>(m_blockCount));
    return m_file.readAt(HeaderLength, reinterpret_cast<uchar *>(records->data()),
               m_blockCount * RecordLength)
        || fail(m_file.error());
}

bool SignatureFile::copyTo(OutputFile &output)
{
    constexpr qint64 AtOnce = 1 << 18;
    std::vector<uchar> bytes(static_cast<std::size_t>(std::min(AtOnce, m_file.size())));
    for (qint64 position = 0; position < m_file.size();) {
        const qint64 size = std::min(AtOnce, m_file.size() - position);
        if (!m_file.readAt(position, bytes.data(), size))
            return fail(m_file.error());
        output.write(bytes.data(), static_cast<std::size_t>(size));
        position += size;
    }
    return true;
}

bool SignatureFile::fail(const QString &error)
{
    m_error = error;
    return false;
}

} // namespace Pellox
