// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/IntegrityController>

#include <QString>

#include <CLI/App.hpp>

#include <string>

class Console;

/// Adds the arguments BUILD and SIGNATURES, which "check" and all that rests on it take.
void addBuildAndSignatures(
    CLI::App &command, std::string &build, const std::string &buildMeans, std::string &signatures);

/// Tells each file that is not intact.
void tellDifferences(Console &console, const Pellox::IntegrityReport &report);

/// Tells the files that the signatures do not name, and as JSON how many of each kind there are.
void tellExtraFiles(Console &console, const Pellox::IntegrityReport &report);

/// Says so where none of the files that the signatures name was in @p build.
void noteOtherBuild(Console &console, const Pellox::IntegrityReport &report, const QString &build);

/// "3 files intact, 1 changed, 2 missing; 1 extra file"; what there is none of is left out.
QString integritySummary(const Pellox::IntegrityReport &report);
