// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonArray>
#include <QString>

/**
 * A patch folder of any size that costs no room: its files are holes but for the commands of the
 * deltas. Relative paths begin with a separator. Ends the test program on an error.
 */
class MadeUpPatch
{
public:
    /// @p folder is made where it is missing.
    explicit MadeUpPatch(QString folder);

    /// A delta of one copy and one literal of these lengths; none where a length is 0.
    void patch(const QString &path, qint64 copied, qint64 literal);
    void copy(const QString &path, qint64 size);
    void remove(const QString &path);
    /// Writes the manifest.
    void finish() const;

    /// The size of a delta that patch() makes of both.
    static constexpr qint64 deltaSize(qint64 literal) { return 4 + 17 + 9 + literal + 1; }

private:
    void write(const QString &path, const QByteArray &begin, qint64 hole) const;

    QString m_folder;
    QJsonArray m_rules;
};
