// SPDX-License-Identifier: MIT
#include "fakesevenzip.h"

#include <QCoreApplication>

namespace {

QString noteName(int run, const char *what)
{
    return QString::number(run) + QLatin1Char('.') + QLatin1String(what);
}

} // namespace

QByteArray Step::says(const QByteArray &chunk)
{
    return "out " + chunk.toHex();
}

QByteArray Step::saysAside(const QByteArray &chunk)
{
    return "err " + chunk.toHex();
}

QByteArray Step::floods(const QByteArray &bytes, int times)
{
    return "flood " + bytes.toHex() + ' ' + QByteArray::number(times);
}

QByteArray Step::waitsFor(const QByteArray &gate)
{
    return "wait " + gate;
}

QByteArray Step::readsItsInput()
{
    return "input";
}

QByteArray Step::exits(int code)
{
    return "exit " + QByteArray::number(code);
}

QByteArray Step::diesOf(int signal)
{
    return "kill " + QByteArray::number(signal);
}

QByteArray Step::hangs()
{
    return "hang";
}

FakeSevenZip::FakeSevenZip()
{
    qputenv("PELLOX_FAKE_7ZR", m_tree.path().toLocal8Bit());
}

FakeSevenZip::~FakeSevenZip()
{
    qunsetenv("PELLOX_FAKE_7ZR");
}

void FakeSevenZip::play(const QByteArrayList &steps) const
{
    m_tree.write(QStringLiteral("script"), steps.join('\n'));
}

void FakeSevenZip::open(const QByteArray &gate) const
{
    m_tree.write(QString::fromLatin1(gate), QByteArray());
}

int FakeSevenZip::runs() const
{
    int run = 0;
    while (m_tree.exists(noteName(run + 1, "run")))
        ++run;
    return run;
}

bool FakeSevenZip::hasStarted(int run) const
{
    return m_tree.exists(noteName(run, "pid"));
}

QByteArrayList FakeSevenZip::arguments(int run) const
{
    QByteArrayList arguments = noted(run, "arguments").split('\0');
    arguments.removeLast(); // each ends with a NUL
    return arguments;
}

QString FakeSevenZip::folder(int run) const
{
    return QString::fromLocal8Bit(noted(run, "folder"));
}

qint64 FakeSevenZip::pid(int run) const
{
    return noted(run, "pid").toLongLong();
}

bool FakeSevenZip::hasReadItsInput(int run) const
{
    return m_tree.exists(noteName(run, "input"));
}

QByteArray FakeSevenZip::input(int run) const
{
    return noted(run, "input");
}

QByteArray FakeSevenZip::trouble() const
{
    const QString name = QStringLiteral("trouble");
    return m_tree.exists(name) ? m_tree.read(name) : QByteArray();
}

QByteArray FakeSevenZip::noted(int run, const char *what) const
{
    return m_tree.read(noteName(run, what));
}

ChildsEnd::ChildsEnd(const QObject *driver)
    : m_ended((qRegisterMetaType<QProcess::ExitStatus>(), driver->findChild<QProcess *>()),
        QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished))
{
}

bool ChildsEnd::wait()
{
    const bool hasEnded = !m_ended.isEmpty() || m_ended.wait(Patience);
    QCoreApplication::processEvents(); // what is told later still would show
    return hasEnded;
}
