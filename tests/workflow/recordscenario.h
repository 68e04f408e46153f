// SPDX-License-Identifier: MIT
#pragma once

#include "updatescenario.h"

#include <QMetaType>

#include <optional>

/**
 * A build whose release an installer records, with a sealed patch that leads to it. As long as this
 * lives, the program updatecall trusts the key of the seal.
 */
class RecordScenario
{
public:
    enum class Start {
        NoRecord,    ///< the new build
        OlderRecord, ///< the new build; its record has a smaller number
        TornRecord,  ///< the new build; its record is damaged
        Unfinished,  ///< an update without a key was killed while it put its files in place
    };

    /// Ends the test program on an error.
    RecordScenario();
    ~RecordScenario();
    RecordScenario(const RecordScenario &) = delete;
    RecordScenario &operator=(const RecordScenario &) = delete;

    /// False when the library is built without libcrypto; then there is nothing to test.
    bool isSealed() const { return m_isSealed; }
    UpdateScenario &scenario() { return m_scenario; }
    /// Lays the build.
    void lay(Start start);
    /// Of updatecall.
    QStringList arguments() const;

    /// What breaks the promise for any moment of recording: files of neither the old build nor the
    /// new one, a record that is neither the one before nor right, one that comes too early.
    QString brokenPromise() const;
    bool isRecorded() const { return record() == m_right; }
    /// What is wrong after the release is recorded once more, or after the sealed update to it has
    /// run once more, which records it as well.
    QString problemOfNext(bool byUpdate) const;

private:
    using Content = std::optional<QByteArray>;

    Content record() const;

    UpdateScenario m_scenario;
    Start m_start = Start::NoRecord;
    bool m_isSealed = false;
    Content m_before; ///< the record that a run starts from; nothing when there is none
    Content m_right;  ///< the record that it should write
};

Q_DECLARE_METATYPE(RecordScenario::Start)
