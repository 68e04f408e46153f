// SPDX-License-Identifier: MIT
#pragma once

#include "progress.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QString>

#include <optional>

class QJsonObject;

/**
 * All that the program says. Results go to standard output, everything else to standard
 * error: errors, notes, and progress as a bar on a terminal or as a line now and then
 * elsewhere. With --json standard output holds one JSON object a line instead, and no
 * bar is drawn. Safe on any thread.
 */
class Console
{
public:
    struct Options
    {
        bool quiet = false; ///< only errors, and JSON where asked for
        bool json = false;
        bool verbose = false; ///< the library's log lines too
    };

    explicit Console(Options options);
    ~Console();
    Console(const Console &) = delete;
    Console &operator=(const Console &) = delete;

    /// Starts to show progress; @p title names the work. One at a time.
    void startProgress(const QString &title, Progress::Unit unit, qint64 total);
    void advanceTo(qint64 done);
    void stopProgress();

    /// @p file may be empty; where @p text does not name it, it is put in front.
    void error(const QString &file, const QString &text);
    /// The same with @p details, members that only JSON shows.
    void error(const QString &file, const QString &text, const QJsonObject &details);
    void note(const QString &text);
    void logLine(const QString &text); ///< shown with --verbose
    void result(const QString &text);
    /// One more line of --json; members beside "event".
    void event(const QString &name, QJsonObject members);
    /// The last thing said: "done", "failed" or "refused". Only JSON shows it.
    void outcome(const QString &outcome);

    /// Whether standard output holds JSON.
    bool tellsJson() const { return m_options.json; }
    /// Whether long lists are told to their end, as for machines and with --verbose.
    bool tellsAll() const { return m_options.json || m_options.verbose; }
    int errorCount() const;
    /// True when something that belongs on standard output could not be written there.
    bool outputLost() const;

private:
    void showProgress();
    void writeError(const QString &line);
    void writeJson(const QJsonObject &object);
    void writeOutput(const QByteArray &line);

    const Options m_options;
    const bool m_terminal; ///< standard error is one
    mutable QMutex m_mutex;
    QString m_title;
    std::optional<Progress> m_progress;
    QElapsedTimer m_sinceShown;
    qint64 m_shown = -1; ///< how far the last JSON object told
    bool m_barVisible = false;
    int m_errors = 0;
    bool m_outputLost = false;
};
