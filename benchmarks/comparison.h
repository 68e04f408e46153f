// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

/// Ends the benchmark with a message that says what could not be done.
void require(bool done, const char *what);

/// Runs a program to its end, which must be a success.
void runProgram(const QString &program, const QStringList &arguments);

/// The same random bytes for the same @p seed. @p size is a multiple of four.
QByteArray randomBytes(int size, quint32 seed);

constexpr int MiB = 1 << 20;

/**
 * Registers the same work done by the library and by a program that people would use instead,
 * on files of each of the sizes in MiB. Names are "operation|who/size", which scripts/bench.sh
 * puts side by side.
 */
void compare(const std::string &operation, const std::vector<int> &sizes,
    const std::function<void(int mebibytes)> &ours, const std::string &otherName,
    const std::function<void(int mebibytes)> &other);

/// Adds another such program to an @p operation of compare(); the quickest one is shown.
void compareAlso(const std::string &operation, const std::vector<int> &sizes,
    const std::string &otherName, const std::function<void(int mebibytes)> &other);

int runComparisons(int argc, char **argv);
