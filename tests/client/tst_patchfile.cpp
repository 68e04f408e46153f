// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "testtree.h"

#include <Pellox/BinariesController>
#include <Pellox/patchhelp.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QTest>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using Pellox::BinariesController;

namespace {

std::atomic_bool s_chmodFails = false;
std::atomic_int s_failedChmods = 0;

} // namespace

/// Stands before the C library's function of this name, for Qt as well.
extern "C" int chmod(const char *path, mode_t mode) noexcept
{
    if (s_chmodFails) {
        ++s_failedChmods;
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

namespace {

using Progress = std::function<void(qint64, qint64)>;

const char Category[] = "BinariesController";

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

struct stat statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        qFatal("cannot look at %s", qPrintable(path));
    return status;
}

unsigned modeOf(const QString &path)
{
    return statusOf(path).st_mode & 07777U;
}

void setMode(const QString &path, mode_t mode)
{
    if (::chmod(QFile::encodeName(path).constData(), mode) != 0)
        qFatal("cannot set the mode of %s", qPrintable(path));
}

QByteArray deltaOf(const QByteArray &oldContent, const QByteArray &newContent)
{
    const TestTree scratch;
    scratch.write("old"_s, oldContent);
    scratch.write("new"_s, newContent);
    if (!Pellox::createSignature(scratch.path("old"_s), scratch.path("signature"_s))
        || !Pellox::createDelta(
            scratch.path("signature"_s), scratch.path("new"_s), scratch.path("delta"_s)))
        qFatal("cannot make a delta");
    return scratch.read("delta"_s);
}

} // namespace

class tst_PatchFile : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void newContentIsWrittenBesideTheFile_data();
    void newContentIsWrittenBesideTheFile();
    void pathsAndCheckSumAreLogged_data();
    void pathsAndCheckSumAreLogged();
    void installedFileIsNotTouched();
    void temporaryFileTakesOverThePermissions_data();
    void temporaryFileTakesOverThePermissions();
    void failedPermissionsAreOnlyNoted();
    void temporaryFileOfAnEarlierRunIsDiscarded_data();
    void temporaryFileOfAnEarlierRunIsDiscarded();
    void discardedTemporaryFileIsNotWrittenThrough();
    void linkedFileIsPatchedFromItsTarget();
    void namesOfAnyKind_data();
    void namesOfAnyKind();
    void relativePathsWork();

    void checkSumIsNotCompared();
    void sizeAndProgressAreIgnored_data();
    void sizeAndProgressAreIgnored();

    void missingFolderIsCreated();
    void missingFileIsReported();
    void missingDeltaIsReported();
    void missingFileComesBeforeMissingDelta();
    void damagedDeltaLeavesNoTemporaryFile_data();
    void damagedDeltaLeavesNoTemporaryFile();
    void otherFailuresLeaveThePlaceHolder_data();
    void otherFailuresLeaveThePlaceHolder();
    void folderInTheTemporaryFilesPlaceIsReportedAsRemoved();
    void temporaryFileIsRemovedWhateverTheReason_data();
    void temporaryFileIsRemovedWhateverTheReason();
    void placeHolderInAPathStaysAsItIs();
    void reasonsAreLookedForBeforeTheTemporaryFileGoes_data();
    void reasonsAreLookedForBeforeTheTemporaryFileGoes();

    void errorIsToldOnTheCallingThread();
    void severalThreadsPatchAtOnce();

private:
    bool patch() { return patch(path("build/x"_s), path("patch/x"_s)); }
    bool patch(const QString &binFilePath, const QString &patchFilePath);
    QString path(const QString &relative) const { return m_tree->path(relative); }
    QStringList errors();
    void compareFailure(const QString &message);

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::unique_ptr<BinariesController> m_controller;
    QMutex m_mutex;
    QStringList m_errors;
    QString m_currentFolder;
};

/// Every test starts with the file "build/x", which holds "before", and its delta to "after".
void tst_PatchFile::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_controller = std::make_unique<BinariesController>(nullptr);
    connect(m_controller.get(), &BinariesController::applyPatchError, [this](const QString &text) {
        const QMutexLocker lock(&m_mutex);
        m_errors.append(text);
    });
    m_currentFolder = QDir::currentPath();
    m_tree->write("build/x"_s, "before");
    m_tree->write("patch/x"_s, deltaOf("before", "after"));
}

void tst_PatchFile::cleanup()
{
    s_chmodFails = false;
    QDir::setCurrent(m_currentFolder);
    m_controller.reset();
    QCOMPARE(errors(), QStringList());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

bool tst_PatchFile::patch(const QString &binFilePath, const QString &patchFilePath)
{
    return m_controller->patchFile(binFilePath, patchFilePath, QByteArray(), 5, nullptr);
}

/// Takes what applyPatchError() told so far.
QStringList tst_PatchFile::errors()
{
    const QMutexLocker lock(&m_mutex);
    return std::exchange(m_errors, QStringList());
}

/// The one error of a failed call, told and logged alike.
void tst_PatchFile::compareFailure(const QString &message)
{
    QCOMPARE(errors(), QStringList(message));
    QCOMPARE(m_log->take(QtCriticalMsg, Category), QStringList(message));
}

void tst_PatchFile::newContentIsWrittenBesideTheFile_data()
{
    QTest::addColumn<QByteArray>("oldContent");
    QTest::addColumn<QByteArray>("newContent");
    const QByteArray content = randomBytes(100000, 1);

    QTest::newRow("grows") << content << content + randomBytes(5000, 2);
    QTest::newRow("shrinks") << content << content.left(40000);
    QTest::newRow("moves") << content << content.mid(50000) + content.left(50000);
    QTest::newRow("all new") << content << randomBytes(100000, 3);
    QTest::newRow("the same") << content << content;
    QTest::newRow("becomes empty") << content << QByteArray();
    QTest::newRow("was empty") << QByteArray() << content;
}

void tst_PatchFile::newContentIsWrittenBesideTheFile()
{
    QFETCH(QByteArray, oldContent);
    QFETCH(QByteArray, newContent);
    m_tree->write("build/x"_s, oldContent);
    m_tree->write("patch/x"_s, deltaOf(oldContent, newContent));

    QVERIFY(patch());
    const QMap<QString, QByteArray> expected{{"x"_s, oldContent}, {"x.temp"_s, newContent}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_PatchFile::pathsAndCheckSumAreLogged_data()
{
    QTest::addColumn<QByteArray>("checkSum");
    QTest::addColumn<QString>("printed");
    QTest::newRow("hexadecimal") << QByteArray("00c0ffee") << "debug: checkSum \"00c0ffee\""_s;
    QTest::newRow("empty") << QByteArray() << "debug: checkSum \"\""_s;
    QTest::newRow("quotes") << QByteArray("a\"b") << "debug: checkSum \"a\\\"b\""_s;
    QTest::newRow("bytes") << QByteArray("\xC3\xBC\0z", 4)
                           << R"(debug: checkSum "\xC3\xBC\x00z")"_s;
}

void tst_PatchFile::pathsAndCheckSumAreLogged()
{
    QFETCH(QByteArray, checkSum);
    QFETCH(QString, printed);

    QVERIFY(m_controller->patchFile(path("build/x"_s), path("patch/x"_s), checkSum, 5, nullptr));
    QCOMPARE(m_log->takeAll(Category),
        QStringList({
            "debug: binFilePath "_s + quoted(path("build/x"_s)),
            "debug: patchFilePath "_s + quoted(path("patch/x"_s)),
            printed,
        }));
}

void tst_PatchFile::installedFileIsNotTouched()
{
    const struct stat before = statusOf(path("build/x"_s));
    QVERIFY(patch());

    const struct stat after = statusOf(path("build/x"_s));
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("before"));
    QCOMPARE(after.st_ino, before.st_ino);
    QCOMPARE(after.st_mode, before.st_mode);
    QCOMPARE(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    QCOMPARE(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    QCOMPARE(after.st_ctim.tv_sec, before.st_ctim.tv_sec);
    QCOMPARE(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
}

void tst_PatchFile::temporaryFileTakesOverThePermissions_data()
{
    QTest::addColumn<unsigned>("mode");
    for (const unsigned mode : {0755U, 0700U, 0711U, 0644U, 0600U, 0640U, 0666U, 0777U, 0444U})
        QTest::newRow(QByteArray::number(mode, 8).constData()) << mode;
}

void tst_PatchFile::temporaryFileTakesOverThePermissions()
{
    QFETCH(unsigned, mode);
    setMode(path("build/x"_s), mode);
    m_tree->write("build/x.temp"_s, "of an earlier run");

    QVERIFY(patch());
    // What the user may do counts as what the owner may do, and root may always write.
    const unsigned rights = geteuid() == 0 ? mode | 0200U : mode;
    QCOMPARE(modeOf(path("build/x.temp"_s)), rights);
    QCOMPARE(modeOf(path("build/x"_s)), mode);
}

void tst_PatchFile::failedPermissionsAreOnlyNoted()
{
    s_chmodFails = true;
    s_failedChmods = 0;

    QVERIFY(patch());
    QCOMPARE(s_failedChmods.load(), 1);
    QCOMPARE(m_log->takeAll(Category),
        QStringList({
            "debug: binFilePath "_s + quoted(path("build/x"_s)),
            "debug: patchFilePath "_s + quoted(path("patch/x"_s)),
            "debug: checkSum \"\""_s,
            "debug: Fail change executable flag:  "_s + quoted(path("build/x.temp"_s)),
        }));
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("after"));
}

void tst_PatchFile::temporaryFileOfAnEarlierRunIsDiscarded_data()
{
    QTest::addColumn<QByteArray>("stale");
    QTest::newRow("shorter") << QByteArray("x");
    QTest::newRow("longer") << randomBytes(100000, 4);
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("as long") << QByteArray("AFTER");
}

void tst_PatchFile::temporaryFileOfAnEarlierRunIsDiscarded()
{
    QFETCH(QByteArray, stale);
    m_tree->write("build/x.temp"_s, stale);
    setMode(path("build/x.temp"_s), 0400);

    QVERIFY(patch());
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("after"));
}

void tst_PatchFile::discardedTemporaryFileIsNotWrittenThrough()
{
    m_tree->write("precious"_s, "precious");
    m_tree->link("build/x.temp"_s, path("precious"_s));

    QVERIFY(patch());
    QCOMPARE(m_tree->read("precious"_s), QByteArray("precious"));
    QVERIFY(!QFileInfo(path("build/x.temp"_s)).isSymLink());
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("after"));
}

void tst_PatchFile::linkedFileIsPatchedFromItsTarget()
{
    m_tree->write("shared/target"_s, "before");
    setMode(path("shared/target"_s), 0751);
    m_tree->remove("build/x"_s);
    m_tree->link("build/x"_s, path("shared/target"_s));

    QVERIFY(patch());
    QVERIFY(QFileInfo(path("build/x"_s)).isSymLink());
    QCOMPARE(m_tree->read("shared/target"_s), QByteArray("before"));
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("after"));
    QCOMPARE(modeOf(path("build/x.temp"_s)), 0751U);
}

void tst_PatchFile::namesOfAnyKind_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("blanks") << " two  words "_s;
    QTest::newRow("non-ASCII") << "größe файл 文件"_s;
    QTest::newRow("beyond 16 bits") << "🎮.pak"_s;
    QTest::newRow("place holder") << "100%1"_s;
    QTest::newRow("percent") << "a%20b"_s;
    QTest::newRow("only a suffix") << ".temp"_s;
    QTest::newRow("ends like a temporary file") << "x.temp"_s;
    QTest::newRow("a dash") << "-"_s;
    QTest::newRow("deep") << "a/b/c/d/e/f/g/h/i/j"_s;
    QTest::newRow("as long as a name may be") << QString(250, QLatin1Char('n'));
}

void tst_PatchFile::namesOfAnyKind()
{
    QFETCH(QString, name);
    m_tree->write("any/"_s + name, "before");

    QVERIFY(patch(path("any/"_s + name), path("patch/x"_s)));
    QCOMPARE(m_tree->read("any/"_s + name), QByteArray("before"));
    QCOMPARE(m_tree->read("any/"_s + name + ".temp"_s), QByteArray("after"));
}

void tst_PatchFile::relativePathsWork()
{
    QDir::setCurrent(path("build"_s));
    QVERIFY(patch("x"_s, "../patch/x"_s));
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("after"));

    QVERIFY(!patch("y"_s, "../patch/x"_s));
    compareFailure("Can't apply patch: \ny - not found"_s);
}

void tst_PatchFile::checkSumIsNotCompared()
{
    const QByteArray notTheDigest(128, '0');
    QVERIFY(
        m_controller->patchFile(path("build/x"_s), path("patch/x"_s), notTheDigest, 5, nullptr));
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("after"));
}

void tst_PatchFile::sizeAndProgressAreIgnored_data()
{
    QTest::addColumn<qint64>("fileSize");
    QTest::newRow("the size") << Q_INT64_C(300000);
    QTest::newRow("too small") << Q_INT64_C(1);
    QTest::newRow("nothing") << Q_INT64_C(0);
    QTest::newRow("below zero") << Q_INT64_C(-1);
    QTest::newRow("huge") << std::numeric_limits<qint64>::max();
}

void tst_PatchFile::sizeAndProgressAreIgnored()
{
    QFETCH(qint64, fileSize);
    const QByteArray content = randomBytes(300000, 5);
    m_tree->write("patch/x"_s, deltaOf("before", content));

    int calls = 0;
    Progress progress = [&calls](qint64, qint64) { ++calls; };
    Progress empty;
    for (Progress *callback : {&progress, &empty, static_cast<Progress *>(nullptr)}) {
        QVERIFY(m_controller->patchFile(
            path("build/x"_s), path("patch/x"_s), QByteArray(), fileSize, callback));
        QVERIFY(m_tree->read("build/x.temp"_s) == content);
    }
    QCOMPARE(calls, 0);
}

void tst_PatchFile::missingFolderIsCreated()
{
    QVERIFY(!patch(path("build/new/folder/x"_s), path("patch/x"_s)));
    compareFailure("Can't apply patch: \n"_s + path("build/new/folder/x"_s) + " - not found"_s);
    QCOMPARE(TestTree::snapshot(path("build/new"_s)).keys(), QStringList("folder/"_s));
}

void tst_PatchFile::missingFileIsReported()
{
    QVERIFY(!patch(path("build/y"_s), path("patch/x"_s)));
    QCOMPARE(
        errors(), QStringList("Can't apply patch: \n"_s + path("build/y"_s) + " - not found"_s));
    QCOMPARE(m_log->takeAll(Category),
        QStringList({
            "debug: binFilePath "_s + quoted(path("build/y"_s)),
            "debug: patchFilePath "_s + quoted(path("patch/x"_s)),
            "debug: checkSum \"\""_s,
            "critical: Can't apply patch: \n"_s + path("build/y"_s) + " - not found"_s,
        }));
    QCOMPARE(TestTree::snapshot(path("build"_s)).keys(), QStringList("x"_s));
}

void tst_PatchFile::missingDeltaIsReported()
{
    QVERIFY(!patch(path("build/x"_s), path("patch/größe"_s)));
    compareFailure("Can't apply patch: \n"_s + path("patch/größe"_s) + " - not found"_s);
    QCOMPARE(TestTree::snapshot(path("build"_s)).keys(), QStringList("x"_s));
}

void tst_PatchFile::missingFileComesBeforeMissingDelta()
{
    QVERIFY(!patch(path("build/y"_s), path("patch/y"_s)));
    compareFailure("Can't apply patch: \n"_s + path("build/y"_s) + " - not found"_s);
    QCOMPARE(TestTree::snapshot(path("build"_s)).keys(), QStringList("x"_s));
}

void tst_PatchFile::damagedDeltaLeavesNoTemporaryFile_data()
{
    QTest::addColumn<QByteArray>("delta");
    const QByteArray whole = deltaOf("before", randomBytes(200000, 6));

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("no delta at all") << QByteArray("no delta at all");
    QTest::newRow("cut in the header") << whole.left(3);
    QTest::newRow("cut after the header") << whole.left(4);
    QTest::newRow("cut in the middle") << whole.left(150000);
    QTest::newRow("end missing") << whole.chopped(1);
}

void tst_PatchFile::damagedDeltaLeavesNoTemporaryFile()
{
    QFETCH(QByteArray, delta);
    m_tree->write("patch/x"_s, delta);

    QVERIFY(!patch());
    compareFailure("Can't apply patch: \nTemp file removed"_s);
    const QMap<QString, QByteArray> expected{{"x"_s, "before"}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_PatchFile::otherFailuresLeaveThePlaceHolder_data()
{
    QTest::addColumn<QString>("name");
    // One byte more than a name may have, with ".temp" at its end.
    QTest::newRow("temporary name too long") << QString(251, QLatin1Char('n'));
    QTest::newRow("place holders in that name") << "%1%2"_s + QString(248, QLatin1Char('n'));
}

void tst_PatchFile::otherFailuresLeaveThePlaceHolder()
{
    QFETCH(QString, name);
    m_tree->write("build/"_s + name, "before");

    QVERIFY(!patch(path("build/"_s + name), path("patch/x"_s)));
    compareFailure("Can't apply patch: \n%1"_s);
    QCOMPARE(m_tree->read("build/"_s + name), QByteArray("before"));
}

/// Promised: what the removal itself comes to is not looked at.
void tst_PatchFile::folderInTheTemporaryFilesPlaceIsReportedAsRemoved()
{
    m_tree->makeFolder("build/x.temp"_s);
    QVERIFY(!patch());
    compareFailure("Can't apply patch: \nTemp file removed"_s);
    QVERIFY(m_tree->exists("build/x.temp"_s));
}

void tst_PatchFile::temporaryFileIsRemovedWhateverTheReason_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("delta");
    QTest::addColumn<QString>("missing"); // empty: the removal is the reason
    QTest::newRow("file missing") << "build/y"_s
                                  << "patch/x"_s
                                  << "build/y"_s;
    QTest::newRow("delta missing") << "build/x"_s
                                   << "patch/y"_s
                                   << "patch/y"_s;
    QTest::newRow("both missing") << "build/y"_s
                                  << "patch/y"_s
                                  << "build/y"_s;
    QTest::newRow("a folder for a delta") << "build/x"_s
                                          << "patch"_s << QString();
    QTest::newRow("a named pipe for a delta") << "build/x"_s
                                              << "pipe"_s << QString();
    QTest::newRow("a named pipe for a file") << "pipe"_s
                                             << "patch/x"_s << QString();
    QTest::newRow("a folder for a file") << "build/folder"_s
                                         << "patch/x"_s << QString();
}

void tst_PatchFile::temporaryFileIsRemovedWhateverTheReason()
{
    QFETCH(QString, file);
    QFETCH(QString, delta);
    QFETCH(QString, missing);
    m_tree->makeFolder("build/folder"_s);
    QCOMPARE(::mkfifo(QFile::encodeName(path("pipe"_s)).constData(), 0600), 0);
    m_tree->write(file + ".temp"_s, "of an earlier run");
    const QByteArray content = randomBytes(10000, 7);
    m_tree->write("patch/x"_s, deltaOf(content, content + "more"));

    QVERIFY(!patch(path(file), path(delta)));
    const QString reason
        = missing.isEmpty() ? "Temp file removed"_s : path(missing) + " - not found"_s;
    compareFailure("Can't apply patch: \n"_s + reason);
    QVERIFY(!m_tree->exists(file + ".temp"_s));
}

void tst_PatchFile::placeHolderInAPathStaysAsItIs()
{
    QVERIFY(!patch(path("build/100%1"_s), path("patch/%1"_s)));
    compareFailure("Can't apply patch: \n"_s + path("build/100%1"_s) + " - not found"_s);

    QVERIFY(!patch(path("build/x"_s), path("patch/%1 of %2"_s)));
    compareFailure("Can't apply patch: \n"_s + path("patch/%1 of %2"_s) + " - not found"_s);
}

void tst_PatchFile::reasonsAreLookedForBeforeTheTemporaryFileGoes_data()
{
    QTest::addColumn<QString>("delta");
    QTest::addColumn<QString>("linkFrom");
    QTest::newRow("the delta is the temporary file") << "build/x.temp"_s << QString();
    QTest::newRow("the file is a link to it") << "patch/x"_s
                                              << "build/x"_s;
}

/// Where the temporary file is one of the inputs too, that input still counts as found.
void tst_PatchFile::reasonsAreLookedForBeforeTheTemporaryFileGoes()
{
    QFETCH(QString, delta);
    QFETCH(QString, linkFrom);
    m_tree->write("build/x.temp"_s, "something");
    if (!linkFrom.isEmpty()) {
        m_tree->remove(linkFrom);
        m_tree->link(linkFrom, path("build/x.temp"_s));
    }

    QVERIFY(!patch(path("build/x"_s), path(delta)));
    compareFailure("Can't apply patch: \nTemp file removed"_s);
    QVERIFY(!m_tree->exists("build/x.temp"_s));
}

void tst_PatchFile::errorIsToldOnTheCallingThread()
{
    QThread *toldOn = nullptr;
    connect(m_controller.get(), &BinariesController::applyPatchError,
        [&toldOn] { toldOn = QThread::currentThread(); });

    QVERIFY(!patch(path("build/y"_s), path("patch/x"_s)));
    QCOMPARE(toldOn, QThread::currentThread());

    const std::unique_ptr<QThread> worker(
        QThread::create([this] { patch(path("build/y"_s), path("patch/x"_s)); }));
    worker->start();
    worker->wait();
    QCOMPARE(toldOn, worker.get());
    QCOMPARE(errors().size(), 2);
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 2);
}

void tst_PatchFile::severalThreadsPatchAtOnce()
{
    constexpr int Threads = 4;
    constexpr int FilesEach = 6;
    const auto numbered = [](const char *folder, int thread, int file) {
        return QString::fromLatin1("%1/%2-%3").arg(QLatin1String(folder)).arg(thread).arg(file);
    };
    const auto contentOf = [](int thread, int file, quint32 release) {
        return randomBytes(3000 + 500 * file, static_cast<quint32>(100 * thread + file) + release);
    };
    for (int thread = 0; thread < Threads; ++thread) {
        for (int file = 0; file < FilesEach; ++file) {
            const QByteArray oldContent = contentOf(thread, file, 0);
            m_tree->write(numbered("build", thread, file), oldContent);
            m_tree->write(numbered("patch", thread, file),
                deltaOf(oldContent, oldContent + contentOf(thread, file, 5000)));
        }
    }

    std::atomic_int patched = 0;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int thread = 0; thread < Threads; ++thread) {
        threads.emplace_back(QThread::create([&, thread] {
            for (int file = 0; file < FilesEach; ++file) {
                patched += patch(
                    path(numbered("build", thread, file)), path(numbered("patch", thread, file)));
                patch(path("build/missing"_s) + QString::number(thread), path("patch/x"_s));
            }
        }));
        threads.back()->start();
    }
    for (const auto &thread : threads)
        thread->wait();

    QCOMPARE(patched.load(), Threads * FilesEach);
    QCOMPARE(errors().size(), Threads * FilesEach);
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), Threads * FilesEach);
    for (int thread = 0; thread < Threads; ++thread) {
        for (int file = 0; file < FilesEach; ++file) {
            QCOMPARE(m_tree->read(numbered("build", thread, file) + ".temp"_s),
                contentOf(thread, file, 0) + contentOf(thread, file, 5000));
        }
    }
}

QTEST_GUILESS_MAIN(tst_PatchFile)

#include "tst_patchfile.moc"
