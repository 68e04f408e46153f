// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/App.hpp>

#include <QStringList>

#include <string>
#include <vector>

/// Adds an option that names key files, one each time it is given.
CLI::Option *addKeysOption(CLI::App &command, const std::string &name,
    std::vector<std::string> &keys, const std::string &description);

/// The absolute paths of @p keys. Throws Refusal unless each is there, a file or a link to one.
QStringList existingKeys(const std::vector<std::string> &keys);

/// The same for public keys: each must hold one for Ed25519, in PEM.
QStringList existingPublicKeys(const std::vector<std::string> &keys);

/// Throws Refusal when one of the files @p keys holds no private key, which the library would
/// find out only once it has looked at who may read it.
void requirePrivateKeys(const QStringList &keys);
