// SPDX-License-Identifier: MIT
#include "keyfiles.h"

#include "folders.h"

#include <QFile>
#include <QFileInfo>

#include <utility>

namespace {

constexpr qint64 LargestKeyFile = 1 << 16; // 64 KiB: others are no keys

/// The beginning of @p path. Throws Refusal when it cannot be read.
QByteArray contentOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw Refusal(path, QStringLiteral("cannot be read: ") + file.errorString());
    return file.read(LargestKeyFile);
}

bool holdsPrivateKey(const QByteArray &content)
{
    return content.contains("PRIVATE KEY-----");
}

bool holdsPublicKey(const QByteArray &content)
{
    // RFC 8410: what stands before the 32 bytes of each such key.
    static const QByteArray Head = QByteArray::fromHex("302a300506032b6570032100");
    constexpr int KeySize = 32;
    static const QByteArray Begin("-----BEGIN PUBLIC KEY-----");
    const auto begin = content.indexOf(Begin) + Begin.size();
    const auto end = content.indexOf("-----END PUBLIC KEY-----");
    if (!content.contains(Begin) || end < begin)
        return false;
    const QByteArray key = QByteArray::fromBase64(content.mid(begin, end - begin));
    return key.startsWith(Head) && key.size() == Head.size() + KeySize;
}

} // namespace

CLI::Option *addKeysOption(CLI::App &command, const std::string &name,
    std::vector<std::string> &keys, const std::string &description)
{
    return command.add_option(name, keys, description + ". May be given several times")
        ->type_name("FILE")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

QStringList existingKeys(const std::vector<std::string> &keys)
{
    QStringList paths;
    for (const std::string &key : keys) {
        const QString path = absoluteFile(key);
        const QFileInfo info(path);
        if (!info.exists())
            throw Refusal(path, QStringLiteral("there is no such key file"));
        if (info.isDir())
            throw Refusal(path, QStringLiteral("is a folder, not a key file"));
        if (!info.isFile()) // whoever opens one may wait for ever
            throw Refusal(path, QStringLiteral("is a pipe, socket or device, not a key file"));
        paths.append(path);
    }
    return paths;
}

QStringList existingPublicKeys(const std::vector<std::string> &keys)
{
    QStringList paths = existingKeys(keys);
    for (const QString &path : std::as_const(paths)) {
        const QByteArray content = contentOf(path);
        if (holdsPrivateKey(content))
            throw Refusal(path,
                QStringLiteral("holds a private key, and the public one belongs here; keep the "
                               "private one to yourself"));
        if (!holdsPublicKey(content))
            throw Refusal(path, QStringLiteral("holds no public key for Ed25519 in PEM"));
    }
    return paths;
}

void requirePrivateKeys(const QStringList &keys)
{
    for (const QString &path : keys) {
        const QByteArray content = contentOf(path);
        if (holdsPrivateKey(content))
            continue;
        throw Refusal(path,
            holdsPublicKey(content)
                ? QStringLiteral("is a public key, and a patch is sealed with the private one")
                : QStringLiteral("holds no private key in PEM"));
    }
}
