// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>

class Console;

/**
 * Turns what the library tells of failing rules into one error each that names the file.
 * An error signal may say only what is wrong; the critical log line of the rule, which
 * follows it on the same thread, says with which file. Create it before the run and keep
 * it until the end.
 */
class FailedRules
{
public:
    /// Says why a rule has failed, or nothing; called on the rule's thread.
    using Explanation = std::function<QString(const QJsonObject &rule)>;

    /// @p root is the folder whose files the rules are about. What @p explain says goes before the
    /// library's words.
    FailedRules(Console &console, QString root, Explanation explain = {});
    ~FailedRules();
    FailedRules(const FailedRules &) = delete;
    FailedRules &operator=(const FailedRules &) = delete;

    /// Takes an error signal. Connect it directly, so that it runs on the emitting thread.
    void signalled(const QString &text);

private:
    void criticalLogged(const QString &line);

    Console &m_console;
    QString m_root;
    Explanation m_explain;
};

/**
 * Turns a byte array that a debug stream has put in quotes back into its bytes.
 * @p quoted begins and ends with its quotes.
 */
QByteArray unquoted(const QString &quoted);
