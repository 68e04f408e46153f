// SPDX-License-Identifier: MIT
#include "endings.h"

#include <algorithm>
#include <iterator>

namespace {

struct Meaning
{
    int status;
    const char *outcome;
    const char *meaning;   ///< for --help, of a command that has no words of its own
    const char *lastWords; ///< of a command that ends so
};

// In --help as here. The outcomes are promised to machines: none may change.
constexpr Meaning Meanings[] = {
    {Done, "done", "done", ""},
    {Failed, "not-intact", "standard output cannot be written", ""},
    {WrongUsage, "refused", "wrong usage, a folder that is not there; nothing was touched",
        "nothing was changed"},
    {NothingToDo, "nothing-to-do", "there was nothing to do", ""},
    {Unchanged, "failed", "failed; the build is as it was",
        "nothing was changed: run the same again once the cause is gone"},
    {Unfinished, "unfinished", "failed while files were put in place; the next run finishes it",
        "not finished: once the cause is gone, run \"pellox recover\" or the same again"},
    {DamagedInstall, "damaged-install", "an installed file is missing or not the expected one",
        "nothing was changed: run \"pellox repair\" first, or give --fallback a folder with the "
        "files of the new build"},
    {NoSpace, "no-space", "the disk has no room",
        "nothing was changed: run the same again once there is room"},
    {RefusedPatch, "refused-patch", "the patch or signatures.json is missing, broken or refused",
        "nothing was changed: get the patch or the signatures anew"},
    {InTheWay, "in-the-way", "something else of the build is not as it must be",
        "nothing was changed: run the same again once that is mended"},
    {Busy, "busy", "another program works on the build",
        "nothing was changed: run the same again once that is done"},
    {DamagedJournal, "damaged-journal",
        "what a crash has left cannot be read; only a person can go on",
        "nothing was changed, and what had been begun is not finished"},
    {NothingKept, "nothing-kept", "no earlier build is kept", "nothing was changed"},
};

const Meaning *meaningOf(int status)
{
    const auto *const found = std::find_if(std::begin(Meanings), std::end(Meanings),
        [status](const Meaning &meaning) { return meaning.status == status; });
    return found == std::end(Meanings) ? nullptr : found;
}

} // namespace

QString outcomeName(int status)
{
    const Meaning *meaning = meaningOf(status);
    return QString::fromLatin1(meaning ? meaning->outcome : "interrupted");
}

QString lastWords(int status)
{
    const Meaning *meaning = meaningOf(status);
    return QString::fromLatin1(meaning ? meaning->lastWords : "");
}

std::string exitStatusHelp(
    std::initializer_list<int> statuses, std::initializer_list<OwnMeaning> ownMeanings)
{
    constexpr size_t Width = 4;
    constexpr int LastOfAll = WrongUsage;
    std::string text = "Exit status:\n";
    for (const Meaning &meaning : Meanings) {
        const bool isAsked
            = std::find(statuses.begin(), statuses.end(), meaning.status) != statuses.end();
        if (meaning.status > LastOfAll && !isAsked)
            continue;
        const auto *const own = std::find_if(ownMeanings.begin(), ownMeanings.end(),
            [&](const OwnMeaning &words) { return words.status == meaning.status; });
        const std::string number = std::to_string(meaning.status);
        text += "  " + number + std::string(Width - number.size(), ' ')
            + (own == ownMeanings.end() ? meaning.meaning : own->meaning) + '\n';
    }
    return text
        + "  130 Ctrl-C (128 and the signal's number); the last line of standard error tells what "
          "to do\n";
}

std::string exitStatusHelp()
{
    return "Exit status:\n"
           "  0   done\n"
           "  1   failed; each error is told on standard error and names its file\n"
           "  2   wrong usage, or refused before anything was touched\n"
           "  130 Ctrl-C (128 and the signal's number)\n";
}
