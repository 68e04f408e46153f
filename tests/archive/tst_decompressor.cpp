// SPDX-License-Identifier: MIT
#include "fakesevenzip.h"
#include "leftovers.h"
#include "logcapture.h"
#include "texts.h"

#include <Pellox/Decompressor>

#include <QDir>
#include <QFileInfo>
#include <QMetaMethod>
#include <QPointer>
#include <QTest>
#include <QTextCodec>

#include <memory>
#include <type_traits>

using namespace Step;

static_assert(std::is_base_of_v<QObject, Decompressor>);
static_assert(!std::is_convertible_v<QObject *, Decompressor>, "the constructor is explicit");

class tst_Decompressor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void metaObjectHoldsFourSignalsInOrder();
    void parentOwnsTheDecompressor();

    void stageIsRun_data();
    void stageIsRun();
    void stageIsUnknown_data();
    void stageIsUnknown();
    void errorsOfUnknownStagesGather();
    void unknownStageRunsWhatIsStillQueued();
    void errorChunkTriesTheNextStageAtOnce();

    void argumentsAreThese_data();
    void argumentsAreThese();
    void childRunsInTheBaseFolder();
    void withoutABaseFolderTheChildRunsInOurs();
    void destinationIsMadeButNotUnpackedTo_data();
    void destinationIsMadeButNotUnpackedTo();
    void existingDestinationIsLeftAsItIs();
    void destinationThatCannotBeMadeIsAnError_data();
    void destinationThatCannotBeMadeIsAnError();
    void startReturnsBeforeAnythingIsSaid();
    void childGetsTheEndOfItsInput();

    void everyNonEmptyLineIsProgress_data();
    void everyNonEmptyLineIsProgress();
    void chunkIsDecodedAndStripped_data();
    void chunkIsDecodedAndStripped();

    void errorIsToldWhileTheChildRunsAndAtItsEnd();
    void outcomeIs_data();
    void outcomeIs();
    void childsDeathIs_data();
    void childsDeathIs();
    void finishedComesBeforeTheChunkIsRead();
    void errorOutputIsReadAndDiscarded();
    void floodIsRead();
    void logTellsTheStage();

    void destructorEndsARunningChild();
    void destructorEndsAChildThatHasJustBeenStarted();
    void destructorAfterTheEndIsQuiet();

private:
    bool run(const QByteArrayList &steps);
    void start(const QString &destination = QString());
    void leaveAStageInTheQueue();
    QString base() const { return m_tree->path(QStringLiteral("games/x")); }

    Leftovers m_leftovers;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<FakeSevenZip> m_fake;
    std::unique_ptr<Decompressor> m_decompressor;
    QByteArrayList m_events;
};

void tst_Decompressor::init()
{
    m_log = std::make_unique<LogCapture>();
    m_events.clear();
    m_tree = std::make_unique<TestTree>();
    m_tree->makeFolder(QStringLiteral("games/x"));
    m_fake = std::make_unique<FakeSevenZip>();
    m_decompressor = std::make_unique<Decompressor>();
    record(m_decompressor.get(), &m_events);
}

void tst_Decompressor::cleanup()
{
    m_decompressor.reset();
    const QByteArray trouble = m_fake->trouble();
    m_fake.reset();
    m_tree.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(trouble, QByteArray());
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

void tst_Decompressor::start(const QString &destination)
{
    m_decompressor->start(QStringLiteral("/tmp/a.7z"), destination, base(), QString());
}

/// Unpacks with a 7-Zip that takes @p steps, until it has ended and all is told.
bool tst_Decompressor::run(const QByteArrayList &steps)
{
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play(steps);
    start();
    return childsEnd.wait();
}

void tst_Decompressor::metaObjectHoldsFourSignalsInOrder()
{
    const QMetaObject &meta = Decompressor::staticMetaObject;
    QCOMPARE(meta.className(), "Decompressor");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);

    QByteArrayList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        QCOMPARE(meta.method(i).methodType(), QMetaMethod::Signal);
        methods.append(meta.method(i).methodSignature());
    }
    QCOMPARE(methods,
        QByteArrayList({"started()", "finished()", "error(QStringList)", "progress(double)"}));
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_Decompressor::parentOwnsTheDecompressor()
{
    QCOMPARE(m_decompressor->parent(), nullptr);
    auto parent = std::make_unique<QObject>();
    const QPointer<Decompressor> child(new Decompressor(parent.get()));
    QCOMPARE(child->parent(), parent.get());
    parent.reset();
    QVERIFY(!child);
}

void tst_Decompressor::stageIsRun_data()
{
    QTest::addColumn<QString>("stage");
    QTest::newRow("process") << QStringLiteral("process");
    QTest::newRow("empty") << QStringLiteral("");
    QTest::newRow("null") << QString();
}

void tst_Decompressor::stageIsRun()
{
    QFETCH(const QString, stage);
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({says("Everything is Ok\n")});
    m_decompressor->start(QStringLiteral("/tmp/a.7z"), QString(), base(), stage);
    QVERIFY(childsEnd.wait());
    QCOMPARE(
        m_events, QByteArrayList({"started", "started", "progress 0", "finished", "child ended"}));
    QCOMPARE(m_fake->runs(), 1);
}

void tst_Decompressor::stageIsUnknown_data()
{
    QTest::addColumn<QString>("stage");
    QTest::addColumn<QByteArray>("error");
    const auto row = [](const char *stage, const QByteArray &error) {
        QTest::newRow(stage) << QString::fromUtf8(stage) << error;
    };
    row("wrapper", "error [Empty stages wrapper]");
    row("Process", "error [Empty stages Process]");
    row("process ", "error [Empty stages process ]");
    row(" ", "error [Empty stages  ]");
    row("7zr", "error [Empty stages 7zr]");
    row("%1 gr\u00FC\u00DFe", "error [Empty stages %1 gr\u00FC\u00DFe]");
}

void tst_Decompressor::stageIsUnknown()
{
    QFETCH(const QString, stage);
    QFETCH(const QByteArray, error);
    const QString unmade = m_tree->path(QStringLiteral("unmade"));
    m_decompressor->start(QStringLiteral("/tmp/a.7z"), QString(), unmade, stage);
    QCOMPARE(m_events, QByteArrayList({"started", error}));
    QVERIFY(!hasChildren());
    QVERIFY(!m_tree->exists(QStringLiteral("unmade")));
    QCOMPARE(m_log->takeAll("default"), QStringList());
}

void tst_Decompressor::errorsOfUnknownStagesGather()
{
    m_decompressor->start(QString(), QString(), base(), QStringLiteral("a"));
    m_decompressor->start(QString(), QString(), base(), QStringLiteral("b"));
    QCOMPARE(m_events,
        QByteArrayList({"started", "error [Empty stages a]", "started",
            "error [Empty stages a][Empty stages b]"}));
}

/// A start whose destination cannot be made has queued its stage.
void tst_Decompressor::leaveAStageInTheQueue()
{
    m_tree->write(QStringLiteral("games/x/file"), "no folder");
    start(QStringLiteral("file"));
    QCOMPARE(m_events, QByteArrayList({"started", "error [Create dst dir fail!]"}));
    m_events.clear();
    m_log->clear();
}

void tst_Decompressor::unknownStageRunsWhatIsStillQueued()
{
    leaveAStageInTheQueue();
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({});
    m_decompressor->start(
        QStringLiteral("/tmp/a.7z"), QString(), base(), QStringLiteral("wrapper"));
    QVERIFY(childsEnd.wait());
    // No error at its end: the destination's failure is not among the errors.
    QCOMPARE(m_events, QByteArrayList({"started", "started", "child ended"}));
}

void tst_Decompressor::errorChunkTriesTheNextStageAtOnce()
{
    leaveAStageInTheQueue();
    m_fake->play({says("5%\n"), says("ERROR: x"), waitsFor("go"), exits(2)});
    ChildsEnd childsEnd(m_decompressor.get());
    QSignalSpy started(m_decompressor.get(), &Decompressor::started);
    start();
    QCOMPARE(m_events, QByteArrayList({"started", "started"}));
    QVERIFY(started.wait(Patience));
    QCOMPARE(m_events, QByteArrayList({"started", "started", "progress 5", "started"}));
    QCOMPARE(m_log->take(QtDebugMsg, "default"),
        texts({"Decompress by:  \"process\"  in queue:  (\"process\")",
            "Decompress by:  \"process\"  in queue:  ()"}));
    QCOMPARE(m_log->take(QtWarningMsg, "default").last(),
        QStringLiteral("QProcess::start: Process is already running"));
    QVERIFY(processExists(m_fake->pid()));

    m_fake->open("go");
    QVERIFY(childsEnd.wait());
    QVERIFY(m_events.contains("error [ERROR: X]"));
    QCOMPARE(m_fake->runs(), 1);
}

void tst_Decompressor::argumentsAreThese_data()
{
    QTest::addColumn<QString>("archive");
    QTest::addColumn<QString>("folder"); // in the temporary folder
    QTest::addColumn<QString>("destination");
    const auto row
        = [](const char *name, const char *archive, const char *folder, const char *destination) {
              QTest::newRow(name) << QString::fromUtf8(archive) << QString::fromUtf8(folder)
                                  << QString::fromUtf8(destination);
          };
    row("a folder", "/tmp/a.7z", "x", "");
    row("a destination in it", "/tmp/a.7z", "x", "sub");
    row("blanks", "/tmp/my a.7z", "my x", "");
    row("letters", "/tmp/gr\u00FC\u00DFe.7z", "gr\u00FC\u00DFe", "");
    row("a mark", "/tmp/%1.7z", "%1 %2", "");
    row("a relative archive", "a.7z.001", "x", "");
    row("no archive", "", "x", "");
}

void tst_Decompressor::argumentsAreThese()
{
    QFETCH(const QString, archive);
    QFETCH(const QString, folder);
    QFETCH(const QString, destination);
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({});
    m_decompressor->start(archive, destination, m_tree->path(folder), QString());
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_fake->arguments(),
        QByteArrayList({"x", "-y", "-bse1", "-bso1", "-bsp1", "-sccUTF-8",
            "-o" + m_tree->path().toUtf8() + '/' + folder.toUtf8(), archive.toUtf8()}));
}

void tst_Decompressor::childRunsInTheBaseFolder()
{
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({});
    start(QStringLiteral("sub"));
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_fake->folder(), base());
}

void tst_Decompressor::withoutABaseFolderTheChildRunsInOurs()
{
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({});
    m_decompressor->start(QStringLiteral("/tmp/a.7z"), QString(), QString(), QString());
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_fake->arguments(),
        QByteArrayList({"x", "-y", "-bse1", "-bso1", "-bsp1", "-sccUTF-8", "/tmp/a.7z"}));
    QCOMPARE(m_fake->folder(), QDir::current().canonicalPath());
}

void tst_Decompressor::destinationIsMadeButNotUnpackedTo_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QString>("made");
    QTest::addColumn<bool>("absolute");
    const auto row = [](const char *name, const char *folder, const char *destination,
                         const char *made, bool absolute = false) {
        QTest::newRow(name) << QString::fromUtf8(folder) << QString::fromUtf8(destination)
                            << QString::fromUtf8(made) << absolute;
    };
    row("the base folder", "new", "", "new");
    row("the base folder and its parents", "new/a/b", "", "new/a/b");
    row("a folder in it, which makes it as well", "new", "sub", "new/sub");
    row("two folders in it", "new", "sub/gr\u00FC\u00DFe", "new/sub/gr\u00FC\u00DFe");
    row("an absolute destination", "games/x", "elsewhere/a", "elsewhere/a", true);
}

void tst_Decompressor::destinationIsMadeButNotUnpackedTo()
{
    QFETCH(const QString, folder);
    QFETCH(QString, destination);
    QFETCH(const QString, made);
    QFETCH(const bool, absolute);
    if (absolute)
        destination = m_tree->path(destination);
    QVERIFY(!m_tree->exists(made));

    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({});
    m_decompressor->start(
        QStringLiteral("/tmp/a.7z"), destination, m_tree->path(folder), QString());
    QVERIFY(QFileInfo(m_tree->path(made)).isDir());
    QCOMPARE(m_log->takeAll("default"),
        QStringList(
            {QLatin1String("debug: Create dst dir:  \"") + m_tree->path(made) + QLatin1Char('"'),
                QStringLiteral("debug: Decompress by:  \"process\"  in queue:  ()")}));
    QVERIFY(childsEnd.wait());
    QVERIFY(m_fake->arguments().contains(QByteArray("-o") + m_tree->path(folder).toUtf8()));
}

void tst_Decompressor::existingDestinationIsLeftAsItIs()
{
    m_tree->write(QStringLiteral("games/x/sub/file"), "kept");
    ChildsEnd childsEnd(m_decompressor.get());
    m_fake->play({});
    start(QStringLiteral("sub"));
    QCOMPARE(
        m_log->takeAll("default"), texts({"debug: Decompress by:  \"process\"  in queue:  ()"}));
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_tree->read(QStringLiteral("games/x/sub/file")), QByteArray("kept"));
}

void tst_Decompressor::destinationThatCannotBeMadeIsAnError_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("destination");
    QTest::addColumn<QString>("unmade");
    const auto row
        = [](const char *name, const QString &folder, const QString &destination,
              const QString &unmade) { QTest::newRow(name) << folder << destination << unmade; };
    const QString file = QStringLiteral("file");
    const QString longName(256, QLatin1Char('n'));
    row("a file stands there", file, QString(), file);
    row("a file is its parent", QStringLiteral("file/x"), QString(), QStringLiteral("file/x"));
    row("a file stands in the base folder", QStringLiteral("games"), QStringLiteral("file"),
        QStringLiteral("games/file"));
    row("a link to nowhere", QStringLiteral("dangling"), QString(), QStringLiteral("dangling"));
    row("too long a name", QStringLiteral("games"), longName, QLatin1String("games/") + longName);
}

void tst_Decompressor::destinationThatCannotBeMadeIsAnError()
{
    QFETCH(const QString, folder);
    QFETCH(const QString, destination);
    QFETCH(const QString, unmade);
    m_tree->write(QStringLiteral("file"), "no folder");
    m_tree->write(QStringLiteral("games/file"), "no folder");
    m_tree->link(QStringLiteral("dangling"), m_tree->path(QStringLiteral("nowhere")));

    m_decompressor->start(
        QStringLiteral("/tmp/a.7z"), destination, m_tree->path(folder), QString());
    QCOMPARE(m_events, QByteArrayList({"started", "error [Create dst dir fail!]"}));
    QVERIFY(!hasChildren());
    QCOMPARE(m_log->takeAll("default"),
        QStringList({QLatin1String("debug: Create dst dir:  \"") + m_tree->path(unmade)
            + QLatin1Char('"')}));
}

void tst_Decompressor::startReturnsBeforeAnythingIsSaid()
{
    m_fake->play({waitsFor("go"), says("Everything is Ok\n")});
    ChildsEnd childsEnd(m_decompressor.get());
    start();
    QCOMPARE(m_events, QByteArrayList({"started", "started"}));
    m_fake->open("go");
    QVERIFY(childsEnd.wait());
    QCOMPARE(
        m_events, QByteArrayList({"started", "started", "progress 0", "finished", "child ended"}));
}

void tst_Decompressor::childGetsTheEndOfItsInput()
{
    QVERIFY(run({says("Enter password (will not be echoed):"), readsItsInput(), exits(255)}));
    QVERIFY(m_fake->hasReadItsInput());
    QCOMPARE(m_fake->input(), QByteArray());
}

void tst_Decompressor::everyNonEmptyLineIsProgress_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<QList<int>>("progress");
    const auto row = [](const char *name, const QByteArray &chunk, const QList<int> &progress) {
        QTest::newRow(name) << chunk << progress;
    };

    row("a file that is unpacked", "  7% 3 - file\n", {7});
    row("two lines without a percentage", "Scanning the drive:\n2 files", {0, 0});
    row("the percentage alone", "100%", {100});
    row("a number without the sign", "12", {12});
    row("two signs", "12% 30% x", {12});
    row("blanks around the number", " \t 12 \t % x", {12});
    row("a sign in front", "-5%\n+5%", {-5, 5});
    row("a fraction", "7.5%", {0});
    row("too large a number", "99999999999%", {0});
    row("no number", "x 7%", {0});

    row("empty lines", "\n\n\n1%\n\n\n\n2%\n\n", {1, 2});
    row("blanks alone", " \n \n ", {});
    row("a line of blanks between others", "1%\n   \n2%", {1, 0, 2});
    row("carriage returns", "1%\r\n\r\n2%\r\n", {1, 2});
    row("backspaces write over a percentage", "  1%\b\b\b\b    \b\b\b\b  2%", {1});
    row("a line of backspaces", "1%\n\b\b\n2%", {1, 2});
    row("blanks that a backspace had kept, taken by the second strip", "\b  \n5%", {5});

    row("a zero byte ends the chunk",
        QByteArray("12% a\n\0"
                   "45%\n",
            11),
        {12});
    row("a zero byte at once",
        QByteArray("\0"
                   "45%\n",
            5),
        {});
    row("bytes of UTF-8",
        "12% - gr\xC3\xBC\xC3\x9F"
        "e\n\xC3\xBC 13%\n",
        {12, 0});
    row("bytes of nothing", "12% \xFF\xF8\xFA\xFD\x80\n13%", {12, 13});
}

void tst_Decompressor::everyNonEmptyLineIsProgress()
{
    QFETCH(const QByteArray, chunk);
    QFETCH(const QList<int>, progress);
    QByteArrayList expected{"started", "started"};
    for (const int percents : progress)
        expected.append("progress " + QByteArray::number(percents));
    expected.append("child ended");

    QVERIFY(run({says(chunk)}));
    QCOMPARE(m_events, expected);
}

void tst_Decompressor::chunkIsDecodedAndStripped_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<QString>("byCodePage866");
    QTest::addColumn<QString>("asLatin1"); // where that code page is not known
    const auto row = [](const char *name, const QByteArray &chunk, const char *byCodePage866,
                         const char *asLatin1) {
        QTest::newRow(name) << chunk << QString::fromUtf8(byCodePage866)
                            << QString::fromUtf8(asLatin1);
    };

    row("blanks, backspaces, line ends", "\r\n ERROR: a\b\bb\r\n\r\n\n c ", "ERROR: AB\n\n C",
        "ERROR: AB\n\n C");
    row("letters of UTF-8",
        "Error: gr\xC3\xBC\xC3\x9F"
        "e",
        "ERROR: GR????E", "ERROR: GR\u00DCSSE");
    row("a degree sign of code page 866", "ERROR: \xF8", "ERROR: \uFFFD", "ERROR: \uFFFD");
    row("a zero byte", QByteArray("ERROR: a\0b", 10), "ERROR: A", "ERROR: A");
}

void tst_Decompressor::chunkIsDecodedAndStripped()
{
    QFETCH(const QByteArray, chunk);
    QFETCH(const QString, byCodePage866);
    QFETCH(const QString, asLatin1);
    QString told;
    connect(m_decompressor.get(), &Decompressor::error,
        [&](const QStringList &errors) { told = errors.join(QLatin1Char('|')); });
    QVERIFY(run({says(chunk)}));
    QCOMPARE(told, QTextCodec::codecForName("IBM 866") ? byCodePage866 : asLatin1);
}

void tst_Decompressor::errorIsToldWhileTheChildRunsAndAtItsEnd()
{
    m_fake->play({says("x\nError: cannot open\n 5%\n"), waitsFor("go"), exits(2)});
    ChildsEnd childsEnd(m_decompressor.get());
    QSignalSpy error(m_decompressor.get(), &Decompressor::error);
    start();
    QVERIFY(error.wait(Patience));
    QVERIFY(processExists(m_fake->pid()));
    QCOMPARE(m_decompressor->findChild<QProcess *>()->state(), QProcess::Running);
    QCOMPARE(
        m_events, QByteArrayList({"started", "started", "error [X\nERROR: CANNOT OPEN\n 5%]"}));

    m_fake->open("go");
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_events,
        QByteArrayList({"started", "started", "error [X\nERROR: CANNOT OPEN\n 5%]",
            "error [X\nERROR: CANNOT OPEN\n 5%]", "child ended"}));
}

void tst_Decompressor::outcomeIs_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<QByteArrayList>("events"); // between start and end of the child
    const auto row = [](const char *name, const QByteArrayList &steps,
                         const QByteArrayList &events) { QTest::newRow(name) << steps << events; };
    const QByteArray ok("Everything is Ok\n");

    row("success", {says("100%\nEverything is Ok\n")}, {"progress 100", "progress 0", "finished"});
    row("success in capitals", {says("EVERYTHING  IS OK")}, {"progress 0", "finished"});
    row("success, whatever the exit code", {says(ok), exits(2)}, {"progress 0", "finished"});
    row("a line that reads alike", {says("Everything was Ok\n")}, {"progress 0"});
    row("a broken success line", {says("Everything\nis Ok\n")}, {"progress 0", "progress 0"});
    row("a success line in two chunks", {says("Everything is"), says(" Ok\n")},
        {"progress 0", "progress 0"});

    row("success, then a summary", {says(ok), says("Files: 2\n")},
        {"progress 0", "finished", "progress 0"});
    row("success, then a summary in two chunks", {says(ok), says("Files: 2\n"), says("Size: 3\n")},
        {"progress 0", "finished", "progress 0", "progress 0"});
    row("success, then an empty chunk", {says(ok), says("\n")}, {"progress 0", "finished"});
    row("success in each of three chunks", {says(ok), says(ok), says(ok)},
        {"progress 0", "finished", "progress 0", "finished", "progress 0", "finished"});
    row("success, a summary, success", {says(ok), says("Files: 2\n"), says(ok)},
        {"progress 0", "finished", "progress 0", "progress 0", "finished"});
    row("success, then an error", {says(ok), says("ERROR: x")},
        {"progress 0", "finished", "error [ERROR: X]", "error [ERROR: X]"});

    row("silence", {}, {});
    row("silence with exit code 1", {exits(1)}, {});
    row("silence behind progress", {says("7%\n"), exits(255)}, {"progress 7"});

    row("an error in capitals", {says("ERROR: x"), exits(0)},
        {"error [ERROR: X]", "error [ERROR: X]"});
    row("an error in mixed case", {says("Error: cannot open"), exits(2)},
        {"error [ERROR: CANNOT OPEN]", "error [ERROR: CANNOT OPEN]"});
    row("an error in small letters", {says("error: x")}, {"error [ERROR: X]", "error [ERROR: X]"});
    row("an error in all cases", {says("eRRoR: x")}, {"error [ERROR: X]", "error [ERROR: X]"});
    row("errors without a colon of their own", {says("Errors 2\n")}, {"progress 0"});
    row("the same error twice", {says("ERROR: x"), says("ERROR: x"), exits(2)},
        {"error [ERROR: X]", "error [ERROR: X]"});
    row("the same error but for case and blanks", {says("ERROR: x"), says("\r\nError: X \r\n")},
        {"error [ERROR: X]", "error [ERROR: X]"});
    row("the first of two errors again", {says("ERROR: x"), says("ERROR: y"), says("ERROR: x")},
        {"error [ERROR: X]", "error [ERROR: X][ERROR: Y]", "error [ERROR: X][ERROR: Y]"});
    row("an error between progress", {says("1%\n"), says("2%\nERROR: x\n"), says("3%\n")},
        {"progress 1", "error [2%\nERROR: X]", "progress 3", "error [2%\nERROR: X]"});

    row("an error, then success", {says("ERROR: x"), says(ok)},
        {"error [ERROR: X]", "progress 0", "finished"});
    row("an error and success in one chunk", {says("ERROR: x\nEverything is Ok")},
        {"error [ERROR: X\nEVERYTHING IS OK]", "finished"});
    row("an error told before, with success in it",
        {says("ERROR: Everything is Ok"), says("ERROR: Everything is Ok")},
        {"error [ERROR: EVERYTHING IS OK]", "finished", "finished"});
}

void tst_Decompressor::outcomeIs()
{
    QFETCH(const QByteArrayList, steps);
    QFETCH(const QByteArrayList, events);
    QVERIFY(run(steps));
    QCOMPARE(
        m_events, QByteArrayList({"started", "started"}) + events + QByteArrayList{"child ended"});
}

void tst_Decompressor::childsDeathIs_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<QByteArrayList>("events");
    QTest::newRow("silence") << QByteArrayList{says("7%\n"), diesOf(SIGKILL)}
                             << QByteArrayList{"progress 7"};
    QTest::newRow("a crash in silence") << QByteArrayList{diesOf(SIGABRT)} << QByteArrayList{};
    QTest::newRow("an error once more") << QByteArrayList{says("ERROR: x"), diesOf(SIGKILL)}
                                        << QByteArrayList{"error [ERROR: X]", "error [ERROR: X]"};
    QTest::newRow("success all the same") << QByteArrayList{says("Everything is Ok"),
        diesOf(SIGKILL)} << QByteArrayList{"progress 0", "finished"};
}

void tst_Decompressor::childsDeathIs()
{
    outcomeIs();
    QCOMPARE(m_decompressor->findChild<QProcess *>()->exitStatus(), QProcess::CrashExit);
}

void tst_Decompressor::finishedComesBeforeTheChunkIsRead()
{
    qint64 waiting = -1;
    connect(m_decompressor.get(), &Decompressor::finished, [&] {
        if (waiting < 0)
            waiting = m_decompressor->findChild<QProcess *>()->bytesAvailable();
    });
    QVERIFY(run({says("Everything is Ok\n"), says("12 bytes..\n\n")}));
    QCOMPARE(waiting, qint64(12));
}

void tst_Decompressor::errorOutputIsReadAndDiscarded()
{
    QVERIFY(run({saysAside("ERROR: x\n50%\n"), saysAside("Everything is Ok\n")}));
    QCOMPARE(m_events, QByteArrayList({"started", "started", "child ended"}));
    QCOMPARE(m_decompressor->findChild<QProcess *>()->readAllStandardError(), QByteArray());
}

void tst_Decompressor::floodIsRead()
{
    QVERIFY(run({floods(QByteArray(1000, ' ') + "5%\n", 2000), says("Everything is Ok\n")}));
    QVERIFY(m_events.count("progress 5") > 1000);
    QCOMPARE(m_events.mid(m_events.size() - 3),
        QByteArrayList({"progress 0", "finished", "child ended"}));
}

void tst_Decompressor::logTellsTheStage()
{
    QVERIFY(run({says("100%\nEverything is Ok\n"), says("ERROR: x")}));
    QCOMPARE(
        m_log->takeAll("default"), texts({"debug: Decompress by:  \"process\"  in queue:  ()"}));
}

void tst_Decompressor::destructorEndsARunningChild()
{
    m_fake->play({says("5%\nERROR: x\n"), hangs()});
    QSignalSpy error(m_decompressor.get(), &Decompressor::error);
    start();
    QVERIFY(error.wait(Patience));
    m_events.clear();

    m_decompressor.reset();
    QVERIFY(!processExists(m_fake->pid()));
    QVERIFY(!hasChildren());
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList()); // whoever listens to the child hears nothing either
}

void tst_Decompressor::destructorEndsAChildThatHasJustBeenStarted()
{
    m_fake->play({hangs()});
    start();
    m_decompressor.reset();
    QVERIFY(!hasChildren());
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList({"started", "started"}));
}

void tst_Decompressor::destructorAfterTheEndIsQuiet()
{
    QVERIFY(run({says("ERROR: x"), exits(2)}));
    m_events.clear();
    m_decompressor.reset();
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList());
}

QTEST_GUILESS_MAIN(tst_Decompressor)
#include "tst_decompressor.moc"
