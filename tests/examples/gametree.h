// SPDX-License-Identifier: MIT
#pragma once

#include "testtree.h"

#include <QStringList>

#include <array>

/// An installed game with a player's file in it, the release after it and the patch between them.
/// Ends the test program on an error.
class GameTree : public TestTree
{
public:
    /// Files that the patch adds.
    static constexpr std::array Levels{"data/levels/caves.pak", "data/levels/cliffs.pak",
        "data/levels/dunes.pak", "data/levels/village.pak", "data/levels/wreck.pak"};

    /// Of 1 the new release has some megabytes, of 2 twice as many, and so on.
    explicit GameTree(int size = 1);

    QString game() const { return path(QStringLiteral("Lighthouse")); }
    QString patch() const { return path(QStringLiteral("patch")); }
    /// What is installed, to the byte.
    QMap<QString, QByteArray> installed() const { return snapshot(game()); }
    /// What is to be installed after the update.
    QMap<QString, QByteArray> updated() const;

    /// The paths of all that stands in a folder, in order. Files may go away meanwhile.
    static QStringList namesIn(const QString &folder);

    /// To the patch, a rule that copies a file.
    void addRule(const QString &relativePath) const;
    /// To the patch. It takes long to write, and no room in the patch.
    void addLargeFile() const;
    /// Packs the patch into volumes of this many bytes; the path of the first.
    QString pack(qint64 volumeSize = 100000000) const;

private:
    void writeTo(const char *folder, const char *file, const QByteArray &content) const;
    void publish() const;
};
