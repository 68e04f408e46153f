// SPDX-License-Identifier: MIT
#pragma once

#include "buildfiles.h"
#include "diskfile.h"
#include "sha512.h"

#include <QJsonObject>

#include <optional>

namespace Pellox {

/**
 * Which release is installed, as the last sealed update says; in a file of the build's hidden
 * folder. A build that was brought about in another way has none.
 */
struct InstalledRelease
{
    qint64 number = 0;
    Sha512 build; ///< its identity

    QJsonObject toJson() const;
    static std::optional<InstalledRelease> fromJson(const QJsonObject &object);

    /// Of the build in @p folder. Nothing when there is none; with @p error when the file cannot be
    /// read or understood.
    static std::optional<InstalledRelease> read(const QString &folder, FileError *error);
    static std::optional<InstalledRelease> read(BuildFiles &files, FileError *error);
    /// Writes it in one step; @p syncs: of which a power cut leaves nothing or all, and waits until
    /// it is on the disk. False with @p error.
    bool write(BuildFiles &files, bool syncs, FileError *error) const;
    /// True also when there was none.
    static bool remove(BuildFiles &files, FileError *error);

private:
    static std::optional<InstalledRelease> take(InputFile &file, bool isOpen, FileError *error);
};

} // namespace Pellox
