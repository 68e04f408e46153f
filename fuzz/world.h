// SPDX-License-Identifier: MIT
#pragma once

#include "fuzzing.h"

#include "testtree.h"

#include <QStringList>

/**
 * An installed build with a player's file in it, a sealed patch with every kind of rule, and files
 * around both that nothing may touch.
 */
class World
{
public:
    World();

    QString build() const { return m_build; }
    QString patch() const { return m_patch; }
    /// A folder with all files of the new build.
    QString fallback() const { return m_tree.path(QStringLiteral("new")); }
    /// The public key whose seal the patch has.
    QString trustedKey() const { return m_key + QStringLiteral(".pub"); }

    /// As they were made; the installed build is that before the update.
    const Snapshot &oldBuild() const { return m_oldBuild; }
    const Snapshot &newBuild() const { return m_newBuild; }
    /// As it was made, folders too.
    const Snapshot &patchFiles() const { return m_patchFiles; }

    Snapshot buildNow() const { return TestTree::snapshot(m_build); }
    /// The installed build becomes the old one.
    void layBuild() const;
    void writePatchFile(const QString &relativePath, const QByteArray &content) const;
    /// Ends the process when the patch is not @p expected, or when anything around it and the build
    /// has changed.
    void checkSurroundings(const Snapshot &expected) const;

private:
    Snapshot surroundings() const;

    TestTree m_tree;
    QString m_build = m_tree.path(QStringLiteral("build"));
    QString m_patch = m_tree.path(QStringLiteral("patch"));
    QString m_key;
    Snapshot m_oldBuild;
    Snapshot m_newBuild;
    Snapshot m_patchFiles;
    Snapshot m_surroundings;
};

/**
 * What an input makes of @p original: with @p overwrites each three bytes of @p edits are an
 * offset, the higher byte first, and the byte that goes there; else @p edits is all of it.
 */
QByteArray edited(QByteArray original, const QByteArray &edits, bool overwrites);
