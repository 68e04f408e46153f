// SPDX-License-Identifier: MIT
#pragma once

#include "patience.h"
#include "testtree.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QObject>
#include <QProcess>
#include <QSignalSpy>
#include <QString>
#include <QStringList>

/// What the stand-in 7-Zip can do.
namespace Step {

QByteArray says(const QByteArray &chunk);              ///< on standard output, read as one chunk
QByteArray saysAside(const QByteArray &chunk);         ///< on standard error
QByteArray floods(const QByteArray &bytes, int times); ///< not waiting until it is read
QByteArray waitsFor(const QByteArray &gate);           ///< until the test opens it
QByteArray readsItsInput();                            ///< until its end
QByteArray exits(int code);
QByteArray diesOf(int signal);
QByteArray hangs(); ///< until it is killed

} // namespace Step

/**
 * Steers the stand-in "7zr" that lies beside the test program, and tells how it was called. Its
 * runs are counted from 1. One at a time.
 */
class FakeSevenZip
{
public:
    FakeSevenZip();
    ~FakeSevenZip();
    FakeSevenZip(const FakeSevenZip &) = delete;
    FakeSevenZip &operator=(const FakeSevenZip &) = delete;

    /// What each run that starts from now on does; at the end of @p steps it exits with 0.
    void play(const QByteArrayList &steps) const;
    void open(const QByteArray &gate) const;

    int runs() const;
    bool hasStarted(int run = 1) const; ///< then the rest is known
    QByteArrayList arguments(int run = 1) const;
    QString folder(int run = 1) const;
    qint64 pid(int run = 1) const;

    bool hasReadItsInput(int run = 1) const;
    QByteArray input(int run = 1) const;

    /// Why a run could not do as it was told; empty when all could.
    QByteArray trouble() const;

private:
    QByteArray noted(int run, const char *what) const;

    TestTree m_tree;
};

/// Waits for the next end of a driver's child, after which the child tells nothing.
class ChildsEnd
{
public:
    explicit ChildsEnd(const QObject *driver);
    bool wait();

private:
    QSignalSpy m_ended;
};

/// Adds to @p events what @p driver and its child tell, in order: "started", "progress 7",
/// "error [first][second]", "finished" and "child ended".
template <typename Driver> void record(Driver *driver, QByteArrayList *events)
{
    QObject::connect(driver, &Driver::started, [=] { events->append("started"); });
    QObject::connect(driver, &Driver::finished, [=] { events->append("finished"); });
    QObject::connect(driver, &Driver::error, [=](const QStringList &errors) {
        events->append("error [" + errors.join(QLatin1String("][")).toUtf8() + ']');
    });
    QObject::connect(driver, &Driver::progress,
        [=](auto percents) { events->append("progress " + QByteArray::number(percents)); });
    QObject::connect(driver->template findChild<QProcess *>(),
        QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished),
        [=] { events->append("child ended"); });
}
