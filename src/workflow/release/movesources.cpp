// SPDX-License-Identifier: MIT
#include "movesources.h"

#include "sealedpatch.h"

namespace Pellox {

void MoveSources::offer(const QString &path, const Sha512 &sha512)
{
    const auto [source, isFirst] = m_sources.emplace(sha512, path);
    if (isFirst)
        return;
    const bool isTouched = m_touched.contains(path);
    const bool otherIsTouched = m_touched.contains(source->second);
    if (isTouched != otherIsTouched ? otherIsTouched : InByteOrder()(path, source->second))
        source->second = path;
}

/// A new file of an old one's name and content, which only a patch that was made by hand has, needs
/// no source.
QString MoveSources::sourceOf(const QString &path, const Sha512 &sha512) const
{
    const auto source = m_sources.find(sha512);
    return source == m_sources.cend() || source->second == path ? QString() : source->second;
}

} // namespace Pellox
