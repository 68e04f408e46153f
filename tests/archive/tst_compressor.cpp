// SPDX-License-Identifier: MIT
#include "fakesevenzip.h"
#include "leftovers.h"
#include "logcapture.h"
#include "texts.h"

#include <Pellox/Compressor>

#include <QDir>
#include <QMetaMethod>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QTextCodec>

#include <functional>
#include <limits>
#include <memory>
#include <type_traits>

using namespace Step;

using Setup = std::function<void(Compressor &)>;
Q_DECLARE_METATYPE(Setup)

static_assert(std::is_base_of_v<QObject, Compressor>);
static_assert(!std::is_convertible_v<QObject *, Compressor>, "the constructor is explicit");

namespace {

constexpr qint64 GiB = 1073741824;

} // namespace

class tst_Compressor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void metaObjectHoldsFourSignalsInOrder();
    void parentOwnsTheCompressor();

    void argumentsAreThese_data();
    void argumentsAreThese();
    void compressionLevelIsCarriedToNoSwitch_data();
    void compressionLevelIsCarriedToNoSwitch();
    void secondStartAddsTheSuffixAgain();
    void successIsNeverReset();
    void errorsAreNeverReset();

    void childRunsInTheWorkingDirectory();
    void childRunsInOurFolderWhereNoneIsGiven();
    void startReturnsBeforeAnythingIsSaid();
    void childGetsTheEndOfItsInput();

    void everyNonEmptyLineIsProgress_data();
    void everyNonEmptyLineIsProgress();
    void everyChunkIsReadByItself();
    void chunkIsDecoded_data();
    void chunkIsDecoded();

    void errorIsToldWhileTheChildRunsAndAtItsEnd();
    void outcomeIs_data();
    void outcomeIs();
    void childsDeathIs_data();
    void childsDeathIs();
    void outputAfterSuccessIsLeftUnread();
    void errorOutputIsNotLookedAt();
    void floodIsRead();
    void logTellsStartAndSuccess();
    void logTellsOnlyTheStartOfAFailure();

    void destructorEndsARunningChild();
    void destructorEndsAChildThatHasJustBeenStarted();
    void destructorAfterTheEndIsQuiet();

private:
    bool run(const QByteArrayList &steps, const QString &workingDirectory = QString());

    Leftovers m_leftovers;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<FakeSevenZip> m_fake;
    std::unique_ptr<Compressor> m_compressor;
    QByteArrayList m_events;
};

void tst_Compressor::init()
{
    m_log = std::make_unique<LogCapture>();
    m_events.clear();
    m_fake = std::make_unique<FakeSevenZip>();
    m_compressor = std::make_unique<Compressor>();
    record(m_compressor.get(), &m_events);
}

void tst_Compressor::cleanup()
{
    m_compressor.reset();
    const QByteArray trouble = m_fake->trouble();
    m_fake.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(trouble, QByteArray());
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

/// Packs with a 7-Zip that takes @p steps, until it has ended and all is told.
bool tst_Compressor::run(const QByteArrayList &steps, const QString &workingDirectory)
{
    ChildsEnd childsEnd(m_compressor.get());
    m_fake->play(steps);
    m_compressor->start(QStringLiteral("game.7z"), workingDirectory);
    return childsEnd.wait();
}

void tst_Compressor::metaObjectHoldsFourSignalsInOrder()
{
    const QMetaObject &meta = Compressor::staticMetaObject;
    QCOMPARE(meta.className(), "Compressor");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);

    QByteArrayList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        QCOMPARE(meta.method(i).methodType(), QMetaMethod::Signal);
        methods.append(meta.method(i).methodSignature());
    }
    QCOMPARE(methods,
        QByteArrayList({"started()", "finished()", "error(QStringList)", "progress(int)"}));
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_Compressor::parentOwnsTheCompressor()
{
    QCOMPARE(m_compressor->parent(), nullptr);
    auto parent = std::make_unique<QObject>();
    const QPointer<Compressor> child(new Compressor(parent.get()));
    QCOMPARE(child->parent(), parent.get());
    parent.reset();
    QVERIFY(!child);
}

void tst_Compressor::argumentsAreThese_data()
{
    QTest::addColumn<Setup>("setup");
    QTest::addColumn<QByteArrayList>("arguments");
    const auto row = [](const char *name, const Setup &setup, const QByteArrayList &tail) {
        QTest::newRow(name) << setup
                            << QByteArrayList{"a", "-y", "-ssw", "-bse1", "-bso1", "-bsp1",
                                   "-sccUTF-8"}
                + tail;
    };
    const auto folder = [](const char *path) -> Setup {
        return [=](Compressor &c) { c.setArchiveArchivePath(QString::fromUtf8(path)); };
    };
    const auto files = [](std::initializer_list<const char *> names) -> Setup {
        return [list = texts(names)](Compressor &c) { c.addFiles(list); };
    };
    const auto volumes = [](qint64 size) -> Setup {
        return [=](Compressor &c) {
            c.setMultiVolume(true);
            c.setVolumeSize(size);
        };
    };
    const auto password = [](const char *text) -> Setup {
        return [=](Compressor &c) { c.setPassword(QString::fromUtf8(text)); };
    };
    const auto all = [](const QList<Setup> &setups) -> Setup {
        return [=](Compressor &c) {
            for (const Setup &setup : setups)
                setup(c);
        };
    };

    row("as made", [](Compressor &) {}, {"game.7z"});
    row("a folder in volumes of 500 MiB", all({folder("/data/build"), volumes(524288000)}),
        {"-v524288000b", "game.7z", "/data/build/*"});

    row("a folder", folder("/data/build"), {"game.7z", "/data/build/*"});
    row("a relative folder", folder("build"), {"game.7z", "build/*"});
    row("a folder with a separator at its end", folder("/data/"), {"game.7z", "/data//*"});
    row("a folder with blanks and letters", folder("/my gr\u00FC\u00DFe"),
        {"game.7z", "/my gr\u00FC\u00DFe/*"});
    row("files", files({"a.txt", "b.txt"}), {"game.7z", "a.txt", "b.txt"});
    row("files in two calls", all({files({"b.txt"}), files({"a.txt", "b.txt"})}),
        {"game.7z", "b.txt", "a.txt", "b.txt"});
    row("files, and a folder that outdoes them", all({files({"a.txt"}), folder("/data/build")}),
        {"game.7z", "/data/build/*"});
    row("files, and an empty folder name", all({files({"a.txt"}), folder("")}),
        {"game.7z", "a.txt"});
    row("the folder set last", all({folder("/data/old"), folder("/data/new")}),
        {"game.7z", "/data/new/*"});

    row("volumes as made", [](Compressor &c) { c.setMultiVolume(true); }, {"-v5g", "game.7z"});
    row("a volume size, but no volumes", [](Compressor &c) { c.setVolumeSize(524288000); },
        {"game.7z"});
    row("volumes turned off again",
        all({volumes(1000), [](Compressor &c) { c.setMultiVolume(false); }}), {"game.7z"});
    row("volumes of 1 byte", volumes(1), {"-v1b", "game.7z"});
    row("volumes of 1 GiB less 1 byte", volumes(GiB - 1), {"-v1073741823b", "game.7z"});
    row("volumes of 1 GiB", volumes(GiB), {"-v1073741824b", "game.7z"});
    row("volumes of 1 GiB and 1 byte", volumes(1073741825), {"-v1g", "game.7z"});
    row("volumes of 1.5 GiB", volumes(GiB * 3 / 2), {"-v1g", "game.7z"});
    row("volumes of 2 GiB less 1 byte", volumes(2 * GiB - 1), {"-v1g", "game.7z"});
    row("volumes of 2 GiB", volumes(2 * GiB), {"-v2g", "game.7z"});
    row("volumes of 3 GiB", volumes(3221225472), {"-v3g", "game.7z"});
    row("volumes of all there is", volumes(std::numeric_limits<qint64>::max()),
        {"-v8589934591g", "game.7z"});
    row("volumes of size 0", volumes(0), {"-v1073741824b", "game.7z"});
    row("volumes of size -5", volumes(-5), {"-v1073741824b", "game.7z"});

    row("a password", password("x"), {"game.7z", "-p'x'"});
    row("a password with quotes, blanks and a mark", password("a 'b' %1"),
        {"game.7z", "-p'a 'b' %1'"});
    row("an empty password", password(""), {"game.7z"});
    row("a password behind files", all({password("x"), files({"a.txt"})}),
        {"game.7z", "a.txt", "-p'x'"});
    row("everything", all({password("x"), volumes(1000), files({"a.txt"}), folder("/d")}),
        {"-v1000b", "game.7z", "/d/*", "-p'x'"});
}

void tst_Compressor::argumentsAreThese()
{
    QFETCH(const Setup, setup);
    setup(*m_compressor);
    QVERIFY(run({}));
    QTEST(m_fake->arguments(), "arguments");
    QCOMPARE(m_fake->runs(), 1);
}

void tst_Compressor::compressionLevelIsCarriedToNoSwitch_data()
{
    QTest::addColumn<int>("level");
    QTest::newRow("12") << 12;
    QTest::newRow("9") << 9;
    QTest::newRow("0") << 0;
    QTest::newRow("-3") << -3;
}

void tst_Compressor::compressionLevelIsCarriedToNoSwitch()
{
    QFETCH(const int, level);
    m_compressor->setCompressionLevel(level);
    QVERIFY(run({}));
    QCOMPARE(m_fake->arguments(),
        QByteArrayList({"a", "-y", "-ssw", "-bse1", "-bso1", "-bsp1", "-sccUTF-8", "game.7z"}));
}

void tst_Compressor::secondStartAddsTheSuffixAgain()
{
    m_compressor->setArchiveArchivePath(QStringLiteral("/data/build"));
    QVERIFY(run({}));
    QVERIFY(run({}));
    QCOMPARE(m_fake->arguments(1).last(), QByteArray("/data/build/*"));
    QCOMPARE(m_fake->arguments(2).last(), QByteArray("/data/build/*/*"));
}

void tst_Compressor::successIsNeverReset()
{
    QVERIFY(run({says("Everything is Ok\n")}));
    m_events.clear();
    QVERIFY(run({says("5%\nERROR: x\n"), exits(2)}));
    QVERIFY(m_events.contains("finished"));
    QVERIFY(!m_events.join('\n').contains("error"));
    QVERIFY(!m_events.join('\n').contains("progress"));
}

void tst_Compressor::errorsAreNeverReset()
{
    QVERIFY(run({says("ERROR: first")}));
    m_events.clear();
    QVERIFY(run({}));
    QVERIFY(m_events.contains("error [ERROR: first]"));
}

void tst_Compressor::childRunsInTheWorkingDirectory()
{
    const TestTree tree;
    tree.makeFolder(QStringLiteral("out put"));
    QVERIFY(run({}, tree.path(QStringLiteral("out put"))));
    QCOMPARE(m_fake->folder(), tree.path(QStringLiteral("out put")));
    QCOMPARE(m_fake->arguments().last(), QByteArray("game.7z"));
}

void tst_Compressor::childRunsInOurFolderWhereNoneIsGiven()
{
    QVERIFY(run({}));
    QCOMPARE(m_fake->folder(), QDir::current().canonicalPath());
}

void tst_Compressor::startReturnsBeforeAnythingIsSaid()
{
    m_fake->play({waitsFor("go"), says("Everything is Ok\n")});
    ChildsEnd childsEnd(m_compressor.get());
    m_compressor->start(QStringLiteral("game.7z"), QString());
    QCOMPARE(m_events, QByteArrayList({"started"}));
    m_fake->open("go");
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_events, QByteArrayList({"started", "progress 0", "finished", "child ended"}));
}

void tst_Compressor::childGetsTheEndOfItsInput()
{
    QVERIFY(run({says("Enter password (will not be echoed):"), readsItsInput(), exits(255)}));
    QVERIFY(m_fake->hasReadItsInput());
    QCOMPARE(m_fake->input(), QByteArray());
}

void tst_Compressor::everyNonEmptyLineIsProgress_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<QList<int>>("progress");
    const auto row = [](const char *name, const QByteArray &chunk, const QList<int> &progress) {
        QTest::newRow(name) << chunk << progress;
    };

    row("a file that is added", "  7% 3 + file\n", {7});
    row("two lines without a percentage", "Scanning the drive:\n2 files", {0, 0});
    row("the percentage alone", "100%", {100});
    row("a number without the sign", "12", {12});
    row("the sign alone", "%", {0});
    row("two signs", "12% 30% x", {12});
    row("blanks around the number", " \t 12 \t % x", {12});
    row("a blank in the number", "1 2%", {0});
    row("a sign in front", "-5%\n+5%", {-5, 5});
    row("a fraction", "7.5%", {0});
    row("hexadecimal digits", "0x10%", {0});
    row("zeros in front", "007%", {7});
    row("too large a number", "99999999999%", {0});
    row("more than a hundred", "250%", {250});
    row("no number", "x 7%", {0});

    row("empty lines", "\n\n\n1%\n\n\n\n2%\n\n", {1, 2});
    row("blanks alone", " \n \n ", {});
    row("a line of blanks between others", "1%\n   \n2%", {1, 0, 2});
    row("carriage returns", "1%\r\n\r\n2%\r\n", {1, 2});
    row("a carriage return within a line", "1%\r2%", {1});
    row("backspaces write over a percentage", "  1%\b\b\b\b    \b\b\b\b  2%", {1});
    row("backspaces behind a percentage", " 45% + x\b\b\b\b\b\b\b\b        \n 50%", {45, 50});
    row("backspaces within a number", "4\b5%", {45});
    row("a line of backspaces", "1%\n\b\b\n2%", {1, 2});
    row("blanks that a backspace had kept", "\b  \n5%", {0, 5});

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
    row("a zero byte within a number",
        QByteArray("4\0"
                   "5%",
            4),
        {4});
    row("bytes of UTF-8",
        "12% + gr\xC3\xBC\xC3\x9F"
        "e\n\xC3\xBC 13%\n",
        {12, 0});
    row("bytes of nothing", "12% \xFF\xF8\xFA\xFD\x80\n13%", {12, 13});
}

void tst_Compressor::everyNonEmptyLineIsProgress()
{
    QFETCH(const QByteArray, chunk);
    QFETCH(const QList<int>, progress);
    QByteArrayList expected{"started"};
    for (const int percents : progress)
        expected.append("progress " + QByteArray::number(percents));
    expected.append("child ended");

    QVERIFY(run({says(chunk)}));
    QCOMPARE(m_events, expected);
}

void tst_Compressor::everyChunkIsReadByItself()
{
    QVERIFY(run({says("  4"), says("5%\n"), says("\n"), says("Everything is"), says(" Ok\n")}));
    QCOMPARE(m_events,
        QByteArrayList(
            {"started", "progress 4", "progress 5", "progress 0", "progress 0", "child ended"}));
}

void tst_Compressor::chunkIsDecoded_data()
{
    QTest::addColumn<QByteArray>("chunk");
    QTest::addColumn<QString>("byCodePage866");
    QTest::addColumn<QString>("asLatin1"); // where that code page is not known
    const auto row = [](const char *name, const QByteArray &chunk, const char *byCodePage866,
                         const char *asLatin1) {
        QTest::newRow(name) << chunk << QString::fromUtf8(byCodePage866)
                            << QString::fromUtf8(asLatin1);
    };

    row("ASCII", "ERROR: ~!\t\r\n", "ERROR: ~!\t\r\n", "ERROR: ~!\t\r\n");
    row("letters of UTF-8",
        "ERROR: gr\xC3\xBC\xC3\x9F"
        "e",
        "ERROR: gr????e", "ERROR: gr\u00FC\u00DFe");
    row("a degree sign of code page 866", "ERROR: \xF8", "ERROR: \uFFFD", "ERROR: \uFFFD");
    row("a zero byte", QByteArray("ERROR: a\0b", 10), "ERROR: a", "ERROR: a");
}

void tst_Compressor::chunkIsDecoded()
{
    QFETCH(const QByteArray, chunk);
    QFETCH(const QString, byCodePage866);
    QFETCH(const QString, asLatin1);
    QString told;
    connect(m_compressor.get(), &Compressor::error,
        [&](const QStringList &errors) { told = errors.join(QLatin1Char('|')); });
    QVERIFY(run({says(chunk)}));
    QCOMPARE(told, QTextCodec::codecForName("IBM 866") ? byCodePage866 : asLatin1);
}

void tst_Compressor::errorIsToldWhileTheChildRunsAndAtItsEnd()
{
    m_fake->play({says("x\nERROR: Can not open\n 5%\n"), waitsFor("go"), exits(2)});
    auto *process = m_compressor->findChild<QProcess *>();
    ChildsEnd childsEnd(m_compressor.get());
    QSignalSpy error(m_compressor.get(), &Compressor::error);
    m_compressor->start(QStringLiteral("game.7z"), QString());
    QVERIFY(error.wait(Patience));
    QVERIFY(processExists(m_fake->pid()));
    QCOMPARE(process->state(), QProcess::Running);
    QCOMPARE(m_events, QByteArrayList({"started", "error [x\nERROR: Can not open\n 5%\n]"}));

    m_fake->open("go");
    QVERIFY(childsEnd.wait());
    QCOMPARE(m_events,
        QByteArrayList({"started", "error [x\nERROR: Can not open\n 5%\n]",
            "error [x\nERROR: Can not open\n 5%\n]", "child ended"}));
}

void tst_Compressor::outcomeIs_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<QByteArrayList>("events"); // between start and end of the child
    const auto row = [](const char *name, const QByteArrayList &steps,
                         const QByteArrayList &events) { QTest::newRow(name) << steps << events; };

    row("success", {says("100%\nEverything is Ok\n")}, {"progress 100", "progress 0", "finished"});
    row("success in capitals", {says("EVERYTHING  IS OK")}, {"progress 0", "finished"});
    row("success, whatever the exit code", {says("Everything is Ok\n"), exits(2)},
        {"progress 0", "finished"});
    row("a line that reads alike", {says("Everything was Ok\n")}, {"progress 0"});
    row("a broken success line", {says("Everything\nis Ok\n")}, {"progress 0", "progress 0"});

    row("silence", {}, {});
    row("silence with exit code 1", {exits(1)}, {});
    row("silence behind progress", {says("7%\n"), exits(255)}, {"progress 7"});

    row("an error, whatever the exit code", {says("ERROR: x"), exits(0)},
        {"error [ERROR: x]", "error [ERROR: x]"});
    row("the same error twice", {says("ERROR: x"), says("ERROR: x"), exits(2)},
        {"error [ERROR: x]", "error [ERROR: x]"});
    row("an error that differs in its blanks", {says("ERROR: x"), says("ERROR: x\n"), exits(2)},
        {"error [ERROR: x]", "error [ERROR: x][ERROR: x\n]", "error [ERROR: x][ERROR: x\n]"});
    row("the first of two errors again", {says("ERROR: x"), says("ERROR: y"), says("ERROR: x")},
        {"error [ERROR: x]", "error [ERROR: x][ERROR: y]", "error [ERROR: x][ERROR: y]"});
    row("an error between progress", {says("1%\n"), says("2%\nERROR: x\n"), says("3%\n")},
        {"progress 1", "error [2%\nERROR: x\n]", "progress 3", "error [2%\nERROR: x\n]"});
    row("no progress from an error told before", {says("2%\nERROR:"), says("2%\nERROR:")},
        {"error [2%\nERROR:]", "error [2%\nERROR:]"});
    row("an error in mixed case is none", {says("Error: cannot open\n"), exits(2)}, {"progress 0"});
    row("an error in small letters is none", {says("error: x\n"), exits(2)}, {"progress 0"});
    row("an error mark in two chunks is none", {says("ERR"), says("OR: x")},
        {"progress 0", "progress 0"});

    row("an error, then success", {says("ERROR: x"), says("Everything is Ok"), exits(0)},
        {"error [ERROR: x]", "progress 0", "finished"});
    row("an error and success in one chunk", {says("ERROR: x\nEverything is Ok")},
        {"error [ERROR: x\nEverything is Ok]", "finished"});
    row("an error with success in it, then another error",
        {says("ERROR: Everything is Ok"), says("ERROR: y")},
        {"error [ERROR: Everything is Ok]", "finished"});
}

void tst_Compressor::outcomeIs()
{
    QFETCH(const QByteArrayList, steps);
    QFETCH(const QByteArrayList, events);
    QVERIFY(run(steps));
    QCOMPARE(m_events, QByteArrayList{"started"} + events + QByteArrayList{"child ended"});
}

void tst_Compressor::childsDeathIs_data()
{
    QTest::addColumn<QByteArrayList>("steps");
    QTest::addColumn<QByteArrayList>("events");
    QTest::newRow("silence") << QByteArrayList{says("7%\n"), diesOf(SIGKILL)}
                             << QByteArrayList{"progress 7"};
    QTest::newRow("a crash in silence") << QByteArrayList{diesOf(SIGABRT)} << QByteArrayList{};
    QTest::newRow("an error once more") << QByteArrayList{says("ERROR: x"), diesOf(SIGKILL)}
                                        << QByteArrayList{"error [ERROR: x]", "error [ERROR: x]"};
    QTest::newRow("success all the same") << QByteArrayList{says("Everything is Ok"),
        diesOf(SIGKILL)} << QByteArrayList{"progress 0", "finished"};
}

void tst_Compressor::childsDeathIs()
{
    outcomeIs();
    QCOMPARE(m_compressor->findChild<QProcess *>()->exitStatus(), QProcess::CrashExit);
}

void tst_Compressor::outputAfterSuccessIsLeftUnread()
{
    QVERIFY(run({says("Everything is Ok\n"), says("50%\n"), says("ERROR: x\n"), exits(2)}));
    QCOMPARE(m_events, QByteArrayList({"started", "progress 0", "finished", "child ended"}));
    QCOMPARE(m_compressor->findChild<QProcess *>()->readAllStandardOutput(),
        QByteArray("50%\nERROR: x\n"));
}

void tst_Compressor::errorOutputIsNotLookedAt()
{
    QVERIFY(run({saysAside("ERROR: x\n50%\n"), saysAside("Everything is Ok\n")}));
    QCOMPARE(m_events, QByteArrayList({"started", "child ended"}));
}

void tst_Compressor::floodIsRead()
{
    QVERIFY(run({floods(QByteArray(1000, ' ') + "5%\n", 2000), says("Everything is Ok\n"),
        floods(QByteArray(1000, 'x'), 2000)}));
    QVERIFY(m_events.count("progress 5") > 1000);
    QCOMPARE(m_events.mid(m_events.size() - 3),
        QByteArrayList({"progress 0", "finished", "child ended"}));
}

void tst_Compressor::logTellsStartAndSuccess()
{
    QVERIFY(run({says("100%\nEverything is Ok\n")}));
    QCOMPARE(
        m_log->takeAll("default"), texts({"debug: 7za successfuly started.", "debug: success"}));
}

void tst_Compressor::logTellsOnlyTheStartOfAFailure()
{
    QVERIFY(run({says("ERROR: x\n"), exits(2)}));
    QCOMPARE(m_log->takeAll("default"), texts({"debug: 7za successfuly started."}));
}

void tst_Compressor::destructorEndsARunningChild()
{
    m_fake->play({says("5%\nERROR: x\n"), hangs()});
    QSignalSpy error(m_compressor.get(), &Compressor::error);
    m_compressor->start(QStringLiteral("game.7z"), QString());
    QVERIFY(error.wait(Patience));
    m_events.clear();

    m_compressor.reset();
    QVERIFY(!processExists(m_fake->pid()));
    QVERIFY(!hasChildren());
    QCoreApplication::processEvents();
    m_events.removeAll("child ended");
    QCOMPARE(m_events, QByteArrayList());
    QCOMPARE(m_log->take(QtDebugMsg, "default"), texts({"7za successfuly started."}));
}

void tst_Compressor::destructorEndsAChildThatHasJustBeenStarted()
{
    m_fake->play({hangs()});
    m_compressor->start(QStringLiteral("game.7z"), QString());
    m_compressor.reset();
    QVERIFY(!hasChildren());
    QCoreApplication::processEvents();
    m_events.removeAll("child ended");
    QCOMPARE(m_events, QByteArrayList({"started"}));
}

void tst_Compressor::destructorAfterTheEndIsQuiet()
{
    QVERIFY(run({says("ERROR: x"), exits(2)}));
    m_events.clear();
    m_compressor.reset();
    QCoreApplication::processEvents();
    QCOMPARE(m_events, QByteArrayList());
}

QTEST_GUILESS_MAIN(tst_Compressor)
#include "tst_compressor.moc"
