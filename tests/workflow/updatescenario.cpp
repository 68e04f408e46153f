// SPDX-License-Identifier: MIT
#include "updatescenario.h"

#include "foldercompare.h"
#include "literals.h"

#include <Pellox/patchseal.h>
#include <Pellox/publishcontroller.h>

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <optional>

#include <sys/stat.h>

using Pellox::PublishController;
using Pellox::UpdateController;

namespace {

constexpr int Block = 2048;
constexpr int MiB = 1 << 20;

void require(bool done, const char *what)
{
    if (!done)
        qFatal("update scenario: cannot %s", what);
}

QByteArray changedAt(QByteArray bytes, int position)
{
    bytes[position] = static_cast<char>(~bytes.at(position));
    return bytes;
}

/// The content of a regular file; nothing when there is none.
std::optional<QByteArray> contentOf(const QString &path)
{
    QFile file(path);
    const QFileInfo info(path);
    if (info.isSymLink() || !info.isFile() || !file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

struct stat statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        status.st_ino = 0;
    return status;
}

/// Which file it is and when it was last changed in any way.
QString traceOf(const QString &path)
{
    const struct stat status = statusOf(path);
    return "%1 %2.%3"_s.arg(status.st_ino).arg(status.st_ctim.tv_sec).arg(status.st_ctim.tv_nsec);
}

/// Makes of the rule for @p path one that copies the new file.
void copyInsteadOfPatch(const QString &patch, const QString &path, const QByteArray &content)
{
    QFile manifest(patch + "/patchRules.json"_s);
    require(manifest.open(QIODevice::ReadWrite), "open the manifest");
    QJsonArray rules = QJsonDocument::fromJson(manifest.readAll()).array();
    int found = 0;
    for (int i = 0; i < rules.size(); ++i) {
        if (rules.at(i).toObject().value("relative_path"_s) != QJsonValue(path))
            continue;
        rules[i] = QJsonObject{{"rule"_s, "copy"_s}, {"relative_path"_s, path}};
        ++found;
    }
    require(found == 1, "find the rule");
    const QByteArray json = QJsonDocument(rules).toJson();
    QFile file(patch + path);
    require(manifest.resize(0) && manifest.seek(0) && manifest.write(json) == json.size()
            && file.open(QIODevice::WriteOnly) && file.write(content) == content.size(),
        "change the patch");
}

} // namespace

UpdateOutcome outcomeOf(const UpdateStart &start)
{
    UpdateOutcome outcome;
    UpdateController updater;
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&updater, &UpdateController::updateError, &loop,
        [&](const QString &error) { outcome.errors.append(error); });
    QObject::connect(&updater, &UpdateController::problemFound, &loop,
        [&](const Pellox::UpdateProblem &problem) { outcome.problems.append(problem); });
    QObject::connect(&updater, &UpdateController::phaseChanged, &loop,
        [&](UpdateController::UpdatePhase phase) { outcome.phases.append(phase); });
    QObject::connect(&updater, &UpdateController::fileStaged, &loop,
        [&](const QString &path) { outcome.staged.append(path); });
    QObject::connect(
        &updater, &UpdateController::updateProgress, &loop, [&](qlonglong done, qlonglong total) {
            outcome.progress.append({done, total});
        });
    QObject::connect(
        &updater, &UpdateController::finished, &loop, [&](UpdateController::UpdateResult result) {
            outcome.result = result;
            finished = true;
            loop.quit();
        });
    constexpr int Hangs = 600000; // milliseconds
    QTimer::singleShot(Hangs, &loop, &QEventLoop::quit);
    require(start(updater), "start a run");
    loop.exec();
    require(finished, "see the end of a run");
    return outcome;
}

UpdateScenario::UpdateScenario()
{
    const QByteArray small = randomBytes(10 * Block, 1);
    const QByteArray large = randomBytes(MiB + 100, 2);
    const QString longName = "data/"_s + QString(253, QLatin1Char('n'));
    const auto file = [](const QByteArray &content, uint permissions = 0644) {
        return RandomFile{content, permissions, QString()};
    };
    m_old = {
        {"data/changed"_s, file(small, 0640)},
        {"data/emptied"_s, file(small.left(100))},
        {"data/filled"_s, file(QByteArray())},
        {"data/large.pak"_s, file(large, 0640)},
        {"data/taken whole"_s, file(small.left(500), 0600)},
        {"data/unchanged"_s, file(small.mid(1))},
        {"file to folder"_s, file("a file")},
        {"folder to file/one"_s, file("one")},
        {"folder to file/sub/two"_s, file("two")},
        {"game.exe"_s, file(small.mid(2), 0755)},
        {"gone"_s, file("gone")},
        {"left empty/deep/gone"_s, file("gone too")},
        {"moved"_s, file(small.mid(3))},
        {"saves/gone"_s, file("gone as well")},
        {longName, file(small.mid(4))},
    };
    m_new = {
        {"added/deep/program"_s, file("a program", 0755)},
        {"added/large.pak"_s, file(large.left(MiB + 1))},
        {"data/changed"_s, file(changedAt(small, 5000))},
        {"data/emptied"_s, file(QByteArray())},
        {"data/filled"_s, file(small)},
        {"data/large.pak"_s, file(changedAt(large, 30000) + "longer")},
        {"data/taken whole"_s, file("other content")},
        {"data/unchanged"_s, m_old.value("data/unchanged"_s)},
        {"file to folder/inside"_s, file("inside")},
        {"folder to file"_s, file("a file now", 0600)},
        {"game.exe"_s, file(small.mid(2) + "more", 0755)},
        {"moved to here"_s, file(small.mid(3))},
        {longName, file(changedAt(small.mid(4), 1))},
    };
    m_players = {
        {".hidden/notes"_s, file("notes")},
        {"data/settings.ini"_s, file("settings", 0600)},
        {"game.exe.bak"_s, file("a copy")},
        {"mods/mod.pak"_s, file("a mod")},
        {"saves/player.sav"_s, file("a save")},
    };
    m_damaged = m_old;
    m_damaged["data/filled"_s].content = "no longer empty";
    m_damaged["data/large.pak"_s].content = changedAt(large, MiB / 2);
    m_damaged["game.exe"_s].content = "damaged";
    m_damaged["moved"_s].content = changedAt(small.mid(3), 1);
    m_damaged.remove(longName);
    layBuild(m_old, m_tree.path("old"_s));
    layBuild(m_new, newBuild());
    PublishController publisher;
    require(publisher.createSignatures(m_tree.path("old"_s), m_tree.path("old signatures"_s))
            && publisher.publish(
                newBuild(), m_tree.path("old signatures"_s), patch(), signatures()),
        "publish");
    copyInsteadOfPatch(patch(), "/data/taken whole"_s, m_new.value("data/taken whole"_s).content);
    for (const auto &[folder, files] :
        {qMakePair("expected old"_s, m_old), qMakePair("expected damaged"_s, m_damaged),
            qMakePair("expected new"_s, expectedNew())}) {
        layBuild(files, m_tree.path(folder));
        layBuild(m_players, m_tree.path(folder));
        m_tree.makeFolder(folder + "/screenshots"_s);
    }
}

/// What was there keeps its permissions.
RandomBuild UpdateScenario::expectedNew() const
{
    RandomBuild expected = m_new;
    for (auto file = expected.begin(); file != expected.end(); ++file)
        file->permissions = m_old.value(file.key(), *file).permissions;
    return expected;
}

bool UpdateScenario::makeSlim()
{
    const QString key = m_tree.path("slim.key"_s);
    QString error;
    if (!Pellox::PatchSeal::generateKey(key, key + ".pub"_s, &error)) {
        require(error.contains("libcrypto"_s), "make a key");
        return false;
    }
    Pellox::PatchSeal sealer;
    const QString slim = m_tree.path("slim"_s);
    require(sealer.seal(fullPatch(), oldSignatures(), 1, {key})
            && sealer.writeSlim(fullPatch(), slim) && !QFileInfo::exists(slim + "/moved to here"_s),
        "write a slim patch");
    m_slim = slim;
    m_trustedKey = key + ".pub"_s;
    return true;
}

void UpdateScenario::removeRecord() const
{
    QFile::remove(build() + "/.pellox/release"_s);
    removeEmptyWorkFolder();
}

void UpdateScenario::lay()
{
    m_isDamaged = false;
    lay(m_old);
}

void UpdateScenario::layDamaged()
{
    m_isDamaged = true;
    lay(m_damaged);
}

void UpdateScenario::layNew()
{
    m_isDamaged = false;
    lay(expectedNew());
}

void UpdateScenario::lay(const RandomBuild &files)
{
    require(QDir(build()).removeRecursively(), "remove the build");
    layBuild(files, build());
    layBuild(m_players, build());
    m_tree.makeFolder("build/screenshots"_s);
    noteTraces();
}

void UpdateScenario::noteTraces()
{
    m_traces.clear();
    for (auto file = m_players.cbegin(); file != m_players.cend(); ++file)
        m_traces.insert(file.key(), traceOf(build() + QLatin1Char('/') + file.key()));
}

void UpdateScenario::removeEmptyWorkFolder() const
{
    QDir().rmdir(build() + "/.pellox/staged"_s);
    QDir().rmdir(build() + "/.pellox"_s);
}

void UpdateScenario::removeEmptyFolders() const
{
    for (const QString &folder :
        {"left empty/deep"_s, "left empty"_s, "added/deep"_s, "added"_s, "folder to file/sub"_s})
        QDir().rmdir(build() + QLatin1Char('/') + folder);
}

QString UpdateScenario::differenceToOld() const
{
    const QString expected = m_isDamaged ? "expected damaged"_s : "expected old"_s;
    return differenceBetween(m_tree.path(expected), build());
}

QString UpdateScenario::differenceToNew() const
{
    return differenceBetween(m_tree.path("expected new"_s), build());
}

QString UpdateScenario::touchedFile() const
{
    for (auto trace = m_traces.cbegin(); trace != m_traces.cend(); ++trace) {
        const QString path = build() + QLatin1Char('/') + trace.key();
        if (traceOf(path) != trace.value())
            return trace.key() + ": has been touched"_s;
    }
    return QString();
}

QString UpdateScenario::brokenPromise() const
{
    for (auto file = before().cbegin(); file != before().cend(); ++file) {
        const QString path = build() + QLatin1Char('/') + file.key();
        const auto newFile = m_new.constFind(file.key());
        if (newFile == m_new.constEnd())
            continue;
        const auto content = contentOf(path);
        if (!content)
            return file.key() + ": is gone"_s;
        if (*content != file->content && *content != newFile->content)
            return file.key() + ": has neither its old nor its new content"_s;
        if ((statusOf(path).st_mode & 0777U) != file->permissions)
            return file.key() + ": has other permissions"_s;
    }
    for (auto file = m_new.cbegin(); file != m_new.cend(); ++file) {
        const auto content = contentOf(build() + QLatin1Char('/') + file.key());
        if (content && !before().contains(file.key()) && *content != file->content)
            return file.key() + ": has come, but not as it should be"_s;
    }
    if (!hasJournal() && !isOld() && !isNew())
        return "nothing to finish, and neither old nor new"_s;
    return touchedFile();
}

/// Whether all of @p files is there, and none that belongs to @p others alone.
bool UpdateScenario::isAll(const RandomBuild &files, const RandomBuild &others) const
{
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        if (contentOf(build() + QLatin1Char('/') + file.key()) != file->content)
            return false;
    }
    for (auto file = others.cbegin(); file != others.cend(); ++file) {
        if (!files.contains(file.key()) && contentOf(build() + QLatin1Char('/') + file.key()))
            return false;
    }
    return true;
}

UpdateOutcome UpdateScenario::update(bool keepsPrevious) const
{
    return outcomeOf([&](UpdateController &updater) {
        updater.setKeepPrevious(keepsPrevious);
        updater.setSynced(false);
        updater.setFallbackSource(fallback());
        if (!m_trustedKey.isEmpty())
            updater.setTrustedKeys({m_trustedKey});
        return updater.update(build(), patch());
    });
}

UpdateOutcome UpdateScenario::recover() const
{
    return outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        return updater.recover(build());
    });
}

UpdateOutcome UpdateScenario::rollback() const
{
    return outcomeOf([&](UpdateController &updater) {
        updater.setSynced(false);
        return updater.rollback(build());
    });
}

bool UpdateScenario::discardPrevious() const
{
    UpdateController updater;
    updater.setSynced(false);
    return updater.discardPrevious(build());
}
