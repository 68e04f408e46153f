// SPDX-License-Identifier: MIT
// Input: patchRules.json. What the update takes has only paths inside the build that can stand
// beside each other, means the same to the core, and can be written and read again.
#include "fuzzing.h"

#include "manifest.h"
#include "manifestfile.h"
#include "rulechecks.h"
#include "rules.h"
#include "testtree.h"
#include "workfolder.h"

#include <optional>
#include <set>
#include <utility>

using namespace Pellox;

namespace {

std::optional<TestTree> tree;
QString folder;
QString manifest;

std::optional<std::vector<UpdateRule>> read(const QString &path)
{
    std::vector<FileError> errors;
    auto rules = readRules(path, &errors);
    for (const FileError &error : errors)
        require(error.path == path && !error.isEmpty(), "each error names the manifest");
    return errors.empty() ? std::optional(std::move(rules)) : std::nullopt;
}

bool isSame(const UpdateRule &rule, const UpdateRule &other)
{
    return rule.kind == other.kind && rule.relativePath == other.relativePath
        && rule.sha512 == other.sha512 && rule.size == other.size;
}

/// Whether anything that @p sense takes for @p path or a folder above it is in @p keys.
bool leadsThrough(const std::set<QString> &keys, const QString &path, NameSense sense)
{
    bool found = keys.count(sense.key(path)) > 0;
    for (const QString &above : foldersAbove(path))
        found |= keys.count(sense.key(above)) > 0;
    return found;
}

void checkNeighbours(const std::vector<UpdateRule> &rules, NameSense sense)
{
    QStringList errors;
    checkTogether(rules, sense, &errors);
    if (!errors.isEmpty())
        return;
    std::set<QString> written;
    std::set<QString> temporary;
    for (const UpdateRule &rule : rules) {
        if (rule.kind == UpdateRule::Kind::Delete)
            continue;
        require(written.insert(sense.key(rule.relativePath)).second, "no file is written twice");
        temporary.insert(sense.key(rule.relativePath + WorkFolder::TemporarySuffix));
    }
    for (const UpdateRule &rule : rules) {
        require(!leadsThrough(temporary, rule.relativePath, sense),
            "no rule names what another one stages");
        for (const QString &above : foldersAbove(rule.relativePath)) {
            require(rule.kind == UpdateRule::Kind::Delete || written.count(sense.key(above)) == 0,
                "no file is written below another");
        }
    }
}

/// The core reads the whole file at once, and what it reads is all that it takes for rules.
void checkCoreAgrees(const std::vector<UpdateRule> &rules)
{
    QVariantList records;
    require(Manifest::read(manifest, &records) == Manifest::ReadResult::Complete,
        "the core reads what the update takes");
    require(records.size() == static_cast<int>(rules.size()), "the core finds as many rules");
    for (int i = 0; i < records.size(); ++i) {
        const QVariantMap record = records.at(i).toMap();
        const UpdateRule &rule = rules.at(static_cast<std::size_t>(i));
        require(record.value(Manifest::Rule).toString() == nameOf(rule.kind),
            "the core finds the same rule");
        require(record.value(Manifest::RelativePath).toString() == rule.relativePath,
            "the core finds the same path");
    }
}

void checkWrittenAgain(const std::vector<UpdateRule> &rules)
{
    QVariantList records;
    for (const UpdateRule &rule : rules) {
        QVariantMap record{
            {Manifest::Rule, nameOf(rule.kind)}, {Manifest::RelativePath, rule.relativePath}};
        if (rule.kind == UpdateRule::Kind::Patch) {
            record.insert(Manifest::Sha512, rule.sha512.toText());
            record.insert(Manifest::FileSize, rule.size);
        }
        records.append(record);
    }
    const QString again = folder + "/again.json"_s;
    require(Manifest::write(again, records), "rules can be written");
    const auto readAgain = read(again);
    require(readAgain && readAgain->size() == rules.size(), "written rules are read again");
    for (std::size_t i = 0; i < rules.size(); ++i)
        require(isSame(rules[i], (*readAgain)[i]), "written rules are the same");
}

} // namespace

void prepare()
{
    tree.emplace();
    folder = tree->path();
    manifest = folder + QLatin1Char('/') + PATCH_RULES_FILE;
    const QByteArray sample = R"([{"rule":"copy","relative_path":"/data/new"},
        {"rule":"delete","relative_path":"/gone"},
        {"rule":"patch","relative_path":"/game","file_size":5,"sha512":")"
        + QByteArray(128, 'a') + "\"}]";
    writeFile(manifest, sample);
    const auto rules = read(manifest);
    require(rules && rules->size() == 3, "a good manifest is taken");
}

void tryInput(const QByteArray &input)
{
    writeFile(manifest, input);
    const auto rules = read(manifest);
    if (!rules)
        return;
    for (const UpdateRule &rule : *rules) {
        require(staysInside(rule.relativePath), "every path stays in the build");
        require(!WorkFolder::isInside(rule.relativePath), "no path is one of the update's own");
    }
    for (const bool foldsCase : {false, true}) {
        for (const bool foldsUnicode : {false, true})
            checkNeighbours(*rules, {foldsCase, foldsUnicode});
    }
    checkCoreAgrees(*rules);
    checkWrittenAgain(*rules);
}
