// SPDX-License-Identifier: MIT
#include "leftovers.h"
#include "logcapture.h"
#include "patience.h"
#include "testtree.h"

#include <Pellox/ArchiveController>
#include <Pellox/Compressor>
#include <Pellox/Decompressor>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include <sys/mount.h>

using Pellox::ArchiveController;

namespace {

/// A file system of 256 KiB at a folder while it lives, where the system lets us.
class SmallDisk
{
public:
    explicit SmallDisk(const QString &folder)
        : m_folder(QFile::encodeName(folder))
        , m_error(::mount("tmpfs", m_folder.constData(), "tmpfs", 0, "size=256k") == 0 ? 0 : errno)
    {
    }
    ~SmallDisk()
    {
        if (m_error == 0 && ::umount2(m_folder.constData(), MNT_DETACH) != 0)
            qWarning("cannot unmount %s: %s", m_folder.constData(), std::strerror(errno));
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    bool isForbidden() const { return m_error == EPERM || m_error == EACCES; }
    bool isThere() const { return m_error == 0; }

private:
    const QByteArray m_folder;
    const int m_error;
};

QByteArray joined(const QStringList &errors)
{
    return errors.join(QLatin1Char('|')).toUtf8();
}

const QString Archive = QStringLiteral("build.7z");

} // namespace

/// Round trips and failures with the installed 7-Zip program.
class tst_Real7zip : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void volumesGoThereAndBack();
    void contentGoesThereAndBack_data();
    void contentGoesThereAndBack();
    void linksStayLinks();
    void hundredMebibytesGoThereAndBackWithProgress();
    void programStillPrintsTheSuccessLine();

    void passwordIsNeededToExtract();
    void passwordWithItsQuotesOpensTheArchive();
    void truncatedVolumeIsAnError_data();
    void truncatedVolumeIsAnError();
    void missingVolumeIsAnError_data();
    void missingVolumeIsAnError();
    void damagedVolumeIsAnError();
    void missingArchiveIsAnError();
    void fileThatIsNoArchiveIsAnError();
    void existingVolumesAreAnError();
    void missingSourceFolderEndsSilently();
    void fullDiskIsAnErrorOfCreate();
    void fullDiskIsAnErrorOfExtract();
    void fileCalledLikeAnErrorMakesAGoodRunCountAsFailed();

private:
    bool create() { return m_controller->createArchive(path("out"), Archive, path("source")); }
    bool extract(const char *volume = "out/build.7z.001")
    {
        return m_controller->extractArchive(path(volume), path("back"), QString());
    }
    void makeFourVolumes();
    QMap<QString, QByteArray> content(const char *folder) const
    {
        return TestTree::snapshot(path(folder));
    }
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

    Leftovers m_leftovers;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<ArchiveController> m_controller;
    QStringList m_createErrors;
    QStringList m_extractErrors;
};

void tst_Real7zip::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tree = std::make_unique<TestTree>();
    m_tree->makeFolder(QStringLiteral("source"));
    m_tree->makeFolder(QStringLiteral("out"));
    m_controller = std::make_unique<ArchiveController>();
    m_createErrors.clear();
    m_extractErrors.clear();
    connect(m_controller.get(), &ArchiveController::createArchiveError,
        [this](const QStringList &errors) { m_createErrors = errors; });
    connect(m_controller.get(), &ArchiveController::extractError,
        [this](const QStringList &errors) { m_extractErrors = errors; });
}

void tst_Real7zip::cleanup()
{
    m_controller.reset();
    m_tree.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

void tst_Real7zip::makeFourVolumes()
{
    m_tree->write(QStringLiteral("source/random.pak"), randomBytes(350000, 1));
    m_controller->setChunkSize(100000);
    QVERIFY2(create(), joined(m_createErrors));
}

void tst_Real7zip::volumesGoThereAndBack()
{
    makeFourVolumes();
    const QMap<QString, QByteArray> volumes = content("out");
    QCOMPARE(volumes.keys(),
        QStringList({QStringLiteral("build.7z.001"), QStringLiteral("build.7z.002"),
            QStringLiteral("build.7z.003"), QStringLiteral("build.7z.004")}));
    QCOMPARE(volumes.value(QStringLiteral("build.7z.001")).size(), 100000);
    QCOMPARE(volumes.value(QStringLiteral("build.7z.002")).size(), 100000);
    QCOMPARE(volumes.value(QStringLiteral("build.7z.003")).size(), 100000);
    const int last = volumes.value(QStringLiteral("build.7z.004")).size();
    QVERIFY2(last >= 50000 && last < 60000, QByteArray::number(last));

    QVERIFY(extract());
    QCOMPARE(content("back"), content("source"));
}

void tst_Real7zip::contentGoesThereAndBack_data()
{
    using Tree = QMap<QString, QByteArray>; // folders end with a separator
    QTest::addColumn<Tree>("tree");
    const auto row = [](const char *name, std::initializer_list<const char *> paths) {
        Tree tree;
        for (const char *path : paths)
            tree.insert(QString::fromUtf8(path), QByteArray());
        for (auto entry = tree.begin(); entry != tree.end(); ++entry) {
            if (!entry.key().endsWith(QLatin1Char('/')) && entry.key() != QLatin1String("zero"))
                entry.value() = "content of " + entry.key().toUtf8();
        }
        QTest::newRow(name) << tree;
    };
    row("a file", {"a"});
    row("a file of 0 bytes", {"zero"});
    row("a file of 0 bytes among others", {"a", "zero"});
    row("folders", {"data/", "data/a", "data/deep/", "data/deep/er/", "data/deep/er/b"});
    row("an empty folder", {"empty/"});
    row("empty folders among others", {"a", "empty/", "data/", "data/empty/"});
    row("hidden files", {".hidden", "data/", "data/.hidden", ".folder/", ".folder/a"});
    row("letters", {"gr\u00FC\u00DFe.txt", "\u65E5\u672C/", "\u65E5\u672C/\u8A9E", "\u042F"});
    row("letters outside of the basic plane", {"\U0001F600"});
    row("blanks and signs", {" a b ", "a=b", "-y", "@list", "a'b", "a\"b", "100% + x", "a*b?"});
}

void tst_Real7zip::contentGoesThereAndBack()
{
    using Tree = QMap<QString, QByteArray>;
    QFETCH(const Tree, tree);
    for (auto entry = tree.begin(); entry != tree.end(); ++entry) {
        if (entry.key().endsWith(QLatin1Char('/')))
            m_tree->makeFolder(QLatin1String("source/") + entry.key());
        else
            m_tree->write(QLatin1String("source/") + entry.key(), entry.value());
    }
    QVERIFY2(create(), joined(m_createErrors));
    QVERIFY2(extract(), joined(m_extractErrors));
    QCOMPARE(content("back"), tree);
}

void tst_Real7zip::linksStayLinks()
{
    m_tree->write(QStringLiteral("source/data/file"), "content");
    m_tree->link(QStringLiteral("source/to file"), QStringLiteral("data/file"));
    m_tree->link(QStringLiteral("source/to folder"), QStringLiteral("data"));
    m_tree->link(QStringLiteral("source/to nowhere"), QStringLiteral("data/gone"));
    QVERIFY2(create(), joined(m_createErrors));
    QVERIFY2(extract(), joined(m_extractErrors));

    const std::filesystem::path back = path("back").toStdString();
    QCOMPARE(std::filesystem::read_symlink(back / "to file").string(), std::string("data/file"));
    QCOMPARE(std::filesystem::read_symlink(back / "to folder").string(), std::string("data"));
    QCOMPARE(std::filesystem::read_symlink(back / "to nowhere").string(), std::string("data/gone"));
    QCOMPARE(m_tree->read(QStringLiteral("back/to file")), QByteArray("content"));
}

void tst_Real7zip::hundredMebibytesGoThereAndBackWithProgress()
{
    constexpr qint64 Size = 100 * 1024 * 1024;
    QFile source(path("source/large"));
    QVERIFY(source.open(QIODevice::WriteOnly));
    QVERIFY(source.resize(Size));
    QVERIFY(source.seek(Size - 3));
    QCOMPARE(source.write("end"), qint64(3));
    source.close();

    QList<double> told;
    const auto tell = [&](double percents) {
        if (percents > 0)
            told.append(percents);
    };
    QVERIFY2(m_controller->createArchive(path("out"), Archive, path("source"), tell),
        joined(m_createErrors));
    QVERIFY(std::is_sorted(told.cbegin(), told.cend()));
    QCOMPARE(told.last(), 100.0);
    QVERIFY(QFileInfo(path("out/build.7z.001")).size() < 1000000);
    QVERIFY2(extract(), joined(m_extractErrors));
    QVERIFY(content("back") == content("source"));
}

void tst_Real7zip::programStillPrintsTheSuccessLine()
{
    m_tree->write(QStringLiteral("source/a"), "content");
    const auto lastLines = [this](const QStringList &arguments) {
        QProcess program;
        program.setWorkingDirectory(m_tree->path());
        program.start(QCoreApplication::applicationDirPath() + QLatin1String("/7zr"), arguments);
        program.closeWriteChannel();
        program.waitForFinished(Patience);
        return program.readAllStandardOutput().split('\n');
    };
    const QByteArrayList created
        = lastLines({QStringLiteral("a"), QStringLiteral("-bsp1"), QStringLiteral("-bso1"),
            QStringLiteral("-v100000b"), QStringLiteral("a.7z"), QStringLiteral("source/*")});
    QCOMPARE(
        created.mid(created.size() - 3), QByteArrayList({"Volumes: 1", "Everything is Ok", ""}));
    const QByteArrayList extracted = lastLines({QStringLiteral("x"), QStringLiteral("-bsp1"),
        QStringLiteral("-bso1"), QStringLiteral("-oback"), QStringLiteral("a.7z.001")});
    QVERIFY2(extracted.join('\n').contains("Everything is Ok\n\nSize: "),
        extracted.join('\n').constData());
}

void tst_Real7zip::passwordIsNeededToExtract()
{
    m_tree->write(QStringLiteral("source/secret"), "secret");
    Compressor compressor;
    QSignalSpy finished(&compressor, &Compressor::finished);
    compressor.setArchiveArchivePath(path("source"));
    compressor.setPassword(QStringLiteral("x"));
    compressor.start(Archive, path("out"));
    QVERIFY(finished.wait(Patience));

    m_controller->setSilentEndIsError(true);
    QVERIFY(!extract("out/build.7z"));
    QCOMPARE(m_extractErrors.size(), 1);
    QVERIFY2(m_extractErrors.first().startsWith(
                 QLatin1String("7-Zip ended with exit code 255 and told neither success nor "
                               "failure. Its last output: ")),
        qPrintable(m_extractErrors.first()));
    QCOMPARE(content("back").value(QStringLiteral("secret")), QByteArray());
}

void tst_Real7zip::passwordWithItsQuotesOpensTheArchive()
{
    m_tree->write(QStringLiteral("source/secret"), "secret");
    Compressor compressor;
    QSignalSpy finished(&compressor, &Compressor::finished);
    compressor.setArchiveArchivePath(path("source"));
    compressor.setPassword(QStringLiteral("x"));
    compressor.start(Archive, path("out"));
    QVERIFY(finished.wait(Patience));

    const auto exitCode = [this](const char *passwordSwitch) {
        QProcess program;
        program.setStandardOutputFile(QProcess::nullDevice());
        program.start(QCoreApplication::applicationDirPath() + QLatin1String("/7zr"),
            {QStringLiteral("t"), QLatin1String(passwordSwitch), path("out/build.7z")});
        program.waitForFinished(Patience);
        program.readAllStandardError();
        return program.exitCode();
    };
    QCOMPARE(exitCode("-p'x'"), 0);
    QCOMPARE(exitCode("-px"), 2);
}

void tst_Real7zip::truncatedVolumeIsAnError_data()
{
    QTest::addColumn<QString>("volume");
    QTest::newRow("in the middle") << QStringLiteral("out/build.7z.002");
    QTest::newRow("the last") << QStringLiteral("out/build.7z.004");
}

void tst_Real7zip::truncatedVolumeIsAnError()
{
    QFETCH(const QString, volume);
    makeFourVolumes();
    QVERIFY(QFile::resize(m_tree->path(volume), 20000));
    QVERIFY(!extract());
    QVERIFY2(joined(m_extractErrors).contains("OPEN ERROR: CANNOT OPEN THE FILE AS [7Z] ARCHIVE"),
        joined(m_extractErrors));
    QVERIFY(content("back").isEmpty());
}

void tst_Real7zip::missingVolumeIsAnError_data()
{
    QTest::addColumn<QString>("volume");
    QTest::newRow("in the middle") << QStringLiteral("out/build.7z.002");
    QTest::newRow("the last") << QStringLiteral("out/build.7z.004");
}

void tst_Real7zip::missingVolumeIsAnError()
{
    QFETCH(const QString, volume);
    makeFourVolumes();
    m_tree->remove(volume);
    QVERIFY(!extract());
    QVERIFY2(joined(m_extractErrors).contains("OPEN ERROR: CANNOT OPEN THE FILE AS [7Z] ARCHIVE"),
        joined(m_extractErrors));
    QVERIFY(content("back").isEmpty());
}

void tst_Real7zip::damagedVolumeIsAnError()
{
    makeFourVolumes();
    QByteArray volume = m_tree->read(QStringLiteral("out/build.7z.002"));
    volume[5000] = static_cast<char>(volume.at(5000) ^ 1);
    m_tree->write(QStringLiteral("out/build.7z.002"), volume);
    QVERIFY(!extract());
    QVERIFY2(joined(m_extractErrors).contains("ERROR: CRC FAILED : RANDOM.PAK"),
        joined(m_extractErrors));
}

void tst_Real7zip::missingArchiveIsAnError()
{
    QVERIFY(!extract());
    QVERIFY2(joined(m_extractErrors).contains("ERROR: ERRNO=2 : "), joined(m_extractErrors));
}

void tst_Real7zip::fileThatIsNoArchiveIsAnError()
{
    m_tree->write(QStringLiteral("out/build.7z.001"), randomBytes(1000, 1));
    QVERIFY(!extract());
    QVERIFY2(joined(m_extractErrors).contains("ERRORS:\nIS NOT ARCHIVE"), joined(m_extractErrors));
}

void tst_Real7zip::existingVolumesAreAnError()
{
    makeFourVolumes();
    const QMap<QString, QByteArray> volumes = content("out");
    QVERIFY(!create());
    QVERIFY2(joined(m_createErrors).contains("System ERROR:"), joined(m_createErrors));
    QCOMPARE(content("out"), volumes);
}

void tst_Real7zip::missingSourceFolderEndsSilently()
{
    m_controller->setSilentEndIsError(true);
    QVERIFY(!m_controller->createArchive(path("out"), Archive, path("missing")));
    QCOMPARE(m_createErrors.size(), 1);
    QVERIFY2(m_createErrors.first().startsWith(
                 QLatin1String("7-Zip ended with exit code 1 and told neither success nor "
                               "failure. Its last output: ")),
        qPrintable(m_createErrors.first()));
    QVERIFY(m_createErrors.first().contains(QLatin1String("Scan WARNINGS: 1")));
}

void tst_Real7zip::fullDiskIsAnErrorOfCreate()
{
    const SmallDisk disk(path("out"));
    if (disk.isForbidden())
        QSKIP("no privilege to mount a small file system (CAP_SYS_ADMIN)");
    QVERIFY(disk.isThere());
    m_tree->write(QStringLiteral("source/random.pak"), randomBytes(350000, 1));
    m_controller->setChunkSize(100000);
    QVERIFY(!create());
    QVERIFY2(joined(m_createErrors).contains("errno=28 : "), joined(m_createErrors));
}

void tst_Real7zip::fullDiskIsAnErrorOfExtract()
{
    makeFourVolumes();
    m_tree->makeFolder(QStringLiteral("back"));
    const SmallDisk disk(path("back"));
    if (disk.isForbidden())
        QSKIP("no privilege to mount a small file system (CAP_SYS_ADMIN)");
    QVERIFY(disk.isThere());
    QVERIFY(!extract());
    QVERIFY2(joined(m_extractErrors).contains("ERRNO=28 : "), joined(m_extractErrors));
}

void tst_Real7zip::fileCalledLikeAnErrorMakesAGoodRunCountAsFailed()
{
    m_tree->write(QStringLiteral("source/ERROR: x"), randomBytes(16000000, 1));
    QVERIFY(!create());
    QVERIFY2(joined(m_createErrors).contains("% + ERROR: x"), joined(m_createErrors));

    auto *compressor = m_controller->findChild<Compressor *>();
    QSignalSpy finished(compressor, &Compressor::finished);
    QVERIFY(finished.wait(Patience));
    QProcess program;
    program.setStandardOutputFile(QProcess::nullDevice());
    program.start(QCoreApplication::applicationDirPath() + QLatin1String("/7zr"),
        {QStringLiteral("t"), path("out/build.7z.001")});
    QVERIFY(program.waitForFinished(Patience));
    QCOMPARE(program.exitCode(), 0);
}

QTEST_GUILESS_MAIN(tst_Real7zip)
#include "tst_real7zip.moc"
