// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/PatchInspector>

#include <functional>
#include <optional>

class Console;

/**
 * Looks into the patch in folder @p patch, which has @p rules rules, and with @p oldSignatures for
 * what the old build has of its new files. Shows its progress as "inspect". Nothing after
 * @p onError. Throws Interrupt::Stopped where signals are watched for.
 */
std::optional<QVector<Pellox::InspectedFile>> inspectPatch(Console &console, const QString &patch,
    const QString &oldSignatures, qint64 rules,
    const std::function<void(const QString &message, const QString &path)> &onError);
