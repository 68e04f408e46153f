// SPDX-License-Identifier: MIT
#include "filedigest.h"

#include "digest.h"

#include <algorithm>
#include <vector>

namespace Pellox {

std::optional<Sha512> sha512OfWhole(InputFile &file, const ReadPart &part)
{
    constexpr qint64 PartSize = 1 << 20;
    Digest digest(QCryptographicHash::Sha512);
    std::vector<uchar> bytes(static_cast<std::size_t>(std::min(PartSize, file.size())));
    for (qint64 at = 0; at < file.size(); at += PartSize) {
        const qint64 size = std::min(PartSize, file.size() - at);
        if (!file.readAt(at, bytes.data(), size))
            return {};
        digest.add(reinterpret_cast<const char *>(bytes.data()), size);
        if (part && !part(size))
            return {};
    }
    return Sha512::fromDigest(digest.finish());
}

} // namespace Pellox
