// SPDX-License-Identifier: MIT
#include "signaturefile.h"

#include <QFile>

#include <algorithm>
#include <limits>

namespace Pellox {

namespace {

constexpr auto HeaderLength = static_cast<qint64>(SignatureFormat::HeaderLength);
constexpr auto RecordLength = static_cast<qint64>(SignatureFormat::RecordLength);
constexpr qint64 AtOnce = 1 << 18; // bytes, also between two looks at whether to go on

bool isSizeOfSignature(qint64 size)
{
    return size >= HeaderLength && (size - HeaderLength) % RecordLength == 0;
}

} // namespace

bool SignatureFile::looksWhole(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISREG(status.st_mode)
        && isSizeOfSignature(status.st_size);
}

bool SignatureFile::open(const QString &path)
{
    if (!m_file.open(path))
        return fail(m_file.error());
    const QString broken = aboutFile(path, QStringLiteral("is no signature, or broken"));
    if (!isSizeOfSignature(m_file.size()))
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

bool SignatureFile::readAll(std::vector<BlockRecord> *records, const GoOn &goOn)
{
    records->resize(static_cast<std::size_t>(m_blockCount));
    auto *bytes = reinterpret_cast<uchar *>(records->data());
    for (qint64 position = HeaderLength; position < m_file.size(); position += AtOnce) {
        const qint64 size = std::min(AtOnce, m_file.size() - position);
        if (!mayGoOn(goOn))
            return fail(QString());
        if (!m_file.readAt(position, bytes + (position - HeaderLength), size))
            return fail(m_file.error());
    }
    return true;
}

bool SignatureFile::copyTo(OutputFile &output, const GoOn &goOn)
{
    std::vector<uchar> bytes(static_cast<std::size_t>(std::min(AtOnce, m_file.size())));
    for (qint64 position = 0; position < m_file.size(); position += AtOnce) {
        const qint64 size = std::min(AtOnce, m_file.size() - position);
        if (!mayGoOn(goOn))
            return fail(QString());
        if (!m_file.readAt(position, bytes.data(), size))
            return fail(m_file.error());
        output.write(bytes.data(), static_cast<std::size_t>(size));
    }
    return true;
}

bool SignatureFile::fail(const QString &error)
{
    m_error = error;
    return false;
}

} // namespace Pellox
