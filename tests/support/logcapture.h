// SPDX-License-Identifier: MIT
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QtGlobal>

/**
 * Takes all log messages of the process, from any thread, while it lives. A test takes
 * the lines that it expects; what troubleLeft() still tells at its end was not announced.
 * One at a time.
 */
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /// Removes and returns the texts logged to @p category at @p type, in order.
    QStringList take(QtMsgType type, const char *category);
    /// Removes and returns all that was logged to @p category as "type: text", in order.
    QStringList takeAll(const char *category);
    /// Warnings and worse that nobody took, of all categories, as "category type: text".
    QStringList troubleLeft();
    void clear();

private:
    struct Line
    {
        QtMsgType type;
        QString category;
        QString text;
    };

    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);
    static QList<Line> s_lines;

    QtMessageHandler m_previous;
};
