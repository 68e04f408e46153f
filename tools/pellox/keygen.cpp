// SPDX-License-Identifier: MIT
#include "commands.h"
#include "folders.h"
#include "interrupt.h"

#include <Pellox/PatchSeal>

#include <QFileInfo>
#include <QJsonObject>

#include <memory>

namespace {

struct Arguments
{
    std::string privateKey;
    std::string publicKey;
};

void requireFree(const QString &path)
{
    if (isThere(path))
        throw Refusal(path, QStringLiteral("exists already, and keys are never written over"));
}

bool makeKey(Console &console, const Arguments &arguments)
{
    const QString privateKey = absoluteFile(arguments.privateKey);
    const QString publicKey = absoluteFile(arguments.publicKey);
    if (privateKey == publicKey)
        throw Refusal(privateKey, QStringLiteral("cannot be both the private and the public key"));
    requireFree(privateKey);
    requireFree(publicKey);
    for (const QString &key : {privateKey, publicKey})
        requireWritable(QFileInfo(key).path());

    // It takes a moment, and half a key helps nobody: the first signal waits for the end.
    const Interrupt::Watch watch([] {});
    QString error;
    if (!Pellox::PatchSeal::generateKey(privateKey, publicKey, &error)) {
        const bool isPublic = error.startsWith(publicKey + QLatin1String(": "));
        console.error(isPublic ? publicKey : privateKey, error);
        return false;
    }
    console.event(QStringLiteral("keys"),
        {{QStringLiteral("private"), privateKey}, {QStringLiteral("public"), publicKey}});
    console.result(QStringLiteral("Private key, to seal with and to keep secret: ") + privateKey);
    console.result(QStringLiteral("Public key, for the players: ") + publicKey);
    return true;
}

} // namespace

void addKeygenCommand(CLI::App &app, Invocation &invocation)
{
    CLI::App *command = addCommand(
        app, invocation, "keygen", "Make a key to seal patches with, once a publisher");
    const auto arguments = std::make_shared<Arguments>();
    command
        ->add_option("PRIVATE", arguments->privateKey,
            "The file to write for \"pellox seal\"; only its owner may read it")
        ->type_name("FILE")
        ->required();
    command
        ->add_option("PUBLIC", arguments->publicKey,
            "The file to write for \"pellox update --trusted-key\", to be given to players")
        ->type_name("FILE")
        ->required();
    command->footer(
        "Files that exist are never replaced. Keep a copy of PRIVATE in a safe place: who has it\n"
        "can make patches that players trust, and without it nobody can.\n\n"
        + exitStatusHelp() + "\nExample:\n  pellox keygen publisher.key publisher.pub");
    command->callback([arguments, &invocation] {
        invocation.run = [arguments](Console &console) { return makeKey(console, *arguments); };
    });
}
