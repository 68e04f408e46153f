// SPDX-License-Identifier: MIT
#pragma once

#include <Pellox/pellox.h>

#include <QByteArray>
#include <QPair>
#include <QString>
#include <QVector>

#include <functional>
#include <set>
#include <thread>

/// A job whose callbacks are noted. Ends the test program when it cannot be made or freed.
class RecordedJob
{
public:
    struct Problem
    {
        int code;
        QByteArray codeName;
        QByteArray file;
        QByteArray reason;
        QByteArray message;
        QByteArray advice;
    };

    RecordedJob();
    ~RecordedJob();
    RecordedJob(const RecordedJob &) = delete;
    RecordedJob &operator=(const RecordedJob &) = delete;

    operator pellox_job *() const { return m_job; } // NOLINT(google-explicit-constructor)

    QVector<QPair<qint64, qint64>> progress;
    QVector<int> phases;
    QVector<Problem> problems;
    QVector<QPair<int, QByteArray>> files; ///< event and path
    std::set<std::thread::id> threads;     ///< that callbacks have come on

    /// The codes of the problems.
    QVector<int> codes() const;
    /// The paths that @p event was told of, in order of their bytes.
    QVector<QByteArray> paths(int event) const;

    // Called after a callback has been noted.
    std::function<void()> onProgress;
    std::function<void(int phase)> onPhase;

private:
    pellox_job *m_job;
};

/// A path as the interface wants it.
inline QByteArray utf8(const QString &path)
{
    return path.toUtf8();
}
