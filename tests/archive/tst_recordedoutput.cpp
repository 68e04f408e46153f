// SPDX-License-Identifier: MIT
#include "fakesevenzip.h"
#include "leftovers.h"
#include "logcapture.h"
#include "texts.h"

#include <Pellox/Compressor>
#include <Pellox/Decompressor>
#include <Pellox/outputparsers.h>

#include <QFile>
#include <QTest>

#include <cctype>
#include <memory>

namespace {

/// What a 7-Zip program has printed, as data/record.sh has noted it.
struct Recording
{
    QByteArrayList chunks; ///< a write each
    int exitCode = -1;
};

/// @p text with its C escapes resolved.
QByteArray unescaped(const QByteArray &text)
{
    QByteArray bytes;
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) != '\\') {
            bytes.append(text.at(i));
            continue;
        }
        ++i;
        int digits = 0;
        while (digits < 3 && i + digits < text.size() && text.at(i + digits) >= '0'
            && text.at(i + digits) <= '7')
            ++digits;
        if (digits > 0) {
            bytes.append(static_cast<char>(text.mid(i, digits).toInt(nullptr, 8)));
            i += digits - 1;
        } else {
            const int letter = QByteArrayLiteral("nrtvf").indexOf(text.at(i));
            bytes.append(letter < 0 ? text.at(i) : "\n\r\t\v\f"[letter]);
        }
    }
    return bytes;
}

Recording read(const QString &name)
{
    QFile file(QStringLiteral(RECORDED_OUTPUT) + QLatin1Char('/') + name + QLatin1String(".txt"));
    Recording recording;
    if (!file.open(QIODevice::ReadOnly))
        return recording;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith("out "))
            recording.chunks.append(unescaped(line.mid(4)));
        else if (line.startsWith("exit "))
            recording.exitCode = line.mid(5).toInt();
    }
    return recording;
}

} // namespace

/// What the real program printed when it was recorded, read by the parsers and, played again by
/// the stand-in write by write, by the drivers.
class tst_RecordedOutput : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void parsersFindSuccessAndErrors_data();
    void parsersFindSuccessAndErrors();
    void percentageComesBeforeItsFile();
    void successLineIsAChunkOfItsOwn_data();
    void successLineIsAChunkOfItsOwn();
    void driversTellTheOutcome_data();
    void driversTellTheOutcome();
    void driversTellThePercentages_data();
    void driversTellThePercentages();
    void fileNamedLikeAnErrorMakesAGoodRunTellErrors();

private:
    bool replay(const QString &name);
    QByteArrayList eventsThat(bool areProgress) const;

    Leftovers m_leftovers;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<FakeSevenZip> m_fake;
    std::unique_ptr<TestTree> m_tree;
    QByteArrayList m_events;
};

void tst_RecordedOutput::init()
{
    m_log = std::make_unique<LogCapture>();
    m_fake = std::make_unique<FakeSevenZip>();
    m_tree = std::make_unique<TestTree>();
    m_events.clear();
}

void tst_RecordedOutput::cleanup()
{
    const QByteArray trouble = m_fake->trouble();
    m_fake.reset();
    m_tree.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(trouble, QByteArray());
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

/// Lets the driver that the recording's name tells run into it, until all is told.
bool tst_RecordedOutput::replay(const QString &name)
{
    const Recording recording = read(name);
    QByteArrayList steps;
    for (const QByteArray &chunk : recording.chunks)
        steps.append(Step::says(chunk));
    m_fake->play(steps + QByteArrayList{Step::exits(recording.exitCode)});

    if (name.startsWith(QLatin1String("create"))) {
        Compressor compressor;
        record(&compressor, &m_events);
        ChildsEnd childsEnd(&compressor);
        compressor.start(QStringLiteral("a.7z"), QString());
        return childsEnd.wait();
    }
    Decompressor decompressor;
    record(&decompressor, &m_events);
    ChildsEnd childsEnd(&decompressor);
    decompressor.start(QStringLiteral("a.7z"), QString(), m_tree->path(), QString());
    return childsEnd.wait();
}

QByteArrayList tst_RecordedOutput::eventsThat(bool areProgress) const
{
    QByteArrayList events;
    for (const QByteArray &event : m_events) {
        if (event.startsWith("progress ") == areProgress)
            events.append(event);
    }
    return events;
}

void tst_RecordedOutput::parsersFindSuccessAndErrors_data()
{
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<int>("successes");
    QTest::addColumn<QStringList>("errors"); // stripped
    const auto row = [](const char *name, int exitCode, int successes,
                         std::initializer_list<const char *> errors = {}) {
        QTest::newRow(name) << exitCode << successes << texts(errors);
    };
    const char *unexpectedEnd = "Open ERROR: Cannot open the file as [7z] archive\n\nERRORS:\n"
                                "Unexpected end of archive";
    const QByteArray truncated
        = QByteArray("ERROR: truncated/build.7z.001\nbuild.7z\n") + unexpectedEnd;
    const QByteArray incomplete
        = QByteArray("ERROR: incomplete/build.7z.001\nbuild.7z\n") + unexpectedEnd;

    row("create", 0, 1);
    row("create-large", 0, 1);
    row("create-with-password", 0, 1);
    row("create-from-nothing", 1, 0);
    row("create-again", 2, 0, {"System ERROR:\nE_NOTIMPL : Not implemented"});
    row("create-on-full-disk", 2, 0, {"System ERROR:\nerrno=28 : No space left on device"});
    row("extract", 0, 1);
    row("extract-large", 0, 1);
    row("extract-without-password", 255, 0);
    row("extract-damaged", 2, 0, {"ERROR: CRC Failed : source/data/random.pak"});
    row("extract-truncated-volume", 2, 0, {truncated.constData()});
    row("extract-missing-volume", 2, 0, {incomplete.constData()});
    row("extract-missing-archive", 2, 0,
        {"ERROR: errno=2 : No such file or directory\nmissing.7z",
            "System ERROR:\nerrno=2 : No such file or directory"});
    row("extract-to-full-disk", 2, 0, {"System ERROR:\nerrno=28 : No space left on device"});
}

void tst_RecordedOutput::parsersFindSuccessAndErrors()
{
    const Recording recording = read(QString::fromLatin1(QTest::currentDataTag()));
    QTEST(recording.exitCode, "exitCode");
    int successes = 0;
    QStringList errors;
    for (const QByteArray &chunk : recording.chunks) {
        const QString text = QString::fromUtf8(chunk);
        successes += isEverythingIsOk(text) ? 1 : 0;
        if (!checkErrors(text).isEmpty())
            errors.append(strip(checkErrors(text)));
    }
    QTEST(successes, "successes");
    QTEST(errors, "errors");
}

void tst_RecordedOutput::percentageComesBeforeItsFile()
{
    QStringList marked;
    for (const QByteArray &chunk : read(QStringLiteral("create-large")).chunks) {
        const QStringList parts = getPercents(strip(QString::fromUtf8(chunk)));
        if (parts.size() > 1)
            marked.append(parts.first().trimmed() + QLatin1Char('|') + parts.last());
    }
    QCOMPARE(marked.first(), QStringLiteral("1|+ large/film.bin"));
    QCOMPARE(marked.at(1), QStringLiteral("6|+ large/film.bin"));
    QCOMPARE(marked.last(), QStringLiteral("95|+ large/film.bin"));
    QCOMPARE(marked.size(), 26);
}

void tst_RecordedOutput::successLineIsAChunkOfItsOwn_data()
{
    QTest::addColumn<bool>("summaryFollows");
    QTest::newRow("create") << false;
    QTest::newRow("create-large") << false;
    QTest::newRow("extract") << true;
    QTest::newRow("extract-large") << true;
}

void tst_RecordedOutput::successLineIsAChunkOfItsOwn()
{
    QFETCH(const bool, summaryFollows);
    const QByteArrayList chunks = read(QString::fromLatin1(QTest::currentDataTag())).chunks;
    const int success = chunks.indexOf("Everything is Ok\n");
    QCOMPARE(chunks.size() - 1 - success, summaryFollows ? 1 : 0);
    QVERIFY(success > 0);
    QCOMPARE(chunks.last().contains("\nSize: "), summaryFollows);
}

void tst_RecordedOutput::driversTellTheOutcome_data()
{
    QTest::addColumn<QByteArrayList>("events");
    const auto row = [](const char *name, const QByteArrayList &events) {
        const QByteArrayList starts = QByteArray(name).startsWith("create")
            ? QByteArrayList{"started"}
            : QByteArrayList{"started", "started"};
        QTest::newRow(name) << starts + events + QByteArrayList{"child ended"};
    };
    const auto twice = [](const char *event) { return QByteArrayList{event, event}; };

    row("create", {"finished"});
    row("create-large", {"finished"});
    row("create-with-password", {"finished"});
    row("create-from-nothing", {});
    row("create-again", twice("error [\n\nSystem ERROR:\nE_NOTIMPL : Not implemented\n]"));
    row("create-on-full-disk",
        twice("error [\n\nSystem ERROR:\nerrno=28 : No space left on device\n]"));
    row("extract", {"finished"});
    row("extract-large", {"finished"});
    row("extract-without-password", {});
    row("extract-damaged", twice("error [ERROR: CRC FAILED : SOURCE/DATA/RANDOM.PAK]"));
    row("extract-truncated-volume",
        twice("error [ERROR: TRUNCATED/BUILD.7Z.001\nBUILD.7Z\n"
              "OPEN ERROR: CANNOT OPEN THE FILE AS [7Z] ARCHIVE\n\nERRORS:\n"
              "UNEXPECTED END OF ARCHIVE]"));
    row("extract-missing-volume",
        twice("error [ERROR: INCOMPLETE/BUILD.7Z.001\nBUILD.7Z\n"
              "OPEN ERROR: CANNOT OPEN THE FILE AS [7Z] ARCHIVE\n\nERRORS:\n"
              "UNEXPECTED END OF ARCHIVE]"));
    const QByteArray missing = "error [ERROR: ERRNO=2 : NO SUCH FILE OR DIRECTORY\nMISSING.7Z]";
    const QByteArray both = missing + "[SYSTEM ERROR:\nERRNO=2 : NO SUCH FILE OR DIRECTORY]";
    row("extract-missing-archive", {missing, both, both});
    row("extract-to-full-disk", twice("error [SYSTEM ERROR:\nERRNO=28 : NO SPACE LEFT ON DEVICE]"));
}

void tst_RecordedOutput::driversTellTheOutcome()
{
    QVERIFY(replay(QString::fromLatin1(QTest::currentDataTag())));
    QTEST(eventsThat(false), "events");
}

void tst_RecordedOutput::driversTellThePercentages_data()
{
    QTest::addColumn<int>("zeros"); // lines without a percentage, and "  0%"
    QTest::addColumn<QList<int>>("percentages");
    QTest::newRow("create") << 14 << QList<int>{};
    QTest::newRow("create-large") << 14
                                  << QList<int>{1, 6, 11, 16, 21, 26, 30, 35, 40, 43, 45, 49, 52,
                                         55, 58, 61, 64, 67, 70, 73, 75, 78, 81, 86, 91, 95};
    QTest::newRow("extract") << 30 << QList<int>{};
    QTest::newRow("extract-large") << 28 << QList<int>{100};
    QTest::newRow("extract-damaged") << 28 << QList<int>{100};
}

void tst_RecordedOutput::driversTellThePercentages()
{
    QFETCH(const int, zeros);
    QFETCH(const QList<int>, percentages);
    QVERIFY(replay(QString::fromLatin1(QTest::currentDataTag())));
    QByteArrayList expected;
    for (const int percents : percentages)
        expected.append("progress " + QByteArray::number(percents));
    QByteArrayList told = eventsThat(true);
    QCOMPARE(told.removeAll("progress 0"), zeros);
    QCOMPARE(told, expected);
}

void tst_RecordedOutput::fileNamedLikeAnErrorMakesAGoodRunTellErrors()
{
    const QString name = QStringLiteral("create-file-named-like-an-error");
    QCOMPARE(read(name).exitCode, 0);
    QVERIFY(replay(name));
    const QByteArrayList outcome = eventsThat(false);
    QCOMPARE(outcome.at(0), QByteArray("started"));
    QVERIFY2(outcome.at(1).endsWith("  7% + named/ERROR: x]"), outcome.at(1).constData());
    QCOMPARE(outcome.mid(outcome.size() - 2), QByteArrayList({"finished", "child ended"}));
}

QTEST_GUILESS_MAIN(tst_RecordedOutput)
#include "tst_recordedoutput.moc"
