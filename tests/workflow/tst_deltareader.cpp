// SPDX-License-Identifier: MIT
#include "deltaformat.h"
#include "deltareader.h"
#include "literals.h"
#include "testtree.h"

#include <Pellox/patchhelp.h>

#include <QFile>
#include <QRandomGenerator>
#include <QtEndian>
#include <QTest>

#include <algorithm>
#include <limits>
#include <utility>

using Pellox::DeltaCommand;
using Pellox::DeltaReader;
namespace DeltaFormat = Pellox::DeltaFormat;

namespace {

constexpr qint64 Largest = std::numeric_limits<qint64>::max();

QByteArray bigEndian(quint64 number, int width)
{
    QByteArray bytes(8, Qt::Uninitialized);
    qToBigEndian(number, bytes.data());
    return bytes.right(width);
}

QByteArray magic()
{
    return bigEndian(DeltaFormat::Magic, DeltaFormat::MagicSize);
}

QByteArray end()
{
    return QByteArray(1, char(DeltaFormat::End));
}

QByteArray opcode(int number)
{
    return QByteArray(1, static_cast<char>(number));
}

QByteArray copy(quint64 place, quint64 length, int placeWidthIndex = 3, int lengthWidthIndex = 3)
{
    return opcode(DeltaFormat::copyOpcode(placeWidthIndex, lengthWidthIndex))
        + bigEndian(place, DeltaFormat::widthOf(placeWidthIndex))
        + bigEndian(length, DeltaFormat::widthOf(lengthWidthIndex));
}

/// The head of a literal that has a field for its length.
QByteArray literalHead(quint64 length, int widthIndex)
{
    return opcode(DeltaFormat::literalOpcode(widthIndex))
        + bigEndian(length, DeltaFormat::widthOf(widthIndex));
}

struct Walk
{
    QVector<DeltaCommand> commands;
    QString error;
};

/// A delta in memory. Counts what is read of it, and cannot be read from a position on.
class BytesContent : public Pellox::Content
{
public:
    explicit BytesContent(QByteArray bytes)
        : m_bytes(std::move(bytes))
    {
        setPath("delta"_s);
    }

    qint64 size() const override { return m_bytes.size(); }
    bool isUnchanged() override { return true; }

    bool readAt(qint64 position, uchar *data, qint64 size) override
    {
        ++reads;
        bytesRead += size;
        if (position + size > badFrom)
            return fail("cannot be read: bad sector"_s);
        std::copy_n(m_bytes.cbegin() + position, size, data);
        return true;
    }

    qint64 badFrom = Largest;
    qint64 bytesRead = 0;
    int reads = 0;

private:
    const QByteArray m_bytes;
};

Walk walk(Pellox::Content &delta)
{
    Walk result;
    Pellox::PagedView pages(delta, 1);
    DeltaReader reader(pages);
    while (const auto command = reader.next())
        result.commands.append(*command);
    if (reader.next())
        return {{}, QStringLiteral("a command behind the end")};
    result.error = reader.error();
    return result;
}

Walk walk(const QByteArray &delta)
{
    BytesContent content(delta);
    return walk(content);
}

/// The new file by the commands as the reader tells them. Nothing when a copy leaves @p oldFile.
std::optional<QByteArray> made(
    const Walk &delta, const QByteArray &bytes, const QByteArray &oldFile)
{
    QByteArray newFile;
    for (const DeltaCommand &command : delta.commands) {
        const QByteArray &source = command.isCopy ? oldFile : bytes;
        if (command.place > source.size() || command.length > source.size() - command.place)
            return {};
        newFile += source.mid(int(command.place), int(command.length));
    }
    return newFile;
}

/// Content with pieces of @p content moved, repeated, cut out and replaced.
QByteArray edited(const QByteArray &content, quint32 seed)
{
    QRandomGenerator random(seed);
    QByteArray result;
    for (int piece = 0; piece < 8; ++piece) {
        const int at = random.bounded(content.size() + 1);
        result += content.mid(at, random.bounded(20000));
        if (random.bounded(2) == 1)
            result
                += randomBytes(random.bounded(1 << random.bounded(1, 14)), seed + quint32(piece));
    }
    return result;
}

} // namespace

/// Holds the reader against librsync: it walks what librsync takes, and nothing else.
class tst_DeltaReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void emptyDeltaHasNoCommand();
    void literalForms_data();
    void literalForms();
    void everyShortLiteral();
    void copyForms_data();
    void copyForms();
    void constantsOfTheFormat();
    void narrowestWidths_data();
    void narrowestWidths();

    void brokenDeltas_data();
    void brokenDeltas();
    void everyUnknownOpcode();
    void cutOffAnywhere();
    void readErrors_data();
    void readErrors();
    void commandsAcrossPages();
    void largestPlace();
    void sums();
    void sumsThatNoFileCanHave();

    void literalsAreNotRead();
    void smallCommandsAreReadTogether();
    void literalBeyond32Bits();

    void realDeltas_data();
    void realDeltas();
    void agreesWithLibrsyncOnMutations_data();
    void agreesWithLibrsyncOnMutations();
};

void tst_DeltaReader::emptyDeltaHasNoCommand()
{
    const Walk result = walk(magic() + end());
    QCOMPARE(result.error, QString());
    QVERIFY(result.commands.isEmpty());
}

void tst_DeltaReader::literalForms_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<int>("length");

    QTest::newRow("opcode 0x01") << QByteArray("\x01") << 1;
    QTest::newRow("opcode 0x40") << QByteArray("\x40") << 64;
    QTest::newRow("1 byte, 1") << QByteArray::fromHex("4101") << 1;
    QTest::newRow("1 byte, 255") << QByteArray::fromHex("41ff") << 255;
    QTest::newRow("2 bytes, 65") << QByteArray::fromHex("420041") << 65;
    QTest::newRow("2 bytes, 65535") << QByteArray::fromHex("42ffff") << 65535;
    QTest::newRow("4 bytes, 65536") << QByteArray::fromHex("4300010000") << 65536;
    QTest::newRow("8 bytes, 70000") << QByteArray::fromHex("440000000000011170") << 70000;
}

void tst_DeltaReader::literalForms()
{
    QFETCH(QByteArray, head);
    QFETCH(int, length);
    const QByteArray before = magic() + copy(7, 9);
    const Walk result = walk(before + head + randomBytes(length, 1) + copy(1, 2) + end());
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.size(), 3);
    const DeltaCommand literal = result.commands.at(1);
    QVERIFY(!literal.isCopy);
    QCOMPARE(literal.place, qint64(before.size() + head.size()));
    QCOMPARE(literal.length, qint64(length));
    QVERIFY(result.commands.at(2).isCopy);
}

void tst_DeltaReader::everyShortLiteral()
{
    QByteArray delta = magic();
    for (int length = DeltaFormat::FirstShortLiteral; length <= DeltaFormat::LastShortLiteral;
         ++length)
        delta += opcode(length) + QByteArray(length, 'x');
    const Walk result = walk(delta + end());
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.size(), 64);
    for (int i = 0; i < 64; ++i)
        QCOMPARE(result.commands.at(i).length, qint64(i + 1));
}

void tst_DeltaReader::copyForms_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<qint64>("place");
    QTest::addColumn<qint64>("length");

    const char *const opcodes[] = {"45", "46", "47", "48", "49", "4a", "4b", "4c", "4d", "4e", "4f",
        "50", "51", "52", "53", "54"};
    const char *const places[] = {"fe", "fedc", "80000001", "0100000000000002"};
    const char *const lengths[] = {"80", "8001", "ffffffff", "0000000100000000"};
    const qint64 placeValues[] = {0xfe, 0xfedc, 0x80000001, 0x0100000000000002};
    const qint64 lengthValues[] = {0x80, 0x8001, 0xffffffff, 0x100000000};
    for (int i = 0; i < 16; ++i) {
        QTest::newRow(opcodes[i]) << QByteArray::fromHex(
            QByteArray(opcodes[i]) + places[i / 4] + lengths[i % 4])
                                  << placeValues[i / 4] << lengthValues[i % 4];
    }
}

void tst_DeltaReader::copyForms()
{
    QFETCH(QByteArray, command);
    const Walk result = walk(magic() + command + "\x01x" + end());
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.size(), 2);
    QVERIFY(result.commands.at(0).isCopy);
    QTEST(result.commands.at(0).place, "place");
    QTEST(result.commands.at(0).length, "length");
    QVERIFY(!result.commands.at(1).isCopy);
}

void tst_DeltaReader::constantsOfTheFormat()
{
    QCOMPARE(magic(), QByteArray::fromHex("72730236"));
    QCOMPARE(DeltaFormat::literalOpcode(0), quint8(0x41));
    QCOMPARE(DeltaFormat::literalOpcode(3), quint8(0x44));
    QCOMPARE(DeltaFormat::copyOpcode(0, 0), quint8(0x45));
    QCOMPARE(DeltaFormat::copyOpcode(0, 1), quint8(0x46));
    QCOMPARE(DeltaFormat::copyOpcode(1, 0), quint8(0x49));
    QCOMPARE(DeltaFormat::copyOpcode(3, 3), quint8(0x54));
    QCOMPARE(copy(0, 1).size(), DeltaFormat::LongestHead);
}

void tst_DeltaReader::narrowestWidths_data()
{
    QTest::addColumn<quint64>("value");
    QTest::addColumn<int>("width");

    QTest::newRow("0") << quint64(0) << 1;
    QTest::newRow("255") << quint64(255) << 1;
    QTest::newRow("256") << quint64(256) << 2;
    QTest::newRow("65535") << quint64(65535) << 2;
    QTest::newRow("65536") << quint64(65536) << 4;
    QTest::newRow("32 bits") << quint64(0xffffffff) << 4;
    QTest::newRow("33 bits") << quint64(0x100000000) << 8;
    QTest::newRow("64 bits") << ~quint64(0) << 8;
}

void tst_DeltaReader::narrowestWidths()
{
    QFETCH(quint64, value);
    QTEST(DeltaFormat::widthOf(DeltaFormat::narrowestFor(value)), "width");
}

void tst_DeltaReader::brokenDeltas_data()
{
    QTest::addColumn<QByteArray>("delta");
    QTest::addColumn<QString>("error");

    const QString noDelta = QStringLiteral("is no delta");
    const QString cutOff = QStringLiteral("is no whole delta: it is cut off");
    const auto atByte = [](int position, const char *problem) {
        return QStringLiteral("is no whole delta: the command at byte %1 %2")
            .arg(position)
            .arg(QLatin1String(problem));
    };
    const QByteArray filler = copy(0, 1, 0, 0); // three bytes

    QTest::newRow("empty file") << QByteArray() << noDelta;
    QTest::newRow("half a magic number") << magic().left(2) << noDelta;
    QTest::newRow("a signature") << QByteArray::fromHex("7273013700000800") << noDelta;
    QTest::newRow("magic number in the other order")
        << QByteArray::fromHex("36027372") + end() << noDelta;
    QTest::newRow("nothing behind the magic number") << magic() << cutOff;
    QTest::newRow("no end") << magic() + filler << cutOff;
    QTest::newRow("bytes behind the end")
        << magic() + end() + "x" << QStringLiteral("is no whole delta: it goes on behind its end");
    QTest::newRow("two ends") << magic() + end() + end()
                              << QStringLiteral("is no whole delta: it goes on behind its end");
    QTest::newRow("first unknown opcode")
        << magic() + filler + "\x55" + end() << atByte(7, "is unknown");
    QTest::newRow("last unknown opcode") << magic() + "\xff" + end() << atByte(4, "is unknown");
    for (int width = 0; width < DeltaFormat::WidthCount; ++width) {
        const QByteArray name = QByteArray::number(DeltaFormat::widthOf(width)) + " bytes";
        QTest::newRow("literal without bytes, " + name)
            << magic() + literalHead(0, width) + end() << atByte(4, "has no length");
        QTest::newRow("copy without bytes, " + name)
            << magic() + copy(0, 0, 0, width) + end() << atByte(4, "has no length");
        QTest::newRow("literal one byte longer than the file, " + name)
            << magic() + literalHead(4, width) + "xyz"
            << atByte(4, "holds more bytes than the file has left");
        QTest::newRow("literal up to the end of the file, " + name)
            << magic() + literalHead(3, width) + "xyz" << cutOff;
        QTest::newRow("longest literal, " + name) << magic() + literalHead(~quint64(0), width)
                + "xyz" << atByte(4, "holds more bytes than the file has left");
    }
    QTest::newRow("longest literal of a signed number")
        << magic() + literalHead(quint64(Largest), 3) + "xyz"
        << atByte(4, "holds more bytes than the file has left");

    const char *const nowhere = "copies from where no file can reach";
    QTest::newRow("copy from a negative place")
        << magic() + copy(~quint64(0), 1) + end() << atByte(4, nowhere);
    QTest::newRow("copy of a negative length")
        << magic() + copy(0, ~quint64(0)) + end() << atByte(4, nowhere);
    QTest::newRow("copy whose end does not fit")
        << magic() + copy(quint64(Largest), 1) + end() << atByte(4, nowhere);
    QTest::newRow("copy whose end wraps to a small number")
        << magic() + copy(~quint64(0), 2) + end() << atByte(4, nowhere);
}

void tst_DeltaReader::brokenDeltas()
{
    QFETCH(QByteArray, delta);
    const Walk result = walk(delta);
    QTEST(result.error, "error");
}

void tst_DeltaReader::everyUnknownOpcode()
{
    for (int number = DeltaFormat::LastCopy + 1; number <= 0xff; ++number) {
        const Walk result = walk(magic() + opcode(number) + QByteArray(20, '\0'));
        QVERIFY2(
            result.error.endsWith(QLatin1String("byte 4 is unknown")), qPrintable(result.error));
    }
}

void tst_DeltaReader::cutOffAnywhere()
{
    const QByteArray whole = magic() + literalHead(3, 2) + "abc" + copy(5, 6, 1, 2) + "\x02xy"
        + copy(1, 1, 3, 0) + end();
    QCOMPARE(walk(whole).error, QString());
    for (int size = 0; size < whole.size(); ++size) {
        const Walk result = walk(whole.left(size));
        QVERIFY2(result.error.startsWith(QLatin1String("is no ")), qPrintable(result.error));
    }
}

void tst_DeltaReader::readErrors_data()
{
    QTest::addColumn<qint64>("badFrom");
    QTest::newRow("at the start") << qint64(0);
    QTest::newRow("behind a literal") << qint64(100000);
}

void tst_DeltaReader::readErrors()
{
    QFETCH(qint64, badFrom);
    BytesContent delta(magic() + literalHead(100000, 2) + QByteArray(100000, 'x') + end());
    delta.badFrom = badFrom;
    QCOMPARE(walk(delta).error, "cannot be read: bad sector"_s);
}

/// A command may begin on one page and end on the next.
void tst_DeltaReader::commandsAcrossPages()
{
    constexpr int PageSize = 1 << 14;
    for (int before = PageSize - 40; before <= PageSize; ++before) {
        const QByteArray literal = literalHead(quint64(before), 1) + QByteArray(before, 'x');
        const Walk result = walk(magic() + literal + copy(quint64(1) << 40, 258) + end());
        QCOMPARE(result.error, QString());
        QCOMPARE(result.commands.size(), 2);
        QCOMPARE(result.commands.at(1).place, qint64(1) << 40);
        QCOMPARE(result.commands.at(1).length, qint64(258));
    }
}

void tst_DeltaReader::largestPlace()
{
    const Walk result = walk(magic() + copy(quint64(Largest) - 1, 1) + end());
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.at(0).place, Largest - 1);
}

void tst_DeltaReader::sums()
{
    BytesContent delta(
        magic() + copy(5, 1000) + "\x03xyz" + copy(0, 24) + literalHead(2, 1) + "ab" + end());
    QString error;
    const auto sums = Pellox::sumsOfDelta(delta, &error);
    QVERIFY2(sums, qPrintable(error));
    QCOMPARE(sums->copiedBytes, qint64(1024));
    QCOMPARE(sums->literalBytes, qint64(5));
    QCOMPARE(sums->commands, qint64(4));
}

void tst_DeltaReader::sumsThatNoFileCanHave()
{
    const quint64 half = quint64(1) << 62;
    QString error;
    BytesContent fits(magic() + copy(0, half) + copy(0, half - 2) + "\x01x" + end());
    const auto sums = Pellox::sumsOfDelta(fits, &error);
    QVERIFY2(sums, qPrintable(error));
    QCOMPARE(sums->copiedBytes + sums->literalBytes, Largest);

    BytesContent oneTooMany(magic() + copy(0, half) + copy(0, half - 1) + "\x01x" + end());
    QVERIFY(!Pellox::sumsOfDelta(oneTooMany, &error));
    QCOMPARE(error, QStringLiteral("is no delta: it makes more than a file can hold"));
}

void tst_DeltaReader::literalsAreNotRead()
{
    constexpr int Literals = 20;
    constexpr int Length = 1 << 20;
    QByteArray delta = magic();
    for (int i = 0; i < Literals; ++i)
        delta += literalHead(Length, 2) + QByteArray(Length, 'x');
    BytesContent counted(delta + end());
    const Walk result = walk(counted);
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.size(), Literals);
    QVERIFY2(counted.bytesRead <= (Literals + 1) * (1 << 14),
        qPrintable(QString::number(counted.bytesRead)));
}

void tst_DeltaReader::smallCommandsAreReadTogether()
{
    constexpr int Copies = 100000;
    QByteArray delta = magic();
    for (int i = 0; i < Copies; ++i)
        delta += copy(quint64(i), 1, 2, 0);
    BytesContent counted(delta + end());
    const Walk result = walk(counted);
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.size(), Copies);
    QVERIFY2(counted.reads <= counted.size() / 16000, qPrintable(QString::number(counted.reads)));
}

void tst_DeltaReader::literalBeyond32Bits()
{
    constexpr qint64 Length = (qint64(1) << 33) + 5;
    const TestTree tree;
    const QByteArray head = magic() + literalHead(Length, 3);
    tree.write("delta"_s, head);
    // A hole, whose last byte is the end.
    QVERIFY(QFile::resize(tree.path("delta"_s), head.size() + Length + 1));
    Pellox::InputFile delta;
    QVERIFY(delta.open(tree.path("delta"_s)));
    const Walk result = walk(delta);
    QCOMPARE(result.error, QString());
    QCOMPARE(result.commands.size(), 1);
    QCOMPARE(result.commands.at(0).length, Length);
}

void tst_DeltaReader::realDeltas_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 40; ++seed)
        QTest::newRow(QByteArray::number(seed)) << seed;
}

void tst_DeltaReader::realDeltas()
{
    QFETCH(quint32, seed);
    const TestTree tree;
    const QByteArray oldFile = randomBytes(100000, seed);
    const QByteArray newFile = edited(oldFile, seed);
    tree.write(QStringLiteral("old"), oldFile);
    tree.write(QStringLiteral("new"), newFile);
    const QString delta = tree.path(QStringLiteral("delta"));
    QVERIFY(Pellox::createSignature(
        tree.path(QStringLiteral("old")), tree.path(QStringLiteral("sig"))));
    QVERIFY(Pellox::createDelta(
        tree.path(QStringLiteral("sig")), tree.path(QStringLiteral("new")), delta));

    const QByteArray bytes = tree.read(QStringLiteral("delta"));
    const Walk result = walk(bytes);
    QCOMPARE(result.error, QString());
    const auto content = made(result, bytes, oldFile);
    QVERIFY(content);
    QVERIFY(*content == newFile);
}

void tst_DeltaReader::agreesWithLibrsyncOnMutations_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed = 1; seed <= 12; ++seed)
        QTest::newRow(QByteArray::number(seed)) << seed;
}

/// Takes exactly the broken deltas that librsync takes, and finds the same new file in them.
void tst_DeltaReader::agreesWithLibrsyncOnMutations()
{
    QFETCH(quint32, seed);
    const TestTree tree;
    const QByteArray oldFile = randomBytes(9000, seed);
    tree.write(QStringLiteral("old"), oldFile);
    tree.write(QStringLiteral("new"),
        oldFile.mid(2048, 5000) + randomBytes(300, seed) + oldFile.left(4096));
    const auto path = [&](const char *name) { return tree.path(QLatin1String(name)); };
    QVERIFY(Pellox::createSignature(path("old"), path("sig")));
    QVERIFY(Pellox::createDelta(path("sig"), path("new"), path("delta")));
    const QByteArray real = tree.read(QStringLiteral("delta"));

    // The commands, all but the inside of the literals, are where a change matters.
    QVector<int> places;
    int place = 0;
    for (const DeltaCommand &command : walk(real).commands) {
        for (; !command.isCopy && place < command.place; ++place)
            places.append(place);
        if (!command.isCopy)
            place = int(command.place + command.length);
    }
    for (; place < real.size(); ++place)
        places.append(place);

    QRandomGenerator random(seed);
    int taken = 0;
    int refused = 0;
    for (int round = 0; round < 150; ++round) {
        QByteArray delta = real;
        for (int change = 1 + random.bounded(2); change > 0; --change) {
            const int at = qMin(places.at(random.bounded(places.size())), delta.size() - 1);
            switch (random.bounded(4)) {
            case 0:
                delta[at] = static_cast<char>(random.bounded(256));
                break;
            case 1:
                delta[at] = static_cast<char>(delta.at(at) ^ (1 << random.bounded(8)));
                break;
            case 2:
                delta.insert(at, static_cast<char>(random.bounded(0x56)));
                break;
            default:
                delta.truncate(qMax(at, 1));
            }
        }
        Walk result = walk(delta);
        // librsync stops reading at the end of the commands.
        const bool hasMore = result.error.endsWith(QLatin1String("behind its end"));
        const auto content
            = result.error.isEmpty() || hasMore ? made(result, delta, oldFile) : std::nullopt;
        tree.write(QStringLiteral("mutated"), delta);
        const bool patched
            = Pellox::applyPatch(path("old"), path("mutated"), path("result"), 0, nullptr);
        QVERIFY2(patched == content.has_value(),
            qPrintable(QStringLiteral("librsync %1, reader: %2, delta: %3")
                           .arg(QLatin1String(patched ? "takes it" : "refuses it"), result.error,
                               QString::fromLatin1(delta.toHex()))));
        if (patched)
            QVERIFY(tree.read(QStringLiteral("result")) == *content);
        ++(patched ? taken : refused);
    }
    QVERIFY2(taken > 5 && refused > 20,
        qPrintable(QStringLiteral("taken %1, refused %2").arg(taken).arg(refused)));
}

QTEST_APPLESS_MAIN(tst_DeltaReader)
#include "tst_deltareader.moc"
