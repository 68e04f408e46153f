// SPDX-License-Identifier: MIT
#include "newbuild.h"

#include "buildcheck.h"
#include "manifests.h"

#include <Pellox/rules.h>

NewBuild checkedNewBuild(Console &console, const QString &folder, const QStringList &oldFiles,
    const IgnoreOptions &ignore)
{
    requireListable(folder);
    NewBuild build;
    build.folder = folder;
    build.files = filesOfBuild(folder);
    build.ignored = ignoredFiles(console, ignore, folder, build.files);
    refuseManifestName(folder, Pellox::PATCH_RULES_FILE, build.ignored);
    refuseTemporaryNames(folder, build.files, build.ignored, oldFiles);
    build.size = totalSize(build.files);
    return build;
}
