// SPDX-License-Identifier: MIT
#include "fakesevenzip.h"
#include "leftovers.h"
#include "logcapture.h"
#include "texts.h"

#include <Pellox/ArchiveController>
#include <Pellox/Compressor>
#include <Pellox/Decompressor>

#include <QDir>
#include <QFileInfo>
#include <QMetaMethod>
#include <QPointer>
#include <QTest>
#include <QTimer>

#include <functional>
#include <memory>
#include <type_traits>

using namespace Step;
using Pellox::ArchiveController;

static_assert(std::is_base_of_v<QObject, ArchiveController>);
static_assert(!std::is_convertible_v<QObject *, ArchiveController>, "the constructor is explicit");

class tst_ArchiveController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void metaObjectHoldsFiveSignalsAndOneSlot();
    void parentOwnsTheController();
    void initDoesNothing();

    void createRunsSevenZipInTheArchiveFolder();
    void createMakesFoldersAbsolute();
    void volumeSizeIs_data();
    void volumeSizeIs();
    void archiveFolderIsMadeOneLevelDeep();
    void createOutcomeIs_data();
    void createOutcomeIs();
    void createReturnsAtTheFirstErrorAndTheChildRunsOn();
    void afterCreateHasReturnedItsCompressorReachesNobody();
    void compressorsLiveAsLongAsTheController();

    void extractRunsSevenZipInTheDestination();
    void extractMakesTheDestinationAbsolute();
    void destinationIsMade_data();
    void destinationIsMade();
    void destinationThatCannotBeMadeIsAnError();
    void stageSelectsTheWay_data();
    void stageSelectsTheWay();
    void extractOutcomeIs_data();
    void extractOutcomeIs();
    void extractReturnsAtTheFirstErrorAndEndsTheChild();
    void extractReturnsWithASummaryAndEndsTheChild();

    void callbackMayBeEmpty();
    void callsAreIndependent();
    void callerLivesOnDuringACall_data();
    void callerLivesOnDuringACall();
    void failureStaysAFailure_data();
    void failureStaysAFailure();
    void silentEndKeepsWaiting_data();
    void silentEndKeepsWaiting();
    void silentEndKeepsWaitingWhereItIsSetBack();
    void silentEndIsAnErrorWhereItIsSetSo_data();
    void silentEndIsAnErrorWhereItIsSetSo();
    void silenceCountsOnlyWhereNothingElseIsTold_data();
    void silenceCountsOnlyWhereNothingElseIsTold();

private:
    bool create();
    bool extract(const QString &stage = QString());
    bool returnsByItself(const std::function<bool()> &call);
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

    Leftovers m_leftovers;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<FakeSevenZip> m_fake;
    std::unique_ptr<ArchiveController> m_controller;
    QByteArrayList m_events;
    QString m_folder;
};

void tst_ArchiveController::init()
{
    m_log = std::make_unique<LogCapture>();
    m_folder = QDir::currentPath();
    m_events.clear();
    m_tree = std::make_unique<TestTree>();
    m_tree->makeFolder(QStringLiteral("out"));
    m_tree->makeFolder(QStringLiteral("source"));
    m_fake = std::make_unique<FakeSevenZip>();
    m_controller = std::make_unique<ArchiveController>();

    const auto list = [](const QStringList &errors) {
        return " [" + errors.join(QLatin1String("][")).toUtf8() + ']';
    };
    const ArchiveController *controller = m_controller.get();
    connect(controller, &ArchiveController::extractSuccess,
        [this] { m_events.append("extractSuccess"); });
    connect(controller, &ArchiveController::extractError,
        [=](const QStringList &errors) { m_events.append("extractError" + list(errors)); });
    connect(controller, &ArchiveController::createArchiveSuccess,
        [this] { m_events.append("createArchiveSuccess"); });
    connect(controller, &ArchiveController::createArchiveError,
        [=](const QStringList &errors) { m_events.append("createArchiveError" + list(errors)); });
    connect(controller, &ArchiveController::extractProgress,
        [this] { m_events.append("extractProgress"); });
}

void tst_ArchiveController::cleanup()
{
    m_controller.reset();
    const QByteArray trouble = m_fake->trouble();
    m_fake.reset();
    QDir::setCurrent(m_folder);
    m_tree.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(trouble, QByteArray());
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

bool tst_ArchiveController::create()
{
    return m_controller->createArchive(path("out"), QStringLiteral("build.7z"), path("source"),
        [this](double percents) { m_events.append("callback " + QByteArray::number(percents)); });
}

bool tst_ArchiveController::extract(const QString &stage)
{
    return m_controller->extractArchive(path("a.7z"), path("out"), stage,
        [this](double percents) { m_events.append("callback " + QByteArray::number(percents)); });
}

/// Runs @p call, and whether it comes back. One that still waits when its child has been gone for
/// some turns of the event loop is broken off.
bool tst_ArchiveController::returnsByItself(const std::function<bool()> &call)
{
    bool brokenOff = false;
    int turnsAlone = 0;
    QTimer watch;
    connect(&watch, &QTimer::timeout, [&] {
        if (!m_fake->hasStarted() || processExists(m_fake->pid()) || ++turnsAlone < 20)
            return;
        brokenOff = true;
        QCoreApplication::exit();
    });
    QTimer::singleShot(0, [&] {
        watch.start(1);
        call();
        watch.stop();
        QCoreApplication::exit();
    });
    QCoreApplication::exec();
    return !brokenOff;
}

void tst_ArchiveController::metaObjectHoldsFiveSignalsAndOneSlot()
{
    const QMetaObject &meta = ArchiveController::staticMetaObject;
    QCOMPARE(meta.className(), "Pellox::ArchiveController");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);

    QByteArrayList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const bool isSignal = method.methodType() == QMetaMethod::Signal;
        QVERIFY(isSignal || method.methodType() == QMetaMethod::Slot);
        methods.append((isSignal ? "signal " : "slot ") + method.methodSignature());
    }
    QCOMPARE(methods,
        QByteArrayList({"signal extractSuccess()", "signal extractError(QStringList)",
            "signal createArchiveSuccess()", "signal createArchiveError(QStringList)",
            "signal extractProgress(double,QString)", "slot init()"}));
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_ArchiveController::parentOwnsTheController()
{
    QCOMPARE(m_controller->parent(), nullptr);
    auto parent = std::make_unique<QObject>();
    const QPointer<ArchiveController> child(new ArchiveController(parent.get()));
    QCOMPARE(child->parent(), parent.get());
    parent.reset();
    QVERIFY(!child);
}

void tst_ArchiveController::initDoesNothing()
{
    QVERIFY(QMetaObject::invokeMethod(m_controller.get(), "init", Qt::DirectConnection));
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList());
    QVERIFY(m_controller->children().isEmpty());
    QCOMPARE(m_log->takeAll("default"), QStringList());
    QVERIFY(!hasChildren());
}

void tst_ArchiveController::createRunsSevenZipInTheArchiveFolder()
{
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(create());
    QCOMPARE(m_fake->runs(), 1);
    QCOMPARE(m_fake->folder(), path("out"));
    QCOMPARE(m_fake->arguments(),
        QByteArrayList({"a", "-y", "-ssw", "-bse1", "-bso1", "-bsp1", "-sccUTF-8", "-v524288000b",
            "build.7z", m_tree->path().toUtf8() + "/source/*"}));
}

void tst_ArchiveController::createMakesFoldersAbsolute()
{
    QVERIFY(QDir::setCurrent(path("source")));
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(m_controller->createArchive(
        QStringLiteral("../out/."), QStringLiteral("sub/b.7z"), QStringLiteral("data")));
    QCOMPARE(m_fake->folder(), path("out"));
    QCOMPARE(m_fake->arguments().mid(8),
        QByteArrayList({"sub/b.7z", m_tree->path().toUtf8() + "/source/data/*"}));
}

void tst_ArchiveController::volumeSizeIs_data()
{
    QTest::addColumn<qint64>("chunkSize");
    QTest::addColumn<QByteArray>("volumeSwitch");
    QTest::newRow("0") << qint64(0) << QByteArray("-v1073741824b");
    QTest::newRow("-1") << qint64(-1) << QByteArray("-v1073741824b");
    QTest::newRow("1") << qint64(1) << QByteArray("-v1b");
    QTest::newRow("100000") << qint64(100000) << QByteArray("-v100000b");
    QTest::newRow("1 GiB") << qint64(1073741824) << QByteArray("-v1073741824b");
    QTest::newRow("1 GiB and 1 byte") << qint64(1073741825) << QByteArray("-v1g");
    QTest::newRow("3 GiB") << qint64(3221225472) << QByteArray("-v3g");
}

void tst_ArchiveController::volumeSizeIs()
{
    QFETCH(const qint64, chunkSize);
    QFETCH(const QByteArray, volumeSwitch);
    m_controller->setChunkSize(chunkSize);
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(create());
    QCOMPARE(m_fake->arguments().at(7), volumeSwitch);
}

// That it is not made two levels deep is shown where the start of 7-Zip then fails.
void tst_ArchiveController::archiveFolderIsMadeOneLevelDeep()
{
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(m_controller->createArchive(path("new"), QStringLiteral("a.7z"), path("source")));
    QVERIFY(QFileInfo(path("new")).isDir());
    QCOMPARE(m_fake->folder(), path("new"));
}

void tst_ArchiveController::createOutcomeIs_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<bool>("success");
    QTest::addColumn<QByteArrayList>("events");
    QTest::addColumn<QStringList>("log");
    const auto row = [](const char *name, const QByteArrayList &steps, bool success,
                         const QByteArrayList &events, const QStringList &log) {
        QTest::newRow(name) << steps << success << events << log;
    };
    const QString started = QStringLiteral("debug: 7za successfuly started.");

    row("success", {says("  7% + a\n"), says("100%\nEverything is Ok\n")}, true,
        {"callback 7", "callback 100", "callback 0", "createArchiveSuccess", "callback 100"},
        {started, QStringLiteral("debug: success")});
    row("success, whatever the exit code", {says("Everything is Ok\n"), exits(2)}, true,
        {"callback 0", "createArchiveSuccess", "callback 100"},
        {started, QStringLiteral("debug: success")});
    row("an error", {says("  7% + a\n"), says("ERROR: x\n"), hangs()}, false,
        {"callback 7", "createArchiveError [ERROR: x\n]", "callback 100"},
        {started, QStringLiteral("debug: compression finished with errors (\"ERROR: x\\n\")")});
    row("an error and success at once", {says("ERROR: x\nEverything is Ok"), hangs()}, false,
        {"createArchiveError [ERROR: x\nEverything is Ok]", "callback 100"},
        {started,
            QStringLiteral(
                "debug: compression finished with errors (\"ERROR: x\\nEverything is Ok\")")});
    row("an error in mixed case is none", {says("Error: x\n"), says("Everything is Ok\n")}, true,
        {"callback 0", "callback 0", "createArchiveSuccess", "callback 100"},
        {started, QStringLiteral("debug: success")});
}

void tst_ArchiveController::createOutcomeIs()
{
    QFETCH(const QByteArrayList, steps);
    QFETCH(const bool, success);
    m_fake->play(steps);
    QCOMPARE(create(), success);
    QTEST(m_events, "events");
    QTEST(m_log->takeAll("default"), "log");
}

void tst_ArchiveController::createReturnsAtTheFirstErrorAndTheChildRunsOn()
{
    m_fake->play({says("ERROR: x"), hangs()});
    QVERIFY(!create());
    QVERIFY(processExists(m_fake->pid()));
    m_controller.reset();
    QVERIFY(!processExists(m_fake->pid()));
    QCOMPARE(m_events, QByteArrayList({"createArchiveError [ERROR: x]", "callback 100"}));
}

void tst_ArchiveController::afterCreateHasReturnedItsCompressorReachesNobody()
{
    m_fake->play({says("ERROR: x"), waitsFor("go"), says("50%\n"), says("ERROR: y"),
        says("60%\nEverything is Ok\n")});
    QVERIFY(!create());
    auto *compressor = m_controller->findChild<Compressor *>();
    QVERIFY(compressor);
    QByteArrayList compressorEvents;
    record(compressor, &compressorEvents);
    m_events.clear();
    m_log->clear();

    ChildsEnd childsEnd(compressor);
    m_fake->open("go");
    QVERIFY(childsEnd.wait());
    QCOMPARE(compressorEvents,
        QByteArrayList({"progress 50", "error [ERROR: x][ERROR: y]", "progress 60", "progress 0",
            "finished", "child ended"}));
    QCOMPARE(m_events, QByteArrayList());
    QCOMPARE(m_log->takeAll("default"), texts({"debug: success"}));
}

void tst_ArchiveController::compressorsLiveAsLongAsTheController()
{
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(create());
    QVERIFY(create());
    QCOMPARE(m_controller->findChildren<Compressor *>().size(), 2);
    const QPointer<Compressor> first(m_controller->findChildren<Compressor *>().first());
    m_controller.reset();
    QVERIFY(!first);
}

void tst_ArchiveController::extractRunsSevenZipInTheDestination()
{
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(extract());
    QCOMPARE(m_fake->runs(), 1);
    QCOMPARE(m_fake->folder(), path("out"));
    QCOMPARE(m_fake->arguments(),
        QByteArrayList({"x", "-y", "-bse1", "-bso1", "-bsp1", "-sccUTF-8",
            "-o" + m_tree->path().toUtf8() + "/out", m_tree->path().toUtf8() + "/a.7z"}));
    QVERIFY(m_controller->children().isEmpty());
}

void tst_ArchiveController::extractMakesTheDestinationAbsolute()
{
    QVERIFY(QDir::setCurrent(path("source")));
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(m_controller->extractArchive(
        QStringLiteral("a.7z.001"), QStringLiteral("../out/./sub"), QString()));
    QCOMPARE(m_fake->folder(), path("out/sub"));
    QCOMPARE(m_fake->arguments().mid(6),
        QByteArrayList({"-o" + m_tree->path().toUtf8() + "/out/sub", "a.7z.001"}));
}

void tst_ArchiveController::destinationIsMade_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<bool>("byTheDecompressor");
    QTest::newRow("one level") << QStringLiteral("new") << false;
    QTest::newRow("with its parents") << QStringLiteral("new/a/b") << true;
    QTest::newRow("there already") << QStringLiteral("out") << false;
}

void tst_ArchiveController::destinationIsMade()
{
    QFETCH(const QString, folder);
    QFETCH(const bool, byTheDecompressor);
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(m_controller->extractArchive(path("a.7z"), m_tree->path(folder), QString()));
    QCOMPARE(m_fake->folder(), m_tree->path(folder));

    QStringList lines;
    if (byTheDecompressor)
        lines.append(
            QLatin1String("debug: Create dst dir:  \"") + m_tree->path(folder) + QLatin1Char('"'));
    lines.append(QStringLiteral("debug: Decompress by:  \"process\"  in queue:  ()"));
    QCOMPARE(m_log->takeAll("default"), lines);
}

void tst_ArchiveController::destinationThatCannotBeMadeIsAnError()
{
    m_tree->write(QStringLiteral("file"), "no folder");
    QVERIFY(!m_controller->extractArchive(path("a.7z"), path("file/x"), QString()));
    QCOMPARE(m_events, QByteArrayList({"extractError [Create dst dir fail!]"}));
    QVERIFY(!hasChildren());
    QCOMPARE(m_log->takeAll("default"),
        QStringList({QLatin1String("debug: Create dst dir:  \"") + path("file/x")
                + QLatin1Char('"'),
            QStringLiteral("debug: extraction finished with errors (\"Create dst dir fail!\")")}));
}

void tst_ArchiveController::stageSelectsTheWay_data()
{
    QTest::addColumn<QString>("stage");
    QTest::addColumn<bool>("success");
    QTest::addColumn<QByteArrayList>("events");
    QTest::newRow("empty") << QString() << true << QByteArrayList{"callback 0", "extractSuccess"};
    QTest::newRow("process") << QStringLiteral("process") << true
                             << QByteArrayList{"callback 0", "extractSuccess"};
    QTest::newRow("wrapper") << QStringLiteral("wrapper") << false
                             << QByteArrayList{"extractError [Empty stages wrapper]"};
    QTest::newRow("Process") << QStringLiteral("Process") << false
                             << QByteArrayList{"extractError [Empty stages Process]"};
}

void tst_ArchiveController::stageSelectsTheWay()
{
    QFETCH(const QString, stage);
    QFETCH(const bool, success);
    m_fake->play({says("Everything is Ok\n")});
    QCOMPARE(extract(stage), success);
    QTEST(m_events, "events");
    QCOMPARE(m_fake->runs(), success ? 1 : 0);
}

void tst_ArchiveController::extractOutcomeIs_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<bool>("success");
    QTest::addColumn<QByteArrayList>("events");
    QTest::addColumn<QStringList>("log");
    const auto row = [](const char *name, const QByteArrayList &steps, bool success,
                         const QByteArrayList &events, const QStringList &log = {}) {
        QTest::newRow(name) << steps << success << events
                            << QStringList{QStringLiteral(
                                   "debug: Decompress by:  \"process\"  in queue:  ()")}
                + log;
    };

    row("success", {says("  7% - a\n"), says("100%\nEverything is Ok\n")}, true,
        {"callback 7", "callback 100", "callback 0", "extractSuccess"});
    row("success, whatever the exit code", {says("Everything is Ok\n"), exits(2)}, true,
        {"callback 0", "extractSuccess"});
    row("an error", {says("  7% - a\n"), says("Error: x\n"), hangs()}, false,
        {"callback 7", "extractError [ERROR: X]"},
        {QStringLiteral("debug: extraction finished with errors (\"ERROR: X\")")});
    row("an error and success at once", {says("ERROR: x\nEverything is Ok"), hangs()}, false,
        {"extractError [ERROR: X\nEVERYTHING IS OK]"},
        {QStringLiteral(
            "debug: extraction finished with errors (\"ERROR: X\\nEVERYTHING IS OK\")")});
}

void tst_ArchiveController::extractOutcomeIs()
{
    QFETCH(const QByteArrayList, steps);
    QFETCH(const bool, success);
    m_fake->play(steps);
    QCOMPARE(extract(), success);
    QTEST(m_events, "events");
    QTEST(m_log->takeAll("default"), "log");
}

void tst_ArchiveController::extractReturnsAtTheFirstErrorAndEndsTheChild()
{
    m_fake->play({says("ERROR: x"), hangs()});
    QVERIFY(!extract());
    QVERIFY(!processExists(m_fake->pid()));
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList({"extractError [ERROR: X]"}));
}

void tst_ArchiveController::extractReturnsWithASummaryAndEndsTheChild()
{
    m_fake->play({says("Everything is Ok\n"), says("Files: 2\n"), hangs()});
    QVERIFY(extract());
    QVERIFY(!processExists(m_fake->pid()));
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList({"callback 0", "extractSuccess", "callback 0"}));
}

void tst_ArchiveController::callbackMayBeEmpty()
{
    m_fake->play({says("50%\n"), says("Everything is Ok\n")});
    QVERIFY(m_controller->createArchive(
        path("out"), QStringLiteral("a.7z"), path("source"), PROGRESS_CALLBACK()));
    QVERIFY(m_controller->extractArchive(path("a.7z"), path("out"), QString(), nullptr));
    m_fake->play({says("50%\n"), says("ERROR: x"), hangs()});
    QVERIFY(!m_controller->createArchive(
        path("out"), QStringLiteral("a.7z"), path("source"), PROGRESS_CALLBACK()));
    QVERIFY(!m_controller->extractArchive(path("a.7z"), path("out"), QString(), nullptr));
    QCOMPARE(m_events,
        QByteArrayList({"createArchiveSuccess", "extractSuccess", "createArchiveError [ERROR: x]",
            "extractError [ERROR: X]"}));
}

void tst_ArchiveController::callsAreIndependent()
{
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(create());
    QVERIFY(extract());
    m_fake->play({says("ERROR: x"), hangs()});
    QVERIFY(!create());
    QVERIFY(!extract());
    m_events.clear();
    m_fake->play({says("ERROR: y"), hangs()});
    QVERIFY(!create());
    QVERIFY(!extract());
    QCOMPARE(m_events,
        QByteArrayList(
            {"createArchiveError [ERROR: y]", "callback 100", "extractError [ERROR: Y]"}));
    m_fake->play({says("Everything is Ok\n")});
    QVERIFY(create());
    QVERIFY(extract());
}

void tst_ArchiveController::callerLivesOnDuringACall_data()
{
    QTest::addColumn<bool>("creates");
    QTest::newRow("create") << true;
    QTest::newRow("extract") << false;
}

void tst_ArchiveController::callerLivesOnDuringACall()
{
    QFETCH(const bool, creates);
    m_fake->play({waitsFor("go"), says("Everything is Ok\n")});
    int ticks = 0;
    QTimer timer;
    connect(&timer, &QTimer::timeout, [&] {
        if (++ticks == 5)
            m_fake->open("go");
    });
    timer.start(0);
    QVERIFY(creates ? create() : extract());
    QVERIFY(ticks >= 5);
}

void tst_ArchiveController::failureStaysAFailure_data()
{
    QTest::addColumn<bool>("creates");
    QTest::addColumn<QByteArrayList>("steps");
    const QByteArrayList inOneChunk{says("ERROR: x\nEverything is Ok")};
    const QByteArrayList inTwoChunks{says("ERROR: x"), says("Everything is Ok")};
    QTest::newRow("create") << true << inOneChunk;
    QTest::newRow("extract") << false << inOneChunk;
    QTest::newRow("create, success told later") << true << inTwoChunks;
    QTest::newRow("extract, success told later") << false << inTwoChunks;
}

// A host shows the error, say, and its dialog handles what 7-Zip has to tell still.
void tst_ArchiveController::failureStaysAFailure()
{
    QFETCH(const bool, creates);
    QFETCH(const QByteArrayList, steps);
    m_fake->play(steps);
    bool childHasEnded = false;
    const auto handleEvents = [&] {
        const auto childIsGone = [this] { return !processExists(m_fake->pid()); };
        childHasEnded = QTest::qWaitFor(childIsGone, Patience);
    };
    connect(m_controller.get(), &ArchiveController::createArchiveError, this, handleEvents);
    connect(m_controller.get(), &ArchiveController::extractError, this, handleEvents);
    const bool success = creates ? create() : extract();
    QVERIFY(childHasEnded);
    QVERIFY(!m_events.contains("createArchiveSuccess"));
    QVERIFY(!m_events.contains("extractSuccess"));
    QVERIFY(!success);
}

void tst_ArchiveController::silentEndKeepsWaiting_data()
{
    QTest::addColumn<bool>("creates");
    QTest::addColumn<QByteArrayList>("steps");
    for (const bool creates : {true, false}) {
        const QByteArray call = creates ? "create: " : "extract: ";
        QTest::newRow(call + "nothing said") << creates << QByteArrayList{exits(1)};
        QTest::newRow(call + "exit code 0") << creates << QByteArrayList{says("50%\n")};
        QTest::newRow(call + "killed") << creates << QByteArrayList{says("50%\n"), diesOf(SIGKILL)};
    }
}

void tst_ArchiveController::silentEndKeepsWaiting()
{
    QFETCH(const bool, creates);
    QFETCH(const QByteArrayList, steps);
    m_fake->play(steps);
    QVERIFY(!returnsByItself([&] { return creates ? create() : extract(); }));
    m_events.removeAll("callback 50");
    m_events.removeAll("callback 100"); // of the call that was broken off
    QCOMPARE(m_events, QByteArrayList());
}

void tst_ArchiveController::silentEndKeepsWaitingWhereItIsSetBack()
{
    m_controller->setSilentEndIsError(true);
    m_controller->setSilentEndIsError(false);
    m_fake->play({exits(1)});
    QVERIFY(!returnsByItself([&] { return extract(); }));
}

void tst_ArchiveController::silentEndIsAnErrorWhereItIsSetSo_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<QByteArray>("createError");
    QTest::addColumn<QByteArray>("extractError");
    const auto row = [](const char *name, const QByteArrayList &steps,
                         const QByteArray &createError, const QByteArray &extractError) {
        QTest::newRow(name) << steps << createError << extractError;
    };
    row("nothing said", {exits(1)},
        "7-Zip ended with exit code 1 and told neither success nor failure. Its last output: ",
        "7-Zip ended with exit code 1 and told neither success nor failure. Its last output: ");
    row("exit code 0", {says(" 50% \n\n"), exits(0)},
        "7-Zip ended with exit code 0 and told neither success nor failure. Its last output:  "
        "50% \n\n",
        "7-Zip ended with exit code 0 and told neither success nor failure. Its last output: 50%");
    row("the last of several chunks", {says("first\n"), says("Scan WARNINGS: 1\n"), exits(255)},
        "7-Zip ended with exit code 255 and told neither success nor failure. Its last output: "
        "Scan WARNINGS: 1\n",
        "7-Zip ended with exit code 255 and told neither success nor failure. Its last output: "
        "Scan WARNINGS: 1");
    row("marks in the output", {says("%1 %2%"), exits(2)},
        "7-Zip ended with exit code 2 and told neither success nor failure. Its last output: %1 "
        "%2%",
        "7-Zip ended with exit code 2 and told neither success nor failure. Its last output: %1 "
        "%2%");
    row("killed", {says("50%"), diesOf(SIGKILL)},
        "7-Zip ended with exit code 9 and told neither success nor failure. Its last output: 50%",
        "7-Zip ended with exit code 9 and told neither success nor failure. Its last output: 50%");
}

void tst_ArchiveController::silentEndIsAnErrorWhereItIsSetSo()
{
    QFETCH(const QByteArrayList, steps);
    QFETCH(const QByteArray, createError);
    QFETCH(const QByteArray, extractError);
    m_controller->setSilentEndIsError(true);
    m_fake->play(steps);

    QVERIFY(!create());
    QCOMPARE(m_events.last(), QByteArray("callback 100"));
    QCOMPARE(m_events.at(m_events.size() - 2), "createArchiveError [" + createError + ']');
    QCOMPARE(m_log->takeAll("default").size(), 2);

    m_events.clear();
    QVERIFY(!extract());
    QCOMPARE(m_events.last(), "extractError [" + extractError + ']');
    QVERIFY(!m_events.contains("extractSuccess"));
    QCOMPARE(m_log->takeAll("default").size(), 2);
}

void tst_ArchiveController::silenceCountsOnlyWhereNothingElseIsTold_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<bool>("success");
    QTest::addColumn<QByteArrayList>("createEvents");
    QTest::addColumn<QByteArrayList>("extractEvents");
    QTest::newRow("success") << QByteArrayList{says("Everything is Ok\n"), exits(1)} << true
                             << QByteArrayList{"callback 0", "createArchiveSuccess", "callback 100"}
                             << QByteArrayList{"callback 0", "extractSuccess"};
    QTest::newRow("an error") << QByteArrayList{says("ERROR: x"), hangs()} << false
                              << QByteArrayList{"createArchiveError [ERROR: x]", "callback 100"}
                              << QByteArrayList{"extractError [ERROR: X]"};
}

void tst_ArchiveController::silenceCountsOnlyWhereNothingElseIsTold()
{
    QFETCH(const QByteArrayList, steps);
    QFETCH(const bool, success);
    m_controller->setSilentEndIsError(true);
    m_fake->play(steps);
    QCOMPARE(create(), success);
    QTEST(m_events, "createEvents");
    m_events.clear();
    QCOMPARE(extract(), success);
    QTEST(m_events, "extractEvents");
}

QTEST_GUILESS_MAIN(tst_ArchiveController)
#include "tst_archivecontroller.moc"
