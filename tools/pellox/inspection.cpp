// SPDX-License-Identifier: MIT
#include "inspection.h"

#include "console.h"
#include "interrupt.h"

std::optional<QVector<Pellox::InspectedFile>> inspectPatch(Console &console, const QString &patch,
    const QString &oldSignatures, qint64 rules,
    const std::function<void(const QString &message, const QString &path)> &onError)
{
    Pellox::PatchInspector inspector;
    inspector.setOldSignatures(oldSignatures);
    QObject::connect(&inspector, &Pellox::PatchInspector::inspectError, onError);
    bool isUnderWay = false;
    const bool whole = inspector.inspect(patch, [&](double percent) {
        Interrupt::throwIfStopped();
        // Not before, as a manifest that will not do is refused without a look at the files.
        if (!isUnderWay)
            console.startProgress(QStringLiteral("inspect"), Progress::Unit::Files, rules);
        isUnderWay = true;
        console.advanceTo(static_cast<qint64>(percent / 100 * static_cast<double>(rules)));
    });
    if (whole)
        console.advanceTo(rules);
    console.stopProgress();
    return whole ? std::optional(inspector.files()) : std::nullopt;
}
