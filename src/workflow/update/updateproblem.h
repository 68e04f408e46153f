// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QMetaType>
#include <QString>

namespace Pellox {

/// One thing that keeps UpdateController from its work, in a form that programs can act upon.
struct PELLOX_EXPORT UpdateProblem
{
    /// Stable: numbers and names do not change from one version to the next.
    enum class Code {
        BadFolder
        = 1,         ///< the build, the patch or the fallback is no folder, or one lies in another
        Busy,        ///< somebody else works on the build
        NotWritable, ///< a folder of the build cannot be written, or a file in it not be replaced
        BadManifest, ///< patchRules.json is missing, malformed, or has a rule that is refused
        BadPatch,    ///< a file of the patch is missing, no regular file, or broken
        DamagedInstall, ///< an installed file is missing or not the one that the patch is for
        Obstructed,     ///< a link, a special file or a folder with other files is in the way
        BadFallback,    ///< the fallback does not have the file that the patch leads to
        NoSpace,        ///< the disk is too full
        ReadOrWrite,    ///< the system could not read or write a file
        DamagedJournal, ///< what a crash has left cannot be understood
        NothingKept,    ///< there is no earlier build to bring back
        NotTrusted,     ///< the patch has no seal by a trusted key, or differs from it
        OlderRelease,   ///< the patch leads to an older release than the one that is installed
        ForeignPatch,   ///< the patch leads on from another build than the one that is installed
        BadKey,         ///< a file that was given as a trusted key holds none that can be used
        Unfinished,     ///< an earlier run was interrupted, and is to be finished first
        NoMemory,       ///< the system gives no more memory or threads
        DamagedKept,    ///< a kept file of the earlier build, or their record, is not as it was
    };

    Code code = Code::ReadOrWrite; ///< its kind
    QString file;                  ///< absolute path
    QString reason;                ///< English, without the path

    /// The file and the reason, for people.
    QString message() const;
    /// The code in the form "damaged-install".
    QString codeName() const;
    /// What the one who sees it can do, a sentence in English.
    QString advice() const;
};

} // namespace Pellox

Q_DECLARE_METATYPE(Pellox::UpdateProblem)
