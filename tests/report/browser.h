// SPDX-License-Identifier: MIT
#pragma once

#include "qtversion.h"

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QSize>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// A process that talks to this one through its file descriptors 3 and 4.
class PipedProcess : public PreparedProcess
{
public:
    PipedProcess();
    ~PipedProcess() override;

    int toChild() const { return m_commands[1]; }
    int fromChild() const { return m_answers[0]; }
    /// Call it once the process runs: its ends are its own then.
    void closeChildEnds();

private:
    void setUpChild() const;

    int m_commands[2];
    int m_answers[2];
};

/**
 * A Chromium without a window, driven by its own protocol for developers. Ends the test program
 * when it does not start or does not answer.
 */
class Browser
{
public:
    Browser();
    ~Browser();
    Browser(const Browser &) = delete;
    Browser &operator=(const Browser &) = delete;

    /// Opens a page in a tab that knows nothing of earlier ones, and waits until it is loaded.
    void open(const QString &file, const QString &fragment = QString());
    /// Of the page, and of those that are opened later.
    void resize(QSize size);
    void setDark(bool dark);

    /// The value of a JavaScript expression; of a promise, once it is kept.
    QJsonValue evaluate(const QString &expression);
    void moveTo(double x, double y);
    void click(double x, double y);
    void tap(double x, double y);
    /// A key by its name, "Enter", "ArrowLeft", or a letter.
    void press(const QString &key);

    /// What the page has asked for since open(), itself included.
    QStringList requests() const { return m_requests; }
    /// Dialogs, errors and warnings since then.
    QStringList complaints() const { return m_complaints; }

private:
    QJsonObject call(const QString &method, const QJsonObject &parameters = QJsonObject());
    void receive();
    void note(const QJsonObject &event);
    void mouse(const char *type, double x, double y);

    QTemporaryDir m_profile;
    PipedProcess m_process;
    QByteArray m_received;
    QString m_session;
    QString m_tab;
    int m_lastId = 0;
    QJsonObject m_answer;
    bool m_loaded = false;
    QSize m_size{1280, 900};
    bool m_dark = false;
    QStringList m_requests;
    QStringList m_complaints;
};
