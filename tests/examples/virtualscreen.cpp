// SPDX-License-Identifier: MIT
#include "virtualscreen.h"

#include <QByteArray>
#include <QtGlobal>

#include <csignal>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void require(bool done, const char *what)
{
    if (!done)
        qFatal("virtual screen: cannot %s", what);
}

/// In the child: becomes the server, which tells its number once it is ready.
[[noreturn]] void serve(int channel)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const QByteArray number = QByteArray::number(channel);
    ::execl(XVFB_PROGRAM, "Xvfb", "-displayfd", number.constData(), "-screen", "0", "1600x1200x24",
        "-nolisten", "tcp", static_cast<char *>(nullptr));
    ::_exit(127);
}

QByteArray lineFrom(int channel)
{
    QByteArray line;
    for (char letter = 0; ::read(channel, &letter, 1) == 1 && letter != '\n';)
        line.append(letter);
    return line;
}

} // namespace

VirtualScreen::VirtualScreen()
    : m_server(-1)
{
    int ends[2] = {};
    require(::pipe(ends) == 0, "make a pipe");
    m_server = ::fork();
    require(m_server >= 0, "start a process");
    if (m_server == 0)
        serve(ends[1]);
    ::close(ends[1]);
    const QByteArray number = lineFrom(ends[0]);
    ::close(ends[0]);
    require(!number.isEmpty(), "run " XVFB_PROGRAM);

    qputenv("DISPLAY", ':' + number);
    qputenv("QT_QPA_PLATFORM", "xcb");
    // Qt's own looks, whatever desktop the tests are started from.
    for (const char *name : {"QT_QPA_PLATFORMTHEME", "QT_STYLE_OVERRIDE", "QT_SCALE_FACTOR",
             "XDG_CURRENT_DESKTOP", "XAUTHORITY"})
        qunsetenv(name);
}

VirtualScreen::~VirtualScreen()
{
    ::kill(m_server, SIGTERM);
    ::waitpid(m_server, nullptr, 0);
}
