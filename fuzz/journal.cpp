// SPDX-License-Identifier: MIT
// Input: a byte, then by it a journal, the line of one whose checksum is made here, or the record
// of the installed release. What is taken leads nowhere out of the build and can be written and
// read again.
#include "fuzzing.h"

#include "buildfiles.h"
#include "installedrelease.h"
#include "journal.h"
#include "sealfile.h"
#include "testtree.h"
#include "workfolder.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>

#include <optional>

using namespace Pellox;

namespace {

// First bytes; any other means a whole journal.
constexpr char JournalLine = 'l';
constexpr char ReleaseRecord = 'r';

std::optional<TestTree> tree;
QString build;

QByteArray withChecksum(QByteArray line)
{
    line.replace('\n', ' ');
    line += '\n';
    return line + QCryptographicHash::hash(line, QCryptographicHash::Sha512).toHex() + '\n';
}

void checkRelease(const InstalledRelease &release)
{
    require(release.number >= 1 && release.number <= LargestRelease, "a release has a number");
    const auto again = InstalledRelease::fromJson(release.toJson());
    require(again && again->number == release.number && again->build == release.build,
        "a release is read again as it was written");
}

void checkPlacements(const std::vector<Journal::Placement> &placements)
{
    for (const Journal::Placement &placement : placements) {
        require(staysInside(placement.from), "whatever is placed comes from the build");
        require(staysInside(placement.to) && !WorkFolder::isInside(placement.to),
            "whatever is placed goes to the build");
        require(placement.mark.size >= 0, "whatever is placed is known again");
    }
}

void tryJournal(const QByteArray &bytes)
{
    const auto journal = Journal::fromBytes(bytes);
    if (!journal)
        return;
    checkPlacements(journal->first);
    checkPlacements(journal->last);
    for (const auto &[path, mark] : journal->deletions)
        require(staysInside(path) && !WorkFolder::isInside(path), "deletions stay in the build");
    if (journal->release)
        checkRelease(*journal->release);

    const QByteArray written = journal->toBytes();
    const auto again = Journal::fromBytes(written);
    require(again.has_value(), "a written journal is read again");
    require(again->toBytes() == written, "a journal is written again as it was");
    require(again->first.size() == journal->first.size()
            && again->last.size() == journal->last.size()
            && again->deletions.size() == journal->deletions.size()
            && again->keepsPrevious == journal->keepsPrevious
            && again->isRollback == journal->isRollback
            && again->changesRelease == journal->changesRelease
            && again->release.has_value() == journal->release.has_value(),
        "a journal is read again as it was");
}

void tryRelease(const QByteArray &bytes)
{
    writeFile(build + WorkFolder::Release, bytes);
    FileError error;
    const auto release = InstalledRelease::read(build, &error);
    require(release.has_value() == error.isEmpty(), "a record is refused for a reason");
    if (!release)
        return;
    checkRelease(*release);
    WorkFolder folder(build);
    require(folder.lock(), "nobody else is at work on the build");
    BuildFiles files(folder);
    require(release->write(files, false, &error), "a record can be written again");
    const auto again = InstalledRelease::read(build, &error);
    require(again && again->number == release->number && again->build == release->build,
        "a record is read again as it was written");
}

} // namespace

void prepare()
{
    tree.emplace();
    build = tree->path();
    tree->makeFolder(WorkFolder::Name.mid(1));
    Journal journal;
    journal.first.push_back({"/a.temp"_s, "/a"_s, {1, Sha512(), std::nullopt}});
    journal.deletions.push_back({"/gone"_s});
    journal.changesRelease = true;
    journal.release = InstalledRelease{7, Sha512()};
    const QByteArray bytes = journal.toBytes();
    require(
        withChecksum(bytes.left(bytes.indexOf('\n'))) == bytes, "the checksum is the journal's");
    const auto again = Journal::fromBytes(bytes);
    require(again && again->release && again->first.size() == 1 && again->deletions.size() == 1,
        "a good journal is taken");
}

void tryInput(const QByteArray &input)
{
    const QByteArray content = input.mid(1);
    if (input.startsWith(ReleaseRecord))
        tryRelease(content);
    else
        tryJournal(input.startsWith(JournalLine) ? withChecksum(content) : content);
}
