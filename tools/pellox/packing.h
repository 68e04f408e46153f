// SPDX-License-Identifier: MIT
#pragma once

#include "newfolders.h"
#include "packcheck.h"
#include "volumes.h"

#include <QString>
#include <QTemporaryDir>

#include <optional>

class Console;

struct PackOptions
{
    qint64 volumeSize = 500LL * 1024 * 1024;
    bool offersForce = false; ///< the command has --force
    bool force = false;       ///< and it was given: an archive that is there is replaced
};

/// Packs a folder into an archive that is put in place only when it is whole.
class Packing
{
public:
    /// Checks what does not depend on the content of @p folder. Throws Refusal and
    /// Interrupt::Stopped.
    Packing(const QString &folder, const QString &archive, PackOptions options);

    /// What is in the folder. Throws Refusal when 7-Zip cannot pack that, or there is nothing, and
    /// Interrupt::Stopped.
    PackedContent content() const;

    /**
     * Makes the folder to work in, beside the archive; it goes with this object. Throws Refusal.
     * Until all is well the archive stands there under a plain name, where it is in nobody's way
     * and 7-Zip cannot take its name for a switch or a pattern.
     */
    void begin();

    /// Packs @p content after begin(), once. Returns false after Console::error(). Throws
    /// Interrupt::Stopped, once the Interrupt::Watch that the caller has ends the event loop. That
    /// must live longer than this object, whose cleaning no signal is to end.
    bool run(Console &console, const PackedContent &content);

private:
    void requireFree() const;
    void noteScarceRoom(Console &console, const PackedContent &content) const;
    QString withoutHidden() const;
    bool runSevenZip(Console &console, const QString &source, const PackedContent &content);
    void reportFailure(Console &console, const QString &problem, const PackedContent &content);
    void reportShortVolumes(Console &console, const QStringList &volumes) const;
    void reportMissingFiles(
        Console &console, const PackedContent &content, const Volumes &made) const;
    void tellRemoval(Console &console) const;
    bool putInPlace(Console &console, const Volumes &made);
    void endWork();

    const QString m_folder;
    const Volumes m_target;
    const PackOptions m_options;
    NewFolders m_newFolders; // goes after the work folder has
    std::optional<QTemporaryDir> m_workFolder;
};
