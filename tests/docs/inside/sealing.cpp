// SPDX-License-Identifier: MIT
// A publisher's function that seals a patch.
#include <QString>
#include <QStringList>

#include <cstdio>

void seal(const QString &patch, const QString &oldSignatures, qint64 release);
void seal(const QString &patch, const QString &oldSignatures, qint64 release)
{
    // SAMPLE
}
