// SPDX-License-Identifier: MIT
#include "updateproblem.h"

#include "diskfile.h"

namespace Pellox {

namespace {

struct Words
{
    const char *name;
    const char *advice;
};

Words wordsOf(UpdateProblem::Code code)
{
    using Code = UpdateProblem::Code;
    switch (code) {
    case Code::BadFolder:
        return {"bad-folder", "Name folders that are there and lie apart."};
    case Code::Busy:
        return {"busy", "Wait until the other program is done with the build, then try again."};
    case Code::NotWritable:
        return {"not-writable", "Make the folder writable for the user who updates."};
    case Code::BadManifest:
    case Code::BadPatch:
        return {code == Code::BadPatch ? "bad-patch" : "bad-manifest",
            "Get the patch anew; if that does not help, its publisher must mend it."};
    case Code::DamagedInstall:
        return {"damaged-install",
            "Check and repair the build, or give a folder with the files of the new build as the "
            "fallback."};
    case Code::Obstructed:
        return {"obstructed", "Move away what is there, then try again."};
    case Code::BadFallback:
        return {"bad-fallback", "Give a fallback folder with the files of the new build."};
    case Code::NoSpace:
        return {"no-space", "Free space on the disk of the build, then try again."};
    case Code::ReadOrWrite:
        return {"read-or-write", "Look at the disk and the file's permissions, then try again."};
    case Code::DamagedJournal:
        return {"damaged-journal",
            "Check the build; when it is intact or has been repaired by hand, remove the file."};
    case Code::NothingKept:
        return {"nothing-kept",
            "Only an update that was told to keep the previous build can be rolled back."};
    case Code::NotTrusted:
        return {"not-trusted", "Get the patch from its publisher; do not use this one."};
    case Code::OlderRelease:
        return {"older-release", "Use a newer patch, or allow older releases."};
    case Code::ForeignPatch:
        return {"foreign-patch", "Get the patch that leads on from the installed release."};
    }
    return {"unknown", ""};
}

} // namespace

QString UpdateProblem::message() const
{
    return file.isEmpty() ? reason : aboutFile(file, reason);
}

QString UpdateProblem::codeName() const
{
    return QString::fromLatin1(wordsOf(code).name);
}

QString UpdateProblem::advice() const
{
    return QString::fromLatin1(wordsOf(code).advice);
}

} // namespace Pellox
