// SPDX-License-Identifier: MIT
#include "keyfiles.h"

#include "folders.h"

#include <QFileInfo>

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
        paths.append(path);
    }
    return paths;
}
