// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "testtree.h"

#include <Pellox/BinariesController>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QThreadPool>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using Pellox::BinariesController;

static_assert(std::is_same_v<decltype(&BinariesController::copyRecursively),
    bool (*)(const QString &, const QString &)>);

namespace {

/// Files whose names end in this do not open while set.
constexpr std::string_view UnreadableEnd = "unreadable";
std::atomic_bool s_opensFail = false;

bool isUnreadable(std::string_view path)
{
    return s_opensFail && path.size() >= UnreadableEnd.size()
        && path.substr(path.size() - UnreadableEnd.size()) == UnreadableEnd;
}

} // namespace

/// Stands before the C library's function of this name, for Qt as well: root may read all.
extern "C" int open64(const char *path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (isUnreadable(path)) {
        errno = EACCES;
        return -1;
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

const char Category[] = "BinariesController";

const QStringList ReplacedOne{"warning: target file already exists! Remove it!"_s};

unsigned modeOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        qFatal("cannot look at %s", qPrintable(path));
    return status.st_mode & 07777U;
}

/// @p folder and names below it, @p length code units in all.
QString pathOfLength(const QString &folder, int length)
{
    constexpr int NameLength = 200;
    QString path = folder;
    while (length - path.size() > NameLength + 2)
        path += QLatin1Char('/') + QString(NameLength, QLatin1Char('n'));
    const int rest = length - path.size() - 1;
    if (rest < 1)
        qFatal("no path of that length below %s", qPrintable(folder));
    return path + QLatin1Char('/') + QString(rest, QLatin1Char('f'));
}

QString longPathWarning(const QString &path)
{
    return "warning: \n"
           "Warning! File path length exceeds the operating system limit (1023 symbols).\n"
           "We recommend moving the game folder and shipwright utility closer to the root of the "
           "disk.\n"
           "Path: "_s
        + path;
}

/// Lets no file of the process grow beyond some bytes while it lives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
        : m_previousHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &m_previous);
        const rlimit limit{bytes, m_previous.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_previous);
        std::signal(SIGXFSZ, m_previousHandler);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

private:
    void (*m_previousHandler)(int);
    rlimit m_previous{};
};

} // namespace

class tst_CopyBinaries : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    // copyRecursively()
    void contentIsCopied_data();
    void contentIsCopied();
    void permissionsAreCopied_data();
    void permissionsAreCopied();
    void missingFoldersAreCreated();
    void existingTargetIsReplaced_data();
    void existingTargetIsReplaced();
    void linkInTheTargetsPlaceIsReplaced();
    void linkedSourceIsCopiedWhole();
    void hiddenFileIsCopied();
    void relativePathsWork();
    void failureLeavesNothingButFolders_data();
    void failureLeavesNothingButFolders();
    void folderAsTargetFails_data();
    void folderAsTargetFails();
    void targetIsGoneBeforeTheSourceIsLookedAt();
    void fileCopiedOntoItselfIsLost();
    void unreadableSourceFails();
    void fullDiskLeavesNoPartOfTheTarget();
    void severalThreadsCopyAtOnce();

    // copyBinaries()
    void treeIsCopied();
    void onlyFilesAreCopied();
    void foldersMayEndInASeparator_data();
    void foldersMayEndInASeparator();
    void targetMayBeRelative();
    void sourceSpeltOtherwiseMisplacesTargets_data();
    void sourceSpeltOtherwiseMisplacesTargets();
    void sourceWithoutFilesMakesNothing_data();
    void sourceWithoutFilesMakesNothing();
    void existingFilesAreReplacedAndOthersStay();
    void copyIntoTheSourceItselfEnds();
    void fileThatCannotBeCopiedIsSkipped();
    void unreadableFileIsSkipped();
    void longPathsAreWarnedAbout_data();
    void longPathsAreWarnedAbout();
    void eachFileIsWarnedAboutSourceFirst();
    void lengthIsCountedInUtf16();
    void worksInTheCallersThreadAlone();
    void nothingIsSignalledNorCounted();

private:
    QString path(const QString &relative) const { return m_tree->path(relative); }
    bool copy(const QString &source, const QString &target) const
    {
        return BinariesController::copyRecursively(path(source), path(target));
    }

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    QString m_currentFolder;
    int m_poolSize = 0;
};

void tst_CopyBinaries::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_currentFolder = QDir::currentPath();
    m_poolSize = QThreadPool::globalInstance()->maxThreadCount();
}

void tst_CopyBinaries::cleanup()
{
    s_opensFail = false;
    QThreadPool::globalInstance()->setMaxThreadCount(m_poolSize);
    QDir::setCurrent(m_currentFolder);
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

void tst_CopyBinaries::contentIsCopied_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {0, 1, 4095, 4096, 4097, 8192, 300000})
        QTest::newRow(QByteArray::number(size).constData()) << size;
}

void tst_CopyBinaries::contentIsCopied()
{
    QFETCH(int, size);
    const QByteArray content = randomBytes(size, 1);
    m_tree->write("from"_s, content);

    QVERIFY(copy("from"_s, "to"_s));
    QVERIFY(m_tree->read("to"_s) == content);
    QVERIFY(m_tree->read("from"_s) == content);
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::permissionsAreCopied_data()
{
    QTest::addColumn<unsigned>("mode");
    for (const unsigned mode : {0755U, 0700U, 0644U, 0600U, 0666U, 0444U})
        QTest::newRow(QByteArray::number(mode, 8).constData()) << mode;
}

void tst_CopyBinaries::permissionsAreCopied()
{
    QFETCH(unsigned, mode);
    m_tree->write("from"_s, "content");
    QCOMPARE(::chmod(QFile::encodeName(path("from"_s)).constData(), mode), 0);

    QVERIFY(copy("from"_s, "to"_s));
    // What the user may do counts as what the owner may do, and root may always write.
    QCOMPARE(modeOf(path("to"_s)), geteuid() == 0 ? mode | 0200U : mode);
}

void tst_CopyBinaries::missingFoldersAreCreated()
{
    m_tree->write("from"_s, "content");
    QVERIFY(copy("from"_s, "größe/two words/c/d/e/to"_s));
    QCOMPARE(m_tree->read("größe/two words/c/d/e/to"_s), QByteArray("content"));
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::existingTargetIsReplaced_data()
{
    QTest::addColumn<QByteArray>("old");
    QTest::newRow("longer") << QByteArray("content and more");
    QTest::newRow("shorter") << QByteArray("c");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("the same") << QByteArray("content");
}

void tst_CopyBinaries::existingTargetIsReplaced()
{
    QFETCH(QByteArray, old);
    m_tree->write("from"_s, "content");
    m_tree->write("to"_s, old);

    QVERIFY(copy("from"_s, "to"_s));
    QCOMPARE(m_log->takeAll(Category), ReplacedOne);
    QCOMPARE(m_tree->read("to"_s), QByteArray("content"));
}

void tst_CopyBinaries::linkInTheTargetsPlaceIsReplaced()
{
    m_tree->write("from"_s, "content");
    m_tree->write("precious"_s, "precious");
    m_tree->link("to"_s, path("precious"_s));

    QVERIFY(copy("from"_s, "to"_s));
    QCOMPARE(m_log->takeAll(Category), ReplacedOne);
    QVERIFY(!QFileInfo(path("to"_s)).isSymLink());
    QCOMPARE(m_tree->read("to"_s), QByteArray("content"));
    QCOMPARE(m_tree->read("precious"_s), QByteArray("precious"));
}

void tst_CopyBinaries::linkedSourceIsCopiedWhole()
{
    m_tree->write("target of the link"_s, "content");
    m_tree->link("from"_s, path("target of the link"_s));

    QVERIFY(copy("from"_s, "to"_s));
    QVERIFY(!QFileInfo(path("to"_s)).isSymLink());
    QCOMPARE(m_tree->read("to"_s), QByteArray("content"));
}

void tst_CopyBinaries::hiddenFileIsCopied()
{
    m_tree->write(".from"_s, "content");
    QVERIFY(copy(".from"_s, ".hidden/.to"_s));
    QCOMPARE(m_tree->read(".hidden/.to"_s), QByteArray("content"));
}

void tst_CopyBinaries::relativePathsWork()
{
    m_tree->write("a/from"_s, "content");
    QDir::setCurrent(path("a"_s));
    QVERIFY(BinariesController::copyRecursively("from"_s, "../b/c/to"_s));
    QCOMPARE(m_tree->read("b/c/to"_s), QByteArray("content"));
}

void tst_CopyBinaries::failureLeavesNothingButFolders_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("target");
    QTest::addColumn<QStringList>("made");
    QTest::newRow("missing source") << "nowhere"_s
                                    << "new/to"_s << QStringList("new/"_s);
    QTest::newRow("link to nothing") << "dangling"_s
                                     << "new/to"_s << QStringList("new/"_s);
    QTest::newRow("folder as source") << "folder"_s
                                      << "new/to"_s << QStringList("new/"_s);
    QTest::newRow("named pipe as source") << "pipe"_s
                                          << "new/to"_s << QStringList("new/"_s);
    QTest::newRow("file in a folder's place") << "from"_s
                                              << "from/to"_s << QStringList();
    QTest::newRow("name too long")
        << "from"_s
        << "new/"_s + QString(256, QLatin1Char('n')) << QStringList("new/"_s);
}

void tst_CopyBinaries::failureLeavesNothingButFolders()
{
    QFETCH(QString, source);
    QFETCH(QString, target);
    QFETCH(QStringList, made);
    m_tree->write("from"_s, "content");
    m_tree->write("folder/file"_s, "content");
    m_tree->link("dangling"_s, path("not there"_s));
    QCOMPARE(::mkfifo(QFile::encodeName(path("pipe"_s)).constData(), 0600), 0);

    QVERIFY(!copy(source, target));
    QCOMPARE(m_log->takeAll(Category), QStringList());
    m_tree->remove("dangling"_s);
    m_tree->remove("pipe"_s);
    QStringList expected = QStringList({"folder/"_s, "folder/file"_s, "from"_s}) + made;
    expected.sort();
    QCOMPARE(TestTree::snapshot(path(QString())).keys(), expected);
}

void tst_CopyBinaries::folderAsTargetFails_data()
{
    QTest::addColumn<QString>("inside");
    QTest::newRow("empty") << QString();
    QTest::newRow("not empty") << "/inside"_s;
}

void tst_CopyBinaries::folderAsTargetFails()
{
    QFETCH(QString, inside);
    m_tree->write("from"_s, "content");
    m_tree->makeFolder("to"_s + inside);

    QVERIFY(!copy("from"_s, "to"_s));
    QCOMPARE(m_log->takeAll(Category), ReplacedOne);
    QVERIFY(QFileInfo(path("to"_s + inside)).isDir());
}

void tst_CopyBinaries::targetIsGoneBeforeTheSourceIsLookedAt()
{
    m_tree->write("to"_s, "old");
    QVERIFY(!copy("nowhere"_s, "to"_s));
    QCOMPARE(m_log->takeAll(Category), ReplacedOne);
    QVERIFY(!m_tree->exists("to"_s));
}

/// Promised: the target is always removed first.
void tst_CopyBinaries::fileCopiedOntoItselfIsLost()
{
    m_tree->write("file"_s, "content");
    QVERIFY(!copy("file"_s, "file"_s));
    QCOMPARE(m_log->takeAll(Category), ReplacedOne);
    QVERIFY(!m_tree->exists("file"_s));
}

void tst_CopyBinaries::unreadableSourceFails()
{
    m_tree->write("unreadable"_s, "content");
    s_opensFail = true;
    QVERIFY(!copy("unreadable"_s, "to"_s));
    QVERIFY(!m_tree->exists("to"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());

    s_opensFail = false;
    QVERIFY(copy("unreadable"_s, "to"_s));
}

void tst_CopyBinaries::fullDiskLeavesNoPartOfTheTarget()
{
    m_tree->write("folder/from"_s, randomBytes(100000, 2));
    bool copied = true;
    {
        const FileSizeLimit limit(20000);
        copied = copy("folder/from"_s, "folder/to"_s);
    }
    QVERIFY(!copied);
    QCOMPARE(TestTree::snapshot(path("folder"_s)).keys(), QStringList("from"_s));
}

void tst_CopyBinaries::severalThreadsCopyAtOnce()
{
    constexpr int Threads = 4;
    constexpr int FilesEach = 25;
    m_tree->write("from"_s, "content");

    std::atomic_int copied = 0;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int thread = 0; thread < Threads; ++thread) {
        threads.emplace_back(QThread::create([&, thread] {
            for (int file = 0; file < FilesEach; ++file)
                copied += copy("from"_s, "shared/%1/to-%2"_s.arg(file).arg(thread));
        }));
        threads.back()->start();
    }
    for (const auto &thread : threads)
        thread->wait();

    QCOMPARE(copied.load(), Threads * FilesEach);
    const auto files = TestTree::snapshot(path("shared"_s));
    QCOMPARE(files.size(), FilesEach + Threads * FilesEach);
    QCOMPARE(files.values().count("content"), Threads * FilesEach);
}

void tst_CopyBinaries::treeIsCopied()
{
    m_tree->write("build/game"_s, "game");
    m_tree->write("build/data/größe 1.pak"_s, "1");
    m_tree->write("build/data/deep/er/still/2.pak"_s, "2");
    m_tree->write("build/empty file"_s, QByteArray());

    BinariesController(nullptr).copyBinaries(path("build"_s), path("made/copy"_s));
    QCOMPARE(TestTree::snapshot(path("made/copy"_s)), TestTree::snapshot(path("build"_s)));
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::onlyFilesAreCopied()
{
    m_tree->write("build/file"_s, "file");
    m_tree->write("build/.hidden file"_s, "x");
    m_tree->write("build/.hidden folder/file"_s, "x");
    m_tree->write("build/folder/.hidden file"_s, "x");
    m_tree->makeFolder("build/empty folder/in it"_s);
    m_tree->write("outside/file"_s, "outside");
    m_tree->link("build/link to a file"_s, path("outside/file"_s));
    m_tree->link("build/link to a folder"_s, path("outside"_s));
    m_tree->link("build/link to nothing"_s, path("nowhere"_s));
    QCOMPARE(::mkfifo(QFile::encodeName(path("build/pipe"_s)).constData(), 0600), 0);

    BinariesController(nullptr).copyBinaries(path("build"_s), path("copy"_s));
    const QMap<QString, QByteArray> expected{{"file"_s, "file"}, {"link to a file"_s, "outside"}};
    QCOMPARE(TestTree::snapshot(path("copy"_s)), expected);
    QVERIFY(!QFileInfo(path("copy/link to a file"_s)).isSymLink());
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::foldersMayEndInASeparator_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("target");
    QTest::newRow("neither") << "build"_s
                             << "copy"_s;
    QTest::newRow("source") << "build/"_s
                            << "copy"_s;
    QTest::newRow("target") << "build"_s
                            << "copy/"_s;
    QTest::newRow("both") << "build/"_s
                          << "copy/"_s;
    QTest::newRow("detour in the target") << "build"_s
                                          << "build/../copy/."_s;
}

void tst_CopyBinaries::foldersMayEndInASeparator()
{
    QFETCH(QString, source);
    QFETCH(QString, target);
    m_tree->write("build/a/b"_s, "content");

    BinariesController(nullptr).copyBinaries(path(source), path(target));
    QCOMPARE(TestTree::snapshot(path("copy"_s)), TestTree::snapshot(path("build"_s)));
}

void tst_CopyBinaries::targetMayBeRelative()
{
    m_tree->write("build/a/b"_s, "content");
    m_tree->makeFolder("here"_s);
    QDir::setCurrent(path("here"_s));

    BinariesController(nullptr).copyBinaries(path("build"_s), "copy"_s);
    QCOMPARE(m_tree->read("here/copy/a/b"_s), QByteArray("content"));
}

void tst_CopyBinaries::sourceSpeltOtherwiseMisplacesTargets_data()
{
    QTest::addColumn<QString>("source"); // %1: the absolute path of the folder that holds it
    QTest::addColumn<QString>("misplaced");
    QTest::newRow("relative to the root") << "%1/build"_s
                                          << "d/data/x"_s;
    QTest::newRow("doubled separator at the end") << "/%1/build//"_s
                                                  << "ata/x"_s;
    QTest::newRow("detour of two characters") << "/%1/./build"_s
                                              << "ata/x"_s;
}

void tst_CopyBinaries::sourceSpeltOtherwiseMisplacesTargets()
{
    QFETCH(QString, source);
    QFETCH(QString, misplaced);
    m_tree->write("build/data/x"_s, "content");
    const QString root = path(QString()).mid(1);
    QDir::setCurrent("/"_s);

    BinariesController(nullptr).copyBinaries(source.replace("%1"_s, root), path("copy"_s));
    QCOMPARE(TestTree::snapshot(path("copy"_s)).value(misplaced), QByteArray("content"));
}

void tst_CopyBinaries::sourceWithoutFilesMakesNothing_data()
{
    QTest::addColumn<QString>("source");
    QTest::newRow("missing") << "nowhere"_s;
    QTest::newRow("empty") << "empty"_s;
    QTest::newRow("empty folders") << "folders"_s;
    QTest::newRow("a file") << "file"_s;
}

void tst_CopyBinaries::sourceWithoutFilesMakesNothing()
{
    QFETCH(QString, source);
    m_tree->makeFolder("empty"_s);
    m_tree->makeFolder("folders/in/folders"_s);
    m_tree->write("file"_s, "content");

    BinariesController(nullptr).copyBinaries(path(source), path("copy"_s));
    QVERIFY(!m_tree->exists("copy"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::existingFilesAreReplacedAndOthersStay()
{
    m_tree->write("build/a"_s, "new a");
    m_tree->write("build/b"_s, "new b");
    m_tree->write("build/c"_s, "new c");
    m_tree->write("copy/a"_s, "old a");
    m_tree->write("copy/b"_s, "old b");
    m_tree->write("copy/other"_s, "other");

    BinariesController(nullptr).copyBinaries(path("build"_s), path("copy"_s));
    QCOMPARE(m_log->takeAll(Category), ReplacedOne + ReplacedOne);
    const QMap<QString, QByteArray> expected{
        {"a"_s, "new a"}, {"b"_s, "new b"}, {"c"_s, "new c"}, {"other"_s, "other"}};
    QCOMPARE(TestTree::snapshot(path("copy"_s)), expected);
}

/// The walk is over before the first copy is made, so that it never meets the copies.
void tst_CopyBinaries::copyIntoTheSourceItselfEnds()
{
    m_tree->write("build/a"_s, "a");
    m_tree->write("build/data/b"_s, "b");

    BinariesController(nullptr).copyBinaries(path("build"_s), path("build/data/copy"_s));
    const QMap<QString, QByteArray> expected{{"a"_s, "a"}, {"data/"_s, QByteArray()},
        {"data/b"_s, "b"}, {"data/copy/"_s, QByteArray()}, {"data/copy/a"_s, "a"},
        {"data/copy/data/"_s, QByteArray()}, {"data/copy/data/b"_s, "b"}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_CopyBinaries::fileThatCannotBeCopiedIsSkipped()
{
    m_tree->write("build/1"_s, "1");
    m_tree->write("build/blocked/by a file"_s, "x");
    m_tree->write("build/z"_s, "z");
    m_tree->write("copy/blocked"_s, "a file");

    BinariesController(nullptr).copyBinaries(path("build"_s), path("copy"_s));
    const QMap<QString, QByteArray> expected{{"1"_s, "1"}, {"blocked"_s, "a file"}, {"z"_s, "z"}};
    QCOMPARE(TestTree::snapshot(path("copy"_s)), expected);
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::unreadableFileIsSkipped()
{
    m_tree->write("build/1"_s, "1");
    m_tree->write("build/an unreadable"_s, "x");
    m_tree->write("build/z"_s, "z");
    s_opensFail = true;

    BinariesController(nullptr).copyBinaries(path("build"_s), path("copy"_s));
    const QMap<QString, QByteArray> expected{{"1"_s, "1"}, {"z"_s, "z"}};
    QCOMPARE(TestTree::snapshot(path("copy"_s)), expected);
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_CopyBinaries::longPathsAreWarnedAbout_data()
{
    QTest::addColumn<int>("length"); // of the longer of the two paths
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("sourceWarned");
    QTest::addColumn<bool>("targetWarned");
    QTest::newRow("target of 1023") << 1023 << "b"_s
                                    << "a copy"_s << false << false;
    QTest::newRow("target of 1024") << 1024 << "b"_s
                                    << "a copy"_s << false << true;
    QTest::newRow("source of 1023") << 1023 << "a build"_s
                                    << "c"_s << false << false;
    QTest::newRow("source of 1024") << 1024 << "a build"_s
                                    << "c"_s << true << false;
    QTest::newRow("both of 1024") << 1024 << "b"_s
                                  << "c"_s << true << true;
    QTest::newRow("both above") << 1300 << "build"_s
                                << "c"_s << true << true;
}

void tst_CopyBinaries::longPathsAreWarnedAbout()
{
    QFETCH(int, length);
    QFETCH(QString, source);
    QFETCH(QString, target);
    QFETCH(bool, sourceWarned);
    QFETCH(bool, targetWarned);
    const QString longer = source.size() > target.size() ? source : target;
    const QString relative = pathOfLength(path(longer), length).mid(path(longer).size());
    m_tree->write(source + relative, "content");

    BinariesController(nullptr).copyBinaries(path(source), path(target));
    QStringList lines;
    if (sourceWarned)
        lines.append(longPathWarning(path(source) + relative));
    if (targetWarned)
        lines.append(longPathWarning(path(target) + relative));
    QCOMPARE(m_log->takeAll(Category), lines);
    QCOMPARE(m_tree->read(target + relative), QByteArray("content"));
}

void tst_CopyBinaries::eachFileIsWarnedAboutSourceFirst()
{
    const QString folder = pathOfLength(path("build"_s), 1023).mid(path("build"_s).size());
    m_tree->write("build"_s + folder + "/a"_s, "a");
    m_tree->write("build"_s + folder + "/b"_s, "b");
    m_tree->write("build/short"_s, "s");
    m_tree->write("copy!"_s + folder + "/a"_s, "old");
    m_tree->write("copy!"_s + folder + "/b"_s, "old");

    BinariesController(nullptr).copyBinaries(path("build"_s), path("copy!"_s));
    const auto linesOf = [&](const QString &name) {
        return QStringList({longPathWarning(path("build"_s) + folder + name),
                   longPathWarning(path("copy!"_s) + folder + name)})
            + ReplacedOne;
    };
    const QStringList lines = m_log->takeAll(Category);
    QCOMPARE(lines.size(), 6);
    const bool startsWithA = lines.first().endsWith("/a"_s); // the folder's order is its own
    QCOMPARE(
        lines, startsWithA ? linesOf("/a"_s) + linesOf("/b"_s) : linesOf("/b"_s) + linesOf("/a"_s));
}

void tst_CopyBinaries::lengthIsCountedInUtf16()
{
    // 1022 characters and one that takes two units, far more bytes; then one unit less.
    const QString longPath
        = pathOfLength(path("build"_s), 1022 - 20) + QString(20, QChar(0xfc)) + "🎮"_s;
    QCOMPARE(longPath.size(), 1024);
    const QString nearMiss = longPath.chopped(3) + "🎮"_s;
    m_tree->write(longPath.mid(path(QString()).size() + 1), "1");
    m_tree->write(nearMiss.mid(path(QString()).size() + 1), "2");

    BinariesController(nullptr).copyBinaries(path("build"_s), path("c"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList(longPathWarning(longPath)));
}

void tst_CopyBinaries::worksInTheCallersThreadAlone()
{
    m_tree->write("build/a"_s, "a");
    QThreadPool::globalInstance()->setMaxThreadCount(1);
    QSemaphore go;
    QThreadPool::globalInstance()->start([&go] { go.acquire(); }); // the only pool thread

    BinariesController(nullptr).copyBinaries(path("build"_s), path("copy"_s));
    const bool copied = m_tree->exists("copy/a"_s);
    go.release();
    QThreadPool::globalInstance()->waitForDone();
    QVERIFY(copied);
}

void tst_CopyBinaries::nothingIsSignalledNorCounted()
{
    m_tree->write("build/a"_s, "a");
    m_tree->write("patch/patchRules.json"_s, R"([{"rule":"copy","relative_path":"/b"}])");
    BinariesController controller(nullptr);
    QSignalSpy patchProgress(&controller, &BinariesController::patchProgress);
    QSignalSpy verifyProgress(&controller, &BinariesController::verifyProgress);
    QSignalSpy finished(&controller, &BinariesController::finished);
    QSignalSpy verifyFinished(&controller, &BinariesController::verifyFinished);
    QSignalSpy applyPatchError(&controller, &BinariesController::applyPatchError);
    QSignalSpy verifyError(&controller, &BinariesController::verifyError);

    controller.copyBinaries(path("build"_s), path("copy"_s));
    QCoreApplication::processEvents();
    for (const QSignalSpy *spy : {&patchProgress, &verifyProgress, &finished, &verifyFinished,
             &applyPatchError, &verifyError})
        QCOMPARE(spy->size(), 0);

    QVERIFY(controller.verifyPatchedFiles(path("build"_s), path("patch"_s)));
    QVERIFY(verifyFinished.wait(Patience));
    QCOMPARE(verifyProgress.first(), QVariantList({1, 1}));
}

QTEST_GUILESS_MAIN(tst_CopyBinaries)

#include "tst_copybinaries.moc"
