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
        return {"not-writable",
            "Let the user who updates write there: mind owners, permissions and attributes."};
    case Code::BadManifest:
        return {"bad-manifest",
            "See whether this is the right folder; if it is, get it anew, and if that does not "
            "help, its publisher must mend it."};
    case Code::BadPatch:
        return {
            "bad-patch", "Get the patch anew; if that does not help, its publisher must mend it."};
    case Code::DamagedInstall:
        return {"damaged-install",
            "Either the build is damaged, or the patch is for another release: use the patch for "
            "the installed release, or check and repair the build, or give a folder with the files "
            "of the new build as the fallback."};
    case Code::Obstructed:
        return {"obstructed", "Move away what is there, then try again."};
    case Code::BadFallback:
        return {"bad-fallback",
            "Give a folder with the files of the very build that is to come about."};
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
        return {
            "older-release", "Use a newer patch, or allow older releases if you want to go back."};
    case Code::ForeignPatch:
        return {"foreign-patch",
            "Get the patch that leads on from the installed release; if the build is not what its "
            "record says, check and repair it."};
    case Code::BadKey:
        return {"bad-key", "Give the publisher's public key, as a PEM file."};
    case Code::Unfinished:
        return {"unfinished", "Run the update, or finish what was begun, then try again."};
    case Code::NoMemory:
        return {"no-memory", "Close other programs, then try again."};
    case Code::DamagedKept:
        return {"damaged-kept",
            "The kept files are damaged, and nothing can be rolled back; \"pellox discard\" gives "
            "them up."};
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
