// SPDX-License-Identifier: MIT
#pragma once

#include "patience.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStringList>
#include <QThread>

#include <cerrno>
#include <csignal>

#include <sys/types.h>
#include <sys/wait.h>

/// Whether this process has a child, a running one or one that nobody has waited for.
inline bool hasChildren()
{
    siginfo_t child;
    const int options = WEXITED | WSTOPPED | WCONTINUED | WNOHANG | WNOWAIT | __WALL;
    return waitid(P_ALL, 0, &child, options) == 0 || errno != ECHILD;
}

/// Whether the process @p pid exists; a zombie does.
inline bool processExists(qint64 pid)
{
    return ::kill(static_cast<pid_t>(pid), 0) == 0;
}

/// What a test has left running in its process, where nothing may be left.
class Leftovers
{
public:
    /// Call it in initTestCase(): the threads of then are QtTest's and may stay.
    void begin()
    {
        m_firstThreads = threads();
        if (m_firstThreads.isEmpty())
            qFatal("leftovers: cannot list threads");
    }

    /// "child" and "thread NAME" of each that is left, with commas between them.
    QByteArray found() const
    {
        // Whoever waits for one of Qt's threads goes on shortly before it has left the process; on
        // a busy machine that may last.
        const QDeadlineTimer patience(Patience);
        while (!newThreads().isEmpty() && !patience.hasExpired())
            QThread::msleep(1);

        QByteArrayList left;
        if (hasChildren())
            left.append("child");
        for (const QString &id : newThreads()) {
            QFile name(threadsFolder().filePath(id + QLatin1String("/comm")));
            if (name.open(QIODevice::ReadOnly))
                left.append("thread " + name.readAll().trimmed());
        }
        return left.join(", ");
    }

private:
    static QDir threadsFolder() { return QDir(QStringLiteral("/proc/self/task")); }
    static QStringList threads()
    {
        return threadsFolder().entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    }

    QStringList newThreads() const
    {
        QStringList ids = threads();
        for (const QString &first : m_firstThreads)
            ids.removeOne(first);
        return ids;
    }

    QStringList m_firstThreads;
};
