// SPDX-License-Identifier: MIT
// A whole update, from the installed headers alone. Exits with 0 when it succeeded.
#include <Pellox/BinariesController>
#include <Pellox/DeltaController>
#include <Pellox/SignaturesController>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>

namespace {

bool write(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QTemporaryDir scratch;
    const auto at = [&](const char *name) { return scratch.filePath(QLatin1String(name)); };
    for (const char *folder : {"old", "new", "installed"})
        QDir().mkpath(at(folder));
    if (!write(at("old/game"), "release 1") || !write(at("installed/game"), "release 1")
        || !write(at("new/game"), "release 2"))
        return 1;

    Pellox::SignaturesController signatures;
    signatures.createSignatures(at("old"), at("signatures"));
    Pellox::DeltaController delta;
    if (!delta.createPatch(at("new"), at("signatures"), at("patch"), QStringList()))
        return 2;

    Pellox::BinariesController client;
    QObject::connect(&client, &Pellox::BinariesController::finished, &client, [&](bool success) {
        if (!success || !client.verifyPatchedFiles(at("installed"), at("patch")))
            QCoreApplication::exit(3);
    });
    QObject::connect(&client, &Pellox::BinariesController::verifyFinished, &client,
        [](bool success) { QCoreApplication::exit(success ? 0 : 4); });
    if (!client.applyPatch(at("installed"), at("patch")))
        return 5;
    const int status = QCoreApplication::exec();

    QFile game(at("installed/game"));
    const bool updated = game.open(QIODevice::ReadOnly) && game.readAll() == "release 2";
    std::printf("status %d, %s\n", status, updated ? "updated" : "not updated");
    return updated ? status : 6;
}
