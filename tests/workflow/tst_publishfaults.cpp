// SPDX-License-Identifier: MIT
#include "faultrun.h"
#include "foldercompare.h"
#include "literals.h"
#include "logcapture.h"
#include "testtree.h"

#include <Pellox/deltacontroller.h>
#include <Pellox/patchhelp.h>
#include <Pellox/patchseal.h>
#include <Pellox/publishcontroller.h>
#include <Pellox/signaturescontroller.h>

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QtTest>

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>

using Pellox::DeltaController;
using Pellox::PublishController;
using Pellox::SignaturesController;

namespace {

constexpr int Block = 2048;
constexpr int MiB = 1 << 20;

const QString Mark = ".pellox-incomplete"_s;

QByteArray changedAt(QByteArray bytes, int position)
{
    bytes[position] = static_cast<char>(~bytes.at(position));
    return bytes;
}

/// Else a change within the clock's tick would show by nothing.
void makeOlder(const QString &folder)
{
    const timespec longAgo{1000000000, 0};
    const timespec times[]{longAgo, longAgo};
    QDirIterator files(folder, QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        if (::utimensat(AT_FDCWD, QFile::encodeName(files.next()).constData(), times, 0) != 0)
            qFatal("cannot set the time of %s", qPrintable(files.filePath()));
    }
}

/// Whether a noted call opens, reads or writes a file; one that has no name yet begins with "#".
bool isOnANamedFile(const QString &call)
{
    const bool isOnAFile
        = call.startsWith("open "_s) || call.startsWith("read "_s) || call.startsWith("write "_s);
    return isOnAFile && !QFileInfo(call).fileName().startsWith(QLatin1Char('#'));
}

} // namespace

/// Runs a program that makes one call of PublishController while its calls on files fail, one
/// after the other.
class tst_PublishFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { m_tree.reset(); }
    void init();
    void cleanup();

    void withoutAFaultAllIsWell_data();
    void withoutAFaultAllIsWell();
    void dataIsOnTheDiskBeforeItsManifest_data();
    void dataIsOnTheDiskBeforeItsManifest();
    void anyCallMayFail_data();
    void anyCallMayFail();
    void closingAnOutputMayFail_data();
    void closingAnOutputMayFail();
    void readsAndWritesMayBeShort_data();
    void readsAndWritesMayBeShort();
    void mayDieAtAnyCall_data();
    void mayDieAtAnyCall();
    void fileThatChangesIsNamed_data();
    void fileThatChangesIsNamed();
    void changeInDisguiseMakesNoWrongDelta();
    void anyCallOfASealingMayFail_data();
    void anyCallOfASealingMayFail();

private:
    QString path(const QString &relative = QString()) const { return m_tree->path(relative); }
    void removeOutput() const;
    void layOlderRelease() const;
    void removeMarks() const;
    QStringList arguments(const QString &name) const;
    FaultRun run(const QString &name, const Faults &faults) const;
    int countCalls(const QString &name, const Faults &faults) const;
    QString differenceToExpectation(const QString &name) const;
    QString problemOf(const QString &name, const FaultRun &run) const;
    QString problemOfTheNextRun(const QString &name) const;
    bool isWithoutManifest(const QString &folder) const;
    bool isOlderRelease(const QString &folder) const;
    bool isComplete(const QString &folder) const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
};

namespace {

void addCalls()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("sign") << "sign"_s;
    QTest::newRow("diff") << "diff"_s;
    QTest::newRow("publish") << "publish"_s;
}

} // namespace

/// The builds "old" and "new" with one file of each kind, and what the core makes of them.
void tst_PublishFaults::initTestCase()
{
    useMemoryForFiles();
    m_tree.emplace();
    const QByteArray large = randomBytes(2 * MiB + 100, 1);
    const QByteArray small = randomBytes(10 * Block, 2);
    m_tree->write("old/same"_s, small);
    m_tree->write("new/same"_s, small);
    m_tree->write("old/data/changed"_s, small);
    m_tree->write("new/data/changed"_s, changedAt(small, 5000));
    m_tree->write("old/large"_s, large);
    m_tree->write("new/large"_s, changedAt(large, 30000)); // read twice
    m_tree->write("new/added/large"_s, large.left(MiB + 1));
    m_tree->write("new/added/small"_s, small.left(100));
    m_tree->write("old/gone"_s, "gone");
    SignaturesController().createSignatures(path("old"_s), path("old signatures"_s));
    SignaturesController().createSignatures(path("new"_s), path("expected/signatures"_s));
    QVERIFY(DeltaController().createPatch(path("new"_s), path("old signatures"_s),
        path("expected/patch"_s), QStringList(), PROGRESS_CALLBACK()));
    makeOlder(path("old"_s));
    makeOlder(path("new"_s));
    PublishController publisher;
    publisher.setOldBuild(path("old"_s));
    QVERIFY(
        publisher.createPatch(path("new"_s), path("old signatures"_s), path("expected/small"_s)));
    m_tree->write("older/patch/patchRules.json"_s,
        "[{\"relative_path\": \"/data\"}, {\"relative_path\": \"/stale/x\"}]");
    m_tree->write("older/patch/data"_s, "a file now, a folder then");
    m_tree->write("older/patch/stale/x"_s, "stale");
    m_tree->write("older/signatures/signatures.json"_s, "[{\"relative_path\": \"/same/x\"}]");
    m_tree->write("older/signatures/same/x"_s, "a folder now, a file then");
}

void tst_PublishFaults::init()
{
    m_log.emplace();
    removeOutput();
}

void tst_PublishFaults::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_PublishFaults::removeOutput() const
{
    for (const QString &folder : {"patch"_s, "signatures"_s}) {
        if (m_tree->exists(folder))
            m_tree->remove(folder);
    }
}

/// What a release before has left where the next one goes.
void tst_PublishFaults::layOlderRelease() const
{
    removeOutput();
    const auto older = TestTree::snapshot(path("older"_s));
    for (auto entry = older.cbegin(); entry != older.cend(); ++entry) {
        if (!entry.key().endsWith(QLatin1Char('/')))
            m_tree->write(entry.key(), entry.value());
    }
}

QStringList tst_PublishFaults::arguments(const QString &name) const
{
    const QStringList common{"1"_s, name, path("new"_s)};
    if (name == "sign"_s)
        return common + QStringList(path("signatures"_s));
    const QStringList patch{path("old signatures"_s), path("patch"_s)};
    if (name == "small"_s)
        return common + patch + QStringList{path("old"_s), "1"_s, "0"_s};
    return name == "diff"_s ? common + patch : common + patch + QStringList(path("signatures"_s));
}

FaultRun tst_PublishFaults::run(const QString &name, const Faults &faults) const
{
    Faults quick = faults;
    quick.unsynced = true; // the disk of a test may lose what it has
    FaultRun run = runWithFaults(QStringLiteral(PUBLISHCALL_PROGRAM), arguments(name), quick);
    if (name == "small"_s && run.output.endsWith('\n')) { // how much memory it took
        run.output.chop(1);
        run.output.truncate(run.output.lastIndexOf('\n') + 1);
    }
    if (run.errors.startsWith("librsync: ") && run.errors.count('\n') == 1)
        run.errors.clear(); // it tells of a delta that it cannot apply itself
    return run;
}

/// Where the data of a release is on the disk before it has a manifest.
void tst_PublishFaults::dataIsOnTheDiskBeforeItsManifest_data()
{
    addCalls();
}

void tst_PublishFaults::dataIsOnTheDiskBeforeItsManifest()
{
    QFETCH(QString, name);
    layOlderRelease();
    Faults faults{path()};
    faults.unsynced = true;
    const QStringList calls = run(name, faults).calls;
    int manifests = 0;
    for (const auto &[folder, manifest] : {std::pair("patch"_s, "/patchRules.json"_s),
             std::pair("signatures"_s, "/signatures.json"_s)}) {
        const int link = calls.indexOf("link "_s + path(folder + manifest));
        if (link < 0)
            continue;
        ++manifests;
        const QString sync = "sync "_s + path(folder);
        int lastWrite = 0;
        for (int i = 0; i < link; ++i) {
            if (calls[i].startsWith("write "_s + path(folder + QLatin1Char('/'))))
                lastWrite = i;
        }
        const int synced = calls.lastIndexOf(sync, link);
        QVERIFY2(synced > lastWrite && lastWrite > 0, qPrintable(calls.join(QLatin1Char('\n'))));
        QVERIFY(calls.indexOf(sync, link) > link); // the entry of the manifest itself
    }
    QCOMPARE(manifests, name == "publish"_s ? 2 : 1);
}

/// How many calls count; there is one thread, so that they are the same each time.
int tst_PublishFaults::countCalls(const QString &name, const Faults &faults) const
{
    layOlderRelease();
    return run(name, {faults.path, faults.calls}).calls.size();
}

bool tst_PublishFaults::isComplete(const QString &folder) const
{
    auto entries = TestTree::snapshot(path(folder));
    entries.remove(Mark);
    return entries == TestTree::snapshot(path("expected/"_s + folder));
}

QString tst_PublishFaults::differenceToExpectation(const QString &name) const
{
    QString difference;
    if (name == "small"_s)
        return differenceBetween(path("expected/small"_s), path("patch"_s));
    if (name != "sign"_s)
        difference = differenceBetween(path("expected/patch"_s), path("patch"_s));
    if (difference.isEmpty() && name != "diff"_s)
        difference = differenceBetween(path("expected/signatures"_s), path("signatures"_s));
    return difference;
}

/// What a run did wrong: it may be successful and right, or fail with one error and no manifest but
/// that of the older release, where that is untouched.
QString tst_PublishFaults::problemOf(const QString &name, const FaultRun &run) const
{
    const QString output = QString::fromLocal8Bit(run.output + run.errors);
    if (run.crashed)
        return "crashed: "_s + output;
    if (run.status == 0)
        return output.isEmpty() ? differenceToExpectation(name) : "error and success: "_s + output;
    if (run.status != 1 || output.count(QLatin1Char('\n')) != 1)
        return "not one error: "_s + output;
    if (!output.startsWith(path() + QLatin1Char('/')))
        return "error that begins with no path: "_s + output;
    for (const QString &folder : {"patch"_s, "signatures"_s}) {
        if (!isWithoutManifest(folder) && !isOlderRelease(folder))
            return "fails with a manifest in "_s + folder + ": "_s + output;
    }
    return QString();
}

bool tst_PublishFaults::isWithoutManifest(const QString &folder) const
{
    return !m_tree->exists(folder + "/patchRules.json"_s)
        && !m_tree->exists(folder + "/signatures.json"_s);
}

/// All of it, beside which the mark of a run may have been set.
bool tst_PublishFaults::isOlderRelease(const QString &folder) const
{
    auto entries = TestTree::snapshot(path(folder));
    entries.remove(Mark);
    return entries == TestTree::snapshot(path("older/"_s + folder));
}

void tst_PublishFaults::removeMarks() const
{
    for (const QString &folder : {"patch/"_s, "signatures/"_s})
        QFile::remove(path(folder + Mark));
}

/// The next one must be as if nothing had been.
QString tst_PublishFaults::problemOfTheNextRun(const QString &name) const
{
    PublishController publisher;
    QString error;
    connect(&publisher, &PublishController::publishError, &publisher,
        [&error](const QString &message) { error += message; });
    const QString build = path("new"_s);
    const QString signatures = path("signatures"_s);
    const QString oldSignatures = path("old signatures"_s);
    const QString patch = path("patch"_s);
    if (name == "small"_s)
        publisher.setOldBuild(path("old"_s));
    const bool done = name == "sign"_s ? publisher.createSignatures(build, signatures)
        : name == "diff"_s || name == "small"_s
        ? publisher.createPatch(build, oldSignatures, patch)
        : publisher.publish(build, oldSignatures, patch, signatures);
    const QString problem = done ? differenceToExpectation(name) : error;
    return problem.isEmpty() ? QString() : "next run: "_s + problem;
}

void tst_PublishFaults::withoutAFaultAllIsWell_data()
{
    addCalls();
}

/// Also that the calls that are to fail are noticed at all.
void tst_PublishFaults::withoutAFaultAllIsWell()
{
    QFETCH(QString, name);
    layOlderRelease();
    const FaultRun run = this->run(name, {path()});
    QCOMPARE(problemOf(name, run), QString());
    QCOMPARE(run.status, 0);
    const auto has = [&](const QString &call, const QString &file) {
        return run.calls.contains(call + QLatin1Char(' ') + path(file));
    };
    QVERIFY(has("open"_s, "new/data/changed"_s));
    QVERIFY(has("read"_s, "new/data/changed"_s));
    QVERIFY(has("list"_s, "new/data"_s));
    if (name != "sign"_s) {
        QVERIFY(has("read"_s, "old signatures/signatures.json"_s));
        QVERIFY(has("read"_s, "old signatures/large"_s));
        QVERIFY(has("mkdir"_s, "patch/data"_s));
        QVERIFY(has("write"_s, "patch/data/changed"_s));
        QVERIFY(has("close"_s, "patch/added/small"_s));
        QVERIFY(has("link"_s, "patch/patchRules.json"_s));
    }
    if (name != "diff"_s) {
        QVERIFY(has("write"_s, "signatures/large"_s));
        QVERIFY(has("link"_s, "signatures/signatures.json"_s));
        QVERIFY(has("remove"_s, "signatures/same/x"_s));
    }
}

void tst_PublishFaults::anyCallMayFail_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<int>("error");
    QTest::addColumn<bool>("later");
    const auto addRow
        = [](const char *name, const char *calls, const char *errorName, int error, bool later) {
              QTest::addRow("%s, %s, %s%s", name, calls, errorName, later ? " from then on" : "")
                  << QString::fromLatin1(name) << QByteArray(calls) << error << later;
          };
    for (const char *name : {"sign", "diff", "publish", "small"}) {
        addRow(name, "open", "EIO", EIO, false);
        addRow(name, "read", "EIO", EIO, false);
        addRow(name, "write", "ENOSPC", ENOSPC, true);
        addRow(name, "list", "EIO", EIO, false);
        addRow(name, "entry", "EIO", EIO, false);
    }
    addRow("publish", "open", "EMFILE", EMFILE, true);
    addRow("publish", "read", "EINTR", EINTR, false);
    addRow("publish", "write", "EIO", EIO, false);
    addRow("publish", "write", "EINTR", EINTR, false);
    addRow("publish", "close", "EIO", EIO, false);
    addRow("publish", "sync", "EIO", EIO, false);
    addRow("publish", "link", "EIO", EIO, false);
    addRow("publish", "link", "ENOSPC", ENOSPC, true);
    addRow("publish", "remove", "EACCES", EACCES, false);
    addRow("publish", "remove", "EACCES", EACCES, true);
    addRow("publish", "mkdir", "ENOSPC", ENOSPC, true);
    addRow("publish", "truncate", "EIO", EIO, false);
    addRow("publish", "copy", "EIO", EIO, false);
}

void tst_PublishFaults::anyCallMayFail()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, calls);
    QFETCH(int, error);
    QFETCH(bool, later);
    const int count = countCalls(name, {path(), calls});
    const int step = stepThrough(count, 12);
    for (int at = 1; at <= count; at += step) {
        layOlderRelease();
        const FaultRun run = this->run(name, {path(), calls, at, QByteArray::number(error), later});
        const QString call = run.calls.value(at - 1);
        if (run.status == 0 && calls == "remove")
            removeMarks(); // are no part of the release
        QString problem = problemOf(name, run);
        if (problem.isEmpty() && run.status == 1 && isOnANamedFile(call)
            && !run.output.startsWith(call.section(QLatin1Char(' '), 1).toLocal8Bit()))
            problem = "names another file: "_s + QString::fromLocal8Bit(run.output);
        if (problem.isEmpty())
            problem = problemOfTheNextRun(name);
        QVERIFY2(problem.isEmpty(), qPrintable("%1 (%2): %3"_s.arg(call).arg(at).arg(problem)));
    }
}

void tst_PublishFaults::closingAnOutputMayFail_data()
{
    addCalls();
}

/// Some file systems say only then that a file was not written.
void tst_PublishFaults::closingAnOutputMayFail()
{
    QFETCH(QString, name);
    for (const QString &folder : {"patch"_s, "signatures"_s}) {
        const Faults faults{path(folder), "close"};
        const int count = countCalls(name, faults);
        for (int at = 1; at <= count; ++at) {
            layOlderRelease();
            const FaultRun run = this->run(
                name, {faults.path, faults.calls, at, QByteArray::number(ENOSPC), false});
            const QString call = run.calls.value(at - 1);
            if (call.endsWith(Mark) || QFileInfo(call.section(QLatin1Char(' '), 1)).isDir())
                continue; // hold nothing that could get lost
            if (QFileInfo(call).fileName().startsWith(QLatin1Char('#')))
                continue; // a manifest, which has been synced
            if (call.endsWith(".json"_s))
                continue; // that of the older release, which is only read
            QCOMPARE(problemOf(name, run), QString());
            QVERIFY2(run.status == 1, qPrintable(call));
        }
    }
}

void tst_PublishFaults::readsAndWritesMayBeShort_data()
{
    addCalls();
}

void tst_PublishFaults::readsAndWritesMayBeShort()
{
    QFETCH(QString, name);
    for (const char *calls : {"read", "write", "copy"}) {
        layOlderRelease();
        const FaultRun run = this->run(name, {path(), calls, 1, "half", true});
        QCOMPARE(problemOf(name, run), QString());
        QCOMPARE(run.status, 0);
    }
}

void tst_PublishFaults::mayDieAtAnyCall_data()
{
    QTest::addColumn<bool>("overAnOlderRelease");
    QTest::newRow("into nothing") << false;
    QTest::newRow("over an older release") << true;
}

/// A folder with a manifest is complete, and one without is taken by the next run.
void tst_PublishFaults::mayDieAtAnyCall()
{
    QFETCH(bool, overAnOlderRelease);
    const QString name = "publish"_s;
    const QByteArray changes("open,write,close,rename,link,remove,mkdir,truncate");
    int at = 0;
    bool died = true;
    while (died) {
        ++at;
        if (overAnOlderRelease)
            layOlderRelease();
        else
            removeOutput();
        const FaultRun run = this->run(name, {path(), changes, at, "kill", false});
        died = run.crashed;
        const QString call = "%1 (%2)"_s.arg(run.calls.value(at - 1)).arg(at);
        for (const QString &folder : {"patch"_s, "signatures"_s}) {
            QVERIFY2(isWithoutManifest(folder) || isOlderRelease(folder) || isComplete(folder),
                qPrintable(folder + ": "_s + call));
        }
        const QString problem = problemOfTheNextRun(name);
        QVERIFY2(problem.isEmpty(), qPrintable(call + ": "_s + problem));
    }
    QVERIFY(at > 20);
    QCOMPARE(differenceToExpectation(name), QString());
}

void tst_PublishFaults::fileThatChangesIsNamed_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("change");
    for (const char *name : {"diff", "publish"}) {
        for (const char *file : {"same", "data/changed", "large", "added/large", "added/small"}) {
            for (const char *change : {"append", "truncate", "rewrite", "replace", "remove"}) {
                QTest::addRow("%s, %s, %s", name, file, change)
                    << QString::fromLatin1(name) << "new/"_s + QString::fromLatin1(file)
                    << QByteArray(change);
            }
        }
    }
    for (const char *file : {"old/data/changed", "old/large"}) {
        for (const char *change : {"append", "truncate", "remove"})
            QTest::addRow("small, %s, %s", file, change)
                << "small"_s << QString::fromLatin1(file) << QByteArray(change);
    }
}

/// At each read, and where it is gone or longer also before it is opened.
void tst_PublishFaults::fileThatChangesIsNamed()
{
    QFETCH(QString, name);
    QFETCH(QString, file);
    QFETCH(QByteArray, change);
    const QByteArray content = m_tree->read(file);
    const bool isOld = file.startsWith("old/"_s);
    const bool atOpening = change == "remove" || (change == "append" && !isOld);
    const QByteArray calls = atOpening ? "open,read" : "read";
    const int count = countCalls(name, {path(file), calls});
    QVERIFY(count > 0);
    const int step = stepThrough(count, 4);
    for (int at = 1; at <= count; at += step) {
        removeOutput();
        const FaultRun run = this->run(name, {path(file), calls, at, change, false});
        if (m_tree->exists(file))
            m_tree->remove(file);
        m_tree->write(file, content);
        makeOlder(path(isOld ? "old"_s : "new"_s));
        const QString call = "%1 (%2)"_s.arg(run.calls.value(at - 1)).arg(at);
        QVERIFY2(run.status == 1, qPrintable(call));
        QVERIFY2(run.output.startsWith(path(file).toLocal8Bit() + ':'),
            qPrintable(call + ": "_s + QString::fromLocal8Bit(run.output)));
        QCOMPARE(problemOf(name, run), QString());
    }
}

/// A file is read twice. Where neither its size nor its time tells, the content does.
void tst_PublishFaults::changeInDisguiseMakesNoWrongDelta()
{
    const QByteArray content = m_tree->read("new/large"_s);
    const int count = countCalls("publish"_s, {path("new/large"_s), "read"});
    int noticed = 0;
    for (int at = 1; at <= count; ++at) {
        removeOutput();
        const FaultRun run
            = this->run("publish"_s, {path("new/large"_s), "read", at, "disguise", false});
        m_tree->write("new/large"_s, content);
        makeOlder(path("new"_s));
        if (run.status == 1) {
            ++noticed;
            QVERIFY(run.output.startsWith(path("new/large"_s).toLocal8Bit() + ':'));
            QCOMPARE(problemOf("publish"_s, run), QString());
            continue;
        }
        QCOMPARE(run.status, 0);
        QVERIFY(Pellox::applyPatch(
            path("old/large"_s), path("patch/large"_s), path("rebuilt"_s), 0, nullptr));
        const QByteArray sha512
            = SignaturesController::calculateCheckSum(path("rebuilt"_s), QCryptographicHash::Sha512)
                  .toHex();
        QVERIFY2(m_tree->read("patch/patchRules.json"_s).contains(sha512),
            qPrintable("at read %1 of %2"_s.arg(at).arg(count)));
        QVERIFY(m_tree->read("signatures/signatures.json"_s).contains(sha512));
        QVERIFY(Pellox::createSignature(path("rebuilt"_s), path("rebuilt signature"_s)));
        QCOMPARE(m_tree->read("signatures/large"_s), m_tree->read("rebuilt signature"_s));
    }
    QVERIFY(noticed > 0);
}

void tst_PublishFaults::anyCallOfASealingMayFail_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QByteArray>("calls");
    QTest::addColumn<QByteArray>("action");
    for (const char *command : {"seal", "slim"}) {
        const auto row = [command](const char *calls, const QByteArray &action) {
            QTest::addRow("%s, %s: %s", command, calls, action.constData())
                << QString::fromLatin1(command) << QByteArray(calls) << action;
        };
        row("open,read,list,entry", QByteArray::number(EIO));
        row("look", QByteArray::number(EIO));
        row("write", QByteArray::number(ENOSPC));
        row("sync,rename,link,mkdir", QByteArray::number(EIO));
    }
}

/// Then the patch is what it was, and no slim one is there. The next run makes it.
void tst_PublishFaults::anyCallOfASealingMayFail()
{
    QFETCH(QString, command);
    QFETCH(QByteArray, calls);
    QFETCH(QByteArray, action);
    const TestTree tree;
    const QString key = tree.path("keys/key"_s);
    tree.makeFolder("keys"_s);
    QString error;
    if (!Pellox::PatchSeal::generateKey(key, key + ".pub"_s, &error)) {
        QVERIFY2(error.contains("libcrypto"_s), qPrintable(error));
        QSKIP("built without libcrypto");
    }
    PublishController publisher;
    QVERIFY(publisher.createPatch(path("new"_s), path("old signatures"_s), tree.path("patch"_s)));
    Pellox::PatchSeal sealer;
    const bool isSlim = command == "slim"_s;
    if (isSlim)
        QVERIFY(sealer.seal(tree.path("patch"_s), path("old signatures"_s), 1, {key}));
    const auto before = TestTree::snapshot(tree.path("patch"_s));
    const QStringList arguments = QStringList{"1"_s, command, tree.path("patch"_s)}
        + (isSlim ? QStringList{tree.path("slim"_s)} : QStringList{path("old signatures"_s), key});
    const auto run = [&](const Faults &faults) {
        tree.remove("patch"_s);
        for (auto entry = before.cbegin(); entry != before.cend(); ++entry) {
            if (!entry.key().endsWith(QLatin1Char('/')))
                tree.write("patch/"_s + entry.key(), entry.value());
        }
        if (tree.exists("slim"_s))
            tree.remove("slim"_s);
        return runWithFaults(QStringLiteral(PUBLISHCALL_PROGRAM), arguments, faults);
    };
    const QString result = isSlim ? "slim/patchRules.json"_s : "patch/patchSeal.json"_s;
    const int count = run({tree.path(), calls}).calls.size();
    QVERIFY(count > 0);
    int failed = 0;
    for (int at = 1; at <= count; ++at) {
        Faults faults{tree.path(), calls, at, action};
        faults.unsynced = true;
        const FaultRun faulty = run(faults);
        const QByteArray where = faulty.calls.value(at - 1).toLocal8Bit() + ": " + faulty.output;
        QVERIFY2(!faulty.crashed, where);
        if (faulty.status == 0) {
            QVERIFY2(faulty.output.isEmpty() && tree.exists(result), where);
            continue;
        }
        ++failed;
        QCOMPARE(faulty.status, 1);
        QVERIFY2(faulty.output.startsWith(tree.path().toLocal8Bit() + '/'), where);
        QVERIFY2(faulty.output.count('\n') == 1, where);
        const QString patch = tree.path("patch"_s);
        if (!faulty.output.contains(": cannot be synced: ")) { // else it is all there
            QVERIFY2(!tree.exists(result), where);
            QVERIFY2(TestTree::snapshot(patch) == before, where);
        }
        QVERIFY2(isSlim ? sealer.writeSlim(patch, tree.path("slim"_s))
                        : sealer.seal(patch, path("old signatures"_s), 1, {key}),
            where + qPrintable(sealer.error()));
        QVERIFY2(tree.exists(result), where);
    }
    QVERIFY(failed > 0);
}

QTEST_GUILESS_MAIN(tst_PublishFaults)

#include "tst_publishfaults.moc"
