// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/PublishController>

#include <CLI/App.hpp>

/// How deltas are made from the old build itself.
struct DeltaOptions
{
    using Effort = Pellox::PublishController::DeltaEffort;

    Effort effort = Effort::Balanced;
    qint64 memory = 1 << 30;
    bool verifies = true;

    void applyTo(Pellox::PublishController &controller, const QString &oldBuild) const;
};

/// Adds --effort, --memory and --no-verify, which need @p oldBuild.
void addDeltaOptions(CLI::App &command, DeltaOptions &options, CLI::Option *oldBuild);
