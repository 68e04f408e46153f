// SPDX-License-Identifier: MIT
#pragma once

#include "pellox_export.h"

#include <QVariant>

#include <functional>

/**
 * Carries the function that executes one rule into QtConcurrent's parallel maps, which
 * call the same object from several threads at once. Reports each rule that fails as a
 * critical line of the category "BinariesController" and decides nothing about the run.
 */
class PELLOX_EXPORT RulesExecutorFunctor
{
public:
    using result_type = bool; ///< what QtConcurrent learns the type of the results from

    /// @p executeRule takes a rule record and says whether it succeeded. It may be empty.
    explicit RulesExecutorFunctor(std::function<bool(const QVariant &)> executeRule);

    /**
     * Executes @p rule. False, after the log line "Failed apply rule" with the rule as JSON,
     * when it fails; the same with "Can't found rule execute function" when there is none.
     * Passes on what the function throws.
     */
    bool operator()(const QVariant &rule);

private:
    std::function<bool(const QVariant &)> m_executeRule;
};
