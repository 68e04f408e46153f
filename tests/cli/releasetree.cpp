// SPDX-License-Identifier: MIT
#include "releasetree.h"

namespace {

const QString PlayersFile = QStringLiteral("saves/one.sav");

} // namespace

ReleaseTree::ReleaseTree()
{
    for (const char *build : {"old", "installed"}) {
        const QString folder = QLatin1String(build);
        write(folder + QLatin1String("/game.exe"), randomBytes(100000, 1));
        write(folder + QLatin1String("/data/gone.txt"), "goes away");
        write(folder + QLatin1String("/data/same.txt"), "stays");
    }
    write(QLatin1String("installed/") + PlayersFile, "the player's");
    write(QStringLiteral("new/game.exe"), "v2 " + randomBytes(100000, 1));
    write(QStringLiteral("new/data/same.txt"), "stays");
    write(QStringLiteral("new/levels/one.map"), randomBytes(3000, 2));
    publish();
    m_oldInstalled = expected("old");
    m_newInstalled = expected("new");
}

/// Only once: the next tree gets the same files.
void ReleaseTree::publish() const
{
    static QMap<QString, QByteArray> published;
    for (const auto &[name, content] : published.toStdMap())
        write(name, content);
    if (!published.isEmpty())
        return;
    const Outcome release = run(
        QStringLiteral("publish new --old-build old --patch patch --signatures sigs-new --quiet"));
    const Outcome old = run(QStringLiteral("sign old sigs-old --fast --quiet"));
    if (release.status != Done || old.status != Done)
        qFatal("release tree: %s%s", qPrintable(release.err), qPrintable(old.err));
    for (const char *folder : {"patch", "sigs-old", "sigs-new"}) {
        const QString name = QLatin1String(folder);
        for (const auto &[file, content] : snapshot(path(name)).toStdMap()) {
            if (!file.endsWith(QLatin1Char('/')))
                published.insert(name + QLatin1Char('/') + file, content);
        }
    }
}

Outcome ReleaseTree::run(const QString &words) const
{
    return runPellox(words.split(QLatin1Char(' ')), path());
}

QMap<QString, QByteArray> ReleaseTree::installed() const
{
    return snapshot(path(QStringLiteral("installed")));
}

QMap<QString, QByteArray> ReleaseTree::expected(const char *build) const
{
    QMap<QString, QByteArray> files = snapshot(path(QLatin1String(build)));
    files.insert(PlayersFile, "the player's");
    files.insert(QStringLiteral("saves/"), QByteArray());
    return files;
}
