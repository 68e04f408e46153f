// SPDX-License-Identifier: MIT
#pragma once

#include "sha512.h"

#include <QSet>
#include <QString>

#include <map>

namespace Pellox {

/**
 * Which file of an old build has the content of a new file of another name. Of several it is one
 * that no rule of the patch touches, as that stays what it is, and of these the first in byte
 * order.
 */
class MoveSources
{
public:
    /// Before anything is offered: @p path has a rule in the patch.
    void noteRule(const QString &path) { m_touched.insert(path); }
    /// A file of the old build.
    void offer(const QString &path, const Sha512 &sha512);
    /// The file that new file @p path, which is not empty and has content @p sha512, is made of;
    /// empty where there is none.
    QString sourceOf(const QString &path, const Sha512 &sha512) const;

private:
    QSet<QString> m_touched;
    std::map<Sha512, QString> m_sources;
};

} // namespace Pellox
