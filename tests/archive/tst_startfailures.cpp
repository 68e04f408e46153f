// SPDX-License-Identifier: MIT
#include "leftovers.h"
#include "logcapture.h"
#include "patience.h"
#include "testtree.h"
#include "texts.h"

#include <Pellox/ArchiveController>
#include <Pellox/Compressor>
#include <Pellox/Decompressor>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

const QStringList Failure{QStringLiteral("Failed to start. Check is 7z exist")};

/// While it lives this process can open nothing more, so no pipe to a child either.
class NoFreeDescriptors
{
public:
    NoFreeDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const int firstFree = open("/dev/null", O_RDONLY);
        close(firstFree);
        const rlimit none{static_cast<rlim_t>(firstFree), m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoFreeDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }
    NoFreeDescriptors(const NoFreeDescriptors &) = delete;
    NoFreeDescriptors &operator=(const NoFreeDescriptors &) = delete;

private:
    rlimit m_before = {};
};

} // namespace

/// 7-Zip programs that cannot be started. This program lies in a folder without one.
class tst_StartFailures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { m_leftovers.begin(); }
    void init();
    void cleanup();

    void compressorTellsItOnce_data() { programs(); }
    void compressorTellsItOnce();
    void compressorWithoutItsWorkingDirectory();
    void compressorTellsAtOnceWhatIsKnownAtOnce();
    void decompressorTellsItOnce_data() { programs(); }
    void decompressorTellsItOnce();
    void decompressorTellsAtOnceWhatIsKnownAtOnce();
    void createArchiveReturnsFalse_data() { programsAndSilence(); }
    void createArchiveReturnsFalse();
    void createArchiveReturnsFalseWhereItIsKnownAtOnce();
    void createArchiveMakesNoFolderWithinAMissingOne();
    void extractArchiveReturnsFalse_data() { programsAndSilence(); }
    void extractArchiveReturnsFalse();
    void extractArchiveReturnsFalseWhereItIsKnownAtOnce();

private:
    void programs();
    void programsAndSilence();
    void removeProgram() const;
    void placeProgram(const QString &kind) const;
    void takeComplaintAboutPipe() const;
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }

    const QString m_program = QCoreApplication::applicationDirPath() + QLatin1String("/7zr");
    Leftovers m_leftovers;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<TestTree> m_tree;
};

void tst_StartFailures::programs()
{
    QTest::addColumn<QString>("kind");
    for (const char *kind :
        {"missing", "a folder", "not executable", "a link to nowhere", "for a missing interpreter"})
        QTest::newRow(kind) << QString::fromLatin1(kind);
}

void tst_StartFailures::programsAndSilence()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("silentEndIsError");
    QTest::newRow("missing") << QStringLiteral("missing") << false;
    QTest::newRow("missing, silence counts") << QStringLiteral("missing") << true;
    QTest::newRow("not executable") << QStringLiteral("not executable") << false;
    QTest::newRow("not executable, silence counts") << QStringLiteral("not executable") << true;
}

void tst_StartFailures::removeProgram() const
{
    const QFileInfo program(m_program);
    if (program.isDir() && !program.isSymLink())
        QVERIFY(QDir(m_program).rmdir(m_program));
    else if (program.exists() || program.isSymLink())
        QVERIFY(QFile::remove(m_program));
}

void tst_StartFailures::placeProgram(const QString &kind) const
{
    if (kind == QLatin1String("missing"))
        return;
    if (kind == QLatin1String("a folder")) {
        QVERIFY(QDir().mkdir(m_program));
        return;
    }
    if (kind == QLatin1String("a link to nowhere")) {
        QVERIFY(QFile::link(path("nowhere"), m_program));
        return;
    }
    QFile file(m_program);
    QVERIFY(file.open(QIODevice::WriteOnly));
    if (kind == QLatin1String("not executable")) {
        QVERIFY(file.write("#!/bin/sh\n") > 0);
        QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner));
    } else {
        QVERIFY(file.write("#!" + path("nowhere").toLocal8Bit() + '\n') > 0);
        QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    }
}

/// Qt's own, which names no category.
void tst_StartFailures::takeComplaintAboutPipe() const
{
    const QStringList complaints = m_log->take(QtCriticalMsg, "");
    QCOMPARE(complaints.size(), 1);
    QVERIFY(complaints.first().contains(QLatin1String("Cannot create pipe")));
}

void tst_StartFailures::init()
{
    m_log = std::make_unique<LogCapture>();
    m_tree = std::make_unique<TestTree>();
    m_tree->write(QStringLiteral("source/file"), "content");
    m_tree->makeFolder(QStringLiteral("out"));
    removeProgram(); // of a run that was broken off
}

void tst_StartFailures::cleanup()
{
    removeProgram();
    m_tree.reset();
    const QStringList logged = m_log->troubleLeft();
    m_log.reset();
    QCOMPARE(m_leftovers.found(), QByteArray());
    QCOMPARE(logged, QStringList());
}

void tst_StartFailures::compressorTellsItOnce()
{
    QFETCH(const QString, kind);
    placeProgram(kind);
    QByteArrayList events;
    Compressor compressor;
    connect(&compressor, &Compressor::started, [&] { events.append("started"); });
    connect(&compressor, &Compressor::finished, [&] { events.append("finished"); });
    connect(&compressor, &Compressor::progress, [&] { events.append("progress"); });
    connect(&compressor, &Compressor::error, [&] { events.append("error"); });
    QSignalSpy error(&compressor, &Compressor::error);

    compressor.start(QStringLiteral("a.7z"), QString());
    QCOMPARE(events, QByteArrayList({"started"}));
    QVERIFY(error.wait(Patience));
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCoreApplication::processEvents();
    QCOMPARE(events, QByteArrayList({"started", "error"}));
    QCOMPARE(m_log->takeAll("default"),
        texts({"debug: 7za successfuly started.", "debug: Failed start 7z."}));
}

void tst_StartFailures::compressorWithoutItsWorkingDirectory()
{
    QVERIFY(QFile::link(QStringLiteral("/bin/true"), m_program));
    Compressor compressor;
    QSignalSpy error(&compressor, &Compressor::error);
    compressor.start(QStringLiteral("a.7z"), path("nowhere"));
    QVERIFY(error.wait(Patience));
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCoreApplication::processEvents();
    QCOMPARE(error.size(), 1);
}

void tst_StartFailures::compressorTellsAtOnceWhatIsKnownAtOnce()
{
    Compressor compressor;
    QSignalSpy started(&compressor, &Compressor::started);
    QSignalSpy error(&compressor, &Compressor::error);
    {
        const NoFreeDescriptors limit;
        compressor.start(QStringLiteral("a.7z"), QString());
    }
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCoreApplication::processEvents();
    QCOMPARE(error.size(), 1);
    QCOMPARE(started.size(), 0);
    QCOMPARE(m_log->take(QtDebugMsg, "default"), texts({"Failed start 7z."}));
    takeComplaintAboutPipe();
}

void tst_StartFailures::decompressorTellsItOnce()
{
    QFETCH(const QString, kind);
    placeProgram(kind);
    QByteArrayList events;
    Decompressor decompressor;
    connect(&decompressor, &Decompressor::started, [&] { events.append("started"); });
    connect(&decompressor, &Decompressor::finished, [&] { events.append("finished"); });
    connect(&decompressor, &Decompressor::progress, [&] { events.append("progress"); });
    connect(&decompressor, &Decompressor::error, [&] { events.append("error"); });
    QSignalSpy error(&decompressor, &Decompressor::error);

    decompressor.start(QStringLiteral("a.7z"), QString(), path("out"), QString());
    QCOMPARE(events, QByteArrayList({"started", "started"}));
    QVERIFY(error.wait(Patience));
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCoreApplication::processEvents();
    QCOMPARE(events, QByteArrayList({"started", "started", "error"}));
    QCOMPARE(
        m_log->takeAll("default"), texts({"debug: Decompress by:  \"process\"  in queue:  ()"}));
}

void tst_StartFailures::decompressorTellsAtOnceWhatIsKnownAtOnce()
{
    Decompressor decompressor;
    QSignalSpy started(&decompressor, &Decompressor::started);
    QSignalSpy error(&decompressor, &Decompressor::error);
    {
        const NoFreeDescriptors limit;
        decompressor.start(QStringLiteral("a.7z"), QString(), path("out"), QString());
    }
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCoreApplication::processEvents();
    QCOMPARE(error.size(), 1);
    QCOMPARE(started.size(), 1); // of start(), not of the program
    takeComplaintAboutPipe();
}

void tst_StartFailures::createArchiveReturnsFalse()
{
    QFETCH(const QString, kind);
    QFETCH(const bool, silentEndIsError);
    placeProgram(kind);
    Pellox::ArchiveController controller;
    controller.setSilentEndIsError(silentEndIsError);
    QSignalSpy error(&controller, &Pellox::ArchiveController::createArchiveError);
    QSignalSpy success(&controller, &Pellox::ArchiveController::createArchiveSuccess);
    QList<double> progress;
    QVERIFY(!controller.createArchive(path("out"), QStringLiteral("a.7z"), path("source"),
        [&](double percents) { progress.append(percents); }));
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCOMPARE(success.size(), 0);
    QCOMPARE(progress, QList<double>{100.0});
    QCOMPARE(m_log->takeAll("default"),
        texts({"debug: 7za successfuly started.", "debug: Failed start 7z.",
            "debug: compression finished with errors (\"Failed to start. Check is 7z exist\")"}));
}

void tst_StartFailures::createArchiveReturnsFalseWhereItIsKnownAtOnce()
{
    Pellox::ArchiveController controller;
    QSignalSpy error(&controller, &Pellox::ArchiveController::createArchiveError);
    QList<double> progress;
    const QString out = path("out");
    const QString source = path("source");
    {
        const NoFreeDescriptors limit;
        QVERIFY(!controller.createArchive(out, QStringLiteral("a.7z"), source,
            [&](double percents) { progress.append(percents); }));
    }
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCOMPARE(progress, QList<double>{100.0});
    takeComplaintAboutPipe();
}

void tst_StartFailures::createArchiveMakesNoFolderWithinAMissingOne()
{
    QVERIFY(QFile::link(QStringLiteral("/bin/true"), m_program));
    Pellox::ArchiveController controller;
    QSignalSpy error(&controller, &Pellox::ArchiveController::createArchiveError);
    QVERIFY(!controller.createArchive(path("new/deeper"), QStringLiteral("a.7z"), path("source")));
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QVERIFY(!m_tree->exists(QStringLiteral("new")));
}

void tst_StartFailures::extractArchiveReturnsFalse()
{
    QFETCH(const QString, kind);
    QFETCH(const bool, silentEndIsError);
    placeProgram(kind);
    Pellox::ArchiveController controller;
    controller.setSilentEndIsError(silentEndIsError);
    QSignalSpy error(&controller, &Pellox::ArchiveController::extractError);
    QSignalSpy success(&controller, &Pellox::ArchiveController::extractSuccess);
    QList<double> progress;
    QVERIFY(!controller.extractArchive(
        path("a.7z"), path("out"), QString(), [&](double percents) { progress.append(percents); }));
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    QCOMPARE(success.size(), 0);
    QCOMPARE(progress, QList<double>());
    QCOMPARE(m_log->takeAll("default"),
        texts({"debug: Decompress by:  \"process\"  in queue:  ()",
            "debug: extraction finished with errors (\"Failed to start. Check is 7z exist\")"}));
}

void tst_StartFailures::extractArchiveReturnsFalseWhereItIsKnownAtOnce()
{
    Pellox::ArchiveController controller;
    QSignalSpy error(&controller, &Pellox::ArchiveController::extractError);
    const QString archive = path("a.7z");
    const QString out = path("out");
    {
        const NoFreeDescriptors limit;
        QVERIFY(!controller.extractArchive(archive, out, QString()));
    }
    QCOMPARE(error.size(), 1);
    QCOMPARE(error.at(0).at(0).toStringList(), Failure);
    takeComplaintAboutPipe();
}

QTEST_GUILESS_MAIN(tst_StartFailures)
#include "tst_startfailures.moc"
