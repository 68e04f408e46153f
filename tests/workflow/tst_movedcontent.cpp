// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "movedcontent.h"
#include "testtree.h"

#include <Pellox/publishcontroller.h>

#include <QFile>
#include <QtTest>

#include <algorithm>
#include <optional>

using Pellox::FileError;
using Pellox::FoundContent;
using Pellox::MovedContent;
using Pellox::PublishController;

namespace {

constexpr int Block = 2048;
constexpr int MiB = 1 << 20;

} // namespace

/// Where content of a new file stands in an old build.
class tst_MovedContent : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void wholeFiles_data();
    void wholeFiles();
    void partsOfFiles_data();
    void partsOfFiles();
    void mostOfItIsNamed();
    void estimates_data();
    void estimates();
    void zerosAreNotCountedForTheirNeighbours();
    void reportsHowFarItIs();
    void emptyBuilds();
    void filesThatCannotBeRead();
    void signaturesThatWillNotDo_data();
    void signaturesThatWillNotDo();

private:
    void write(const QString &oldFile, const QByteArray &content) const
    {
        m_tree->write("old/"_s + oldFile, content);
    }
    void sign() const;
    std::optional<FoundContent> find(const QByteArray &content, FileError *error,
        qint64 mostBlocks = MovedContent::MostBlocks, const QStringList &touched = {}) const;
    FoundContent found(const QByteArray &content, qint64 mostBlocks = MovedContent::MostBlocks,
        const QStringList &touched = {}) const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
};

void tst_MovedContent::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_tree->makeFolder("old"_s);
}

void tst_MovedContent::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

void tst_MovedContent::sign() const
{
    PublishController publisher;
    if (!publisher.createSignatures(m_tree->path("old"_s), m_tree->path("signatures"_s)))
        qFatal("cannot sign");
}

std::optional<FoundContent> tst_MovedContent::find(const QByteArray &content, FileError *error,
    qint64 mostBlocks, const QStringList &touched) const
{
    m_tree->write("new/file"_s, content);
    MovedContent old(m_tree->path("signatures"_s), mostBlocks);
    if (!old.read(touched, error))
        return {};
    return old.find(
        m_tree->path("new/file"_s), "/file"_s, [](double) {}, error);
}

FoundContent tst_MovedContent::found(
    const QByteArray &content, qint64 mostBlocks, const QStringList &touched) const
{
    FileError error;
    const auto found = find(content, &error, mostBlocks, touched);
    if (!found)
        qFatal("%s", qPrintable(error.text()));
    return *found;
}

void tst_MovedContent::wholeFiles_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QStringList>("touched");
    QTest::addColumn<QString>("path");
    for (const int size : {1, 100, Block - 1, Block, MiB, MiB + 1})
        QTest::addRow("%d bytes", size) << size << QStringList() << "/a/first"_s;
    QTest::newRow("one that stays") << 100 << QStringList{"/a/first"_s} << "/b"_s;
    QTest::newRow("none that stays") << 100 << QStringList{"/a/first"_s, "/b"_s} << "/a/first"_s;
}

/// By their SHA-512, so that blocks do not matter; with the name that a seal would give.
void tst_MovedContent::wholeFiles()
{
    QFETCH(int, size);
    QFETCH(QStringList, touched);
    QFETCH(QString, path);
    const QByteArray content = randomBytes(size, 1);
    write("b"_s, content);
    write("a/first"_s, content);
    write("other"_s, content + "x");
    sign();
    const FoundContent found = this->found(content, 1, touched);
    QCOMPARE(found.path, path);
    QCOMPARE(found.bytes, qint64(size));
    QVERIFY(found.isWhole && !found.isEstimated);
}

void tst_MovedContent::partsOfFiles_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<qint64>("bytes");
    const QByteArray old = randomBytes(3 * MiB + 100, 1);
    const QByteArray strange = randomBytes(MiB, 2);
    const auto row = [](const char *name, const QByteArray &content, qint64 bytes) {
        QTest::newRow(name) << content << bytes;
    };
    row("nothing", strange, 0);
    row("shorter than a block", old.left(Block - 1), 0);
    row("one block", strange.left(777) + old.mid(Block, Block) + strange.left(10), Block);
    row("the end of the file", strange.left(777) + old.right(Block + 100), Block + 100);
    row("one more byte in front", "x" + old, old.size());
    row("one less", old.mid(1), old.size() - Block);
    row("one more behind", old + "x", 3 * MiB);
    row("cut in two", old.mid(MiB) + old.left(MiB), old.size() - 100);
    row("half", strange.left(MiB - 5) + old.mid(MiB, MiB) + strange.left(5), MiB);
    row("twice", old.left(MiB) + old.left(MiB), 2 * MiB);
}

void tst_MovedContent::partsOfFiles()
{
    QFETCH(QByteArray, content);
    QFETCH(qint64, bytes);
    write("old"_s, randomBytes(3 * MiB + 100, 1));
    write("other"_s, randomBytes(5000, 3));
    sign();
    const FoundContent found = this->found(content);
    QCOMPARE(found.bytes, bytes);
    QCOMPARE(found.path, bytes > 0 ? "/old"_s : QString());
    QVERIFY(!found.isWhole && !found.isEstimated);
}

void tst_MovedContent::mostOfItIsNamed()
{
    const QByteArray one = randomBytes(20 * Block, 1);
    const QByteArray two = randomBytes(20 * Block, 2);
    write("one"_s, one);
    write("two"_s, two);
    sign();
    const FoundContent found = this->found("x" + one.left(8 * Block) + two.left(9 * Block));
    QCOMPARE(found.path, "/two"_s);
    QCOMPARE(found.bytes, qint64(17 * Block));
    QCOMPARE(this->found(two.left(9 * Block) + "x" + one.left(9 * Block)).path, "/one"_s);
}

void tst_MovedContent::estimates_data()
{
    QTest::addColumn<qint64>("mostBlocks");
    for (const int most : {1024, 1023, 600, 512, 300, 100})
        QTest::addRow("%d blocks", most) << qint64(most);
}

/// Of 2 MiB in several files and one that is half of it: known to within one step for each file.
void tst_MovedContent::estimates()
{
    QFETCH(qint64, mostBlocks);
    const QByteArray all = randomBytes(2 * MiB, 1);
    for (int i = 0; i < 4; ++i)
        write(QString::number(i), all.mid(i * MiB / 2, MiB / 2));
    sign();
    const qint64 every = (1024 + mostBlocks - 1) / mostBlocks;
    const FoundContent found = this->found(
        randomBytes(MiB - 100, 2) + all.mid(MiB / 2, MiB) + randomBytes(100, 3), mostBlocks);
    QCOMPARE(found.isEstimated, every > 1);
    QVERIFY(!found.isWhole);
    QVERIFY2(qAbs(found.bytes - MiB) <= (every - 1) * 2 * Block,
        qPrintable(QString::number(found.bytes)));
    QCOMPARE(this->found(randomBytes(MiB, 4), mostBlocks).bytes, qint64(0));
    QVERIFY(this->found("x" + all, mostBlocks).bytes <= all.size() + 1);
}

/// A block that is met again and again stands for itself alone.
void tst_MovedContent::zerosAreNotCountedForTheirNeighbours()
{
    const QByteArray zeros(MiB, '\0');
    write("zeros"_s, zeros);
    write("more"_s, randomBytes(MiB, 1));
    sign();
    const FoundContent found = this->found(zeros.left(MiB / 2) + randomBytes(MiB, 2), 256);
    QVERIFY(found.isEstimated);
    QVERIFY2(found.bytes <= MiB / 2 + 4 * Block, qPrintable(QString::number(found.bytes)));
    QVERIFY(found.bytes >= MiB / 2 - Block);
}

void tst_MovedContent::reportsHowFarItIs()
{
    write("old"_s, randomBytes(MiB, 1));
    sign();
    m_tree->write("new/file"_s, randomBytes(3 * MiB, 2));
    MovedContent old(m_tree->path("signatures"_s));
    FileError error;
    QVERIFY(old.read({}, &error));
    QVector<double> shares;
    QVERIFY(old.find(
        m_tree->path("new/file"_s), "/file"_s, [&](double share) { shares.append(share); },
        &error));
    QVERIFY(shares.size() >= 6);
    QVERIFY(std::is_sorted(shares.cbegin(), shares.cend()));
    QVERIFY(shares.first() > 0);
    QCOMPARE(shares.last(), 1.0);
}

void tst_MovedContent::emptyBuilds()
{
    write("empty"_s, "");
    sign();
    QCOMPARE(found(randomBytes(3 * Block, 1)).bytes, qint64(0));
    QCOMPARE(found("").path, QString());
    m_tree->remove("old/empty"_s);
    sign();
    QCOMPARE(found(randomBytes(3 * Block, 1)).bytes, qint64(0));
}

void tst_MovedContent::filesThatCannotBeRead()
{
    write("old"_s, "old");
    sign();
    MovedContent old(m_tree->path("signatures"_s));
    FileError error;
    QVERIFY(old.read({}, &error));
    QVERIFY(!old.find(
        m_tree->path("none"_s), "/none"_s, [](double) {}, &error));
    QCOMPARE(error.path, m_tree->path("none"_s));
    QCOMPARE(error.reason, "cannot be opened: No such file or directory"_s);
}

void tst_MovedContent::signaturesThatWillNotDo_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("content"); // none: it goes
    QTest::newRow("no manifest") << "signatures.json"_s << QByteArray();
    QTest::newRow("damaged manifest") << "signatures.json"_s << QByteArray("{");
    QTest::newRow("no signature") << "data/old"_s << QByteArray();
    QTest::newRow("damaged signature") << "data/old"_s << QByteArray("rs");
    QTest::newRow("another file's form") << "data/old"_s << QByteArray(48, 'x');
}

void tst_MovedContent::signaturesThatWillNotDo()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, content);
    write("data/old"_s, randomBytes(10000, 1));
    sign();
    const QString path = "signatures/"_s + file;
    m_tree->remove(path);
    if (!content.isEmpty())
        m_tree->write(path, content);
    FileError error;
    QVERIFY(!find(randomBytes(5000, 2), &error));
    QCOMPARE(error.path, m_tree->path(path));
    QVERIFY(!error.reason.isEmpty());
}

QTEST_GUILESS_MAIN(tst_MovedContent)

#include "tst_movedcontent.moc"
