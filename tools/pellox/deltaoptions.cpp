// SPDX-License-Identifier: MIT
#include "deltaoptions.h"

#include "sizeoption.h"

#include <map>

void DeltaOptions::applyTo(Pellox::PublishController &controller, const QString &oldBuild) const
{
    controller.setOldBuild(oldBuild);
    controller.setDeltaEffort(effort);
    controller.setDeltaMemory(memory);
    controller.setDeltasVerified(verifies);
}

void addDeltaOptions(CLI::App &command, DeltaOptions &options, CLI::Option *oldBuild)
{
    using Effort = DeltaOptions::Effort;
    const std::map<std::string, Effort> efforts{{"fastest", Effort::Fastest},
        {"balanced", Effort::Balanced}, {"smallest", Effort::Smallest}};
    command
        .add_option("--effort", options.effort,
            "How thoroughly the old build is searched; balanced where not given")
        ->transform(CLI::CheckedTransformer(efforts).description(""))
        ->type_name("fastest|balanced|smallest")
        ->needs(oldBuild);
    addSizeOption(command, "--memory", options.memory,
        "What that search may use: bytes, or with K, M, G, T, P or E; with less, deltas are "
        "larger. 1G where not given")
        ->needs(oldBuild);
    command
        .add_flag_callback(
            "--no-verify", [&options] { options.verifies = false; },
            "Do not apply each delta to see that it makes the new file")
        ->needs(oldBuild);
}
