// SPDX-License-Identifier: MIT
#include "gametree.h"

#include "literals.h"

#include <Pellox/ArchiveController>
#include <Pellox/PublishController>

#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

void require(bool done, const char *what)
{
    if (!done)
        qFatal("game tree: cannot %s", what);
}

} // namespace

GameTree::GameTree(int size)
{
    const QByteArray harbour = randomBytes(size * 1500000, 1);
    const QByteArray music = randomBytes(size * 300000, 2);
    const QByteArray program = randomBytes(size * 40000, 3);
    for (const char *release : {"releases/1.0/", "Lighthouse/"}) {
        writeTo(release, "lighthouse", program);
        writeTo(release, "data/harbour.pak", harbour);
        writeTo(release, "data/music.pak", music);
        writeTo(release, "data/intro.txt", "Once upon a time");
    }
    writeTo("releases/1.1/", "lighthouse", "Faster. " + program);
    writeTo("releases/1.1/", "data/harbour.pak", "A pier. " + harbour);
    writeTo("releases/1.1/", "data/music.pak", music);
    quint32 seed = 4;
    for (const char *level : Levels)
        writeTo("releases/1.1/", level, randomBytes(size * 300000, seed++));
    publish();
    writeTo("Lighthouse/", "saves/slot1.sav", "a player's");
}

QStringList GameTree::namesIn(const QString &folder)
{
    QStringList names;
    QDirIterator entry(folder,
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
        QDirIterator::Subdirectories);
    while (entry.hasNext())
        names.append(entry.next().mid(folder.size() + 1));
    names.sort();
    return names;
}

QMap<QString, QByteArray> GameTree::updated() const
{
    QMap<QString, QByteArray> files = snapshot(path("releases/1.1"_s));
    files.insert("saves/"_s, QByteArray());
    files.insert("saves/slot1.sav"_s, "a player's");
    return files;
}

void GameTree::addRule(const QString &relativePath) const
{
    QJsonArray rules = QJsonDocument::fromJson(read("patch/patchRules.json"_s)).array();
    rules.append(QJsonObject{{"rule"_s, "copy"_s}, {"relative_path"_s, relativePath}});
    write("patch/patchRules.json"_s, QJsonDocument(rules).toJson());
}

void GameTree::addLargeFile() const
{
    addRule("/data/textures.pak"_s);
    write("patch/data/textures.pak"_s, QByteArray());
    require(QFile::resize(path("patch/data/textures.pak"_s), qint64(1) << 30), "resize a file");
}

QString GameTree::pack(qint64 volumeSize) const
{
    Pellox::ArchiveController packer;
    packer.setSilentEndIsError(true);
    packer.setChunkSize(volumeSize);
    require(packer.createArchive(path("dl"_s), "1.0-1.1.7z"_s, patch()), "pack the patch");
    return path("dl/1.0-1.1.7z.001"_s);
}

void GameTree::writeTo(const char *folder, const char *file, const QByteArray &content) const
{
    write(QString::fromLatin1(folder) + QLatin1String(file), content);
}

void GameTree::publish() const
{
    Pellox::PublishController publisher;
    require(publisher.createSignatures(path("releases/1.0"_s), path("signatures/1.0"_s))
            && publisher.publish(path("releases/1.1"_s), path("signatures/1.0"_s), patch(),
                path("signatures/1.1"_s)),
        "publish");
}
