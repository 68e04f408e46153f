// SPDX-License-Identifier: MIT
#include "recordscenario.h"

#include "faultrun.h"
#include "literals.h"
#include "updaterestart.h"

#include <Pellox/patchseal.h>

#include <QFile>

namespace {

constexpr int FirstResult = 10; ///< status of updatecall
const QString Record = QStringLiteral("build/.pellox/release");

FaultRun call(const QStringList &arguments)
{
    Faults none;
    none.unsynced = true;
    return runWithFaults(QStringLiteral(UPDATECALL_PROGRAM), arguments, none);
}

} // namespace

RecordScenario::RecordScenario()
{
    constexpr int Release = 2;
    const QString key = m_scenario.tree().path("key"_s);
    QString error;
    m_isSealed = Pellox::PatchSeal::generateKey(key, key + ".pub"_s, &error);
    if (!m_isSealed) {
        if (!error.contains("libcrypto"_s))
            qFatal("record scenario: %s", qPrintable(error));
        return;
    }
    Pellox::PatchSeal sealer;
    if (!sealer.seal(m_scenario.patch(), m_scenario.oldSignatures(), Release, {key}))
        qFatal("record scenario: %s", qPrintable(sealer.error()));
    qputenv("UPDATECALL_KEY", QFile::encodeName(key + ".pub"_s));
    lay(Start::NoRecord);
    if (call(arguments()).status != 0)
        qFatal("record scenario: cannot record the release");
    m_right = record();
    if (!m_right || !m_right->contains("\"release\":2"))
        qFatal("record scenario: the record is another");
}

RecordScenario::~RecordScenario()
{
    qunsetenv("UPDATECALL_KEY");
}

void RecordScenario::lay(Start start)
{
    m_start = start;
    if (start == Start::Unfinished) {
        const QByteArray key = qgetenv("UPDATECALL_KEY");
        qunsetenv("UPDATECALL_KEY"); // a sealed update records the release itself
        layInterrupted(m_scenario, "update"_s);
        qputenv("UPDATECALL_KEY", key);
    } else {
        m_scenario.layNew();
    }
    if (start == Start::OlderRecord)
        m_scenario.tree().write(Record, QByteArray(*m_right).replace(":2", ":1"));
    if (start == Start::TornRecord)
        m_scenario.tree().write(Record, m_right->left(m_right->size() / 2));
    m_before = record();
}

QStringList RecordScenario::arguments() const
{
    return {"1"_s, "record"_s, m_scenario.build(), m_scenario.signatures(), m_scenario.patch()};
}

RecordScenario::Content RecordScenario::record() const
{
    if (!m_scenario.tree().exists(Record))
        return {};
    return m_scenario.tree().read(Record);
}

QString RecordScenario::brokenPromise() const
{
    const QString broken = m_scenario.brokenPromise();
    if (!broken.isEmpty())
        return broken;
    if (m_start != Start::Unfinished && !m_scenario.isNew())
        return "is no longer the new build"_s;
    if (!isRecorded() && record() != m_before)
        return "has another record: "_s + QString::fromUtf8(record().value_or("none"));
    if (isRecorded() && (m_scenario.hasJournal() || !m_scenario.isNew()))
        return "is recorded before it is there"_s;
    return QString();
}

QString RecordScenario::problemOfNext(bool byUpdate) const
{
    const FaultRun next
        = call(byUpdate ? QStringList{"1"_s, "update"_s, m_scenario.build(), m_scenario.patch()}
                        : arguments());
    using Result = UpdateOutcome::Result;
    const bool isGood = byUpdate ? next.status == FirstResult + static_cast<int>(Result::Updated)
            || next.status == FirstResult + static_cast<int>(Result::AlreadyUpToDate)
                                 : next.status == 0;
    if (!isGood || !next.output.isEmpty())
        return "ends with %1: "_s.arg(next.status) + QString::fromLocal8Bit(next.output);
    if (!isRecorded())
        return "the release is not recorded"_s;
    m_scenario.removeRecord();
    const QString difference = m_scenario.differenceToNew();
    return difference.isEmpty() ? m_scenario.touchedFile() : difference;
}
