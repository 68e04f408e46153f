// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "testtree.h"

#include <Pellox/patchhelp.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QtConcurrent>
#include <QtEndian>
#include <QTest>

#include <librsync.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using Progress = std::function<void(qint64, qint64)>;
using Call = std::function<bool()>;
Q_DECLARE_METATYPE(Call)

namespace {

bool s_noMemoryForHashTables = false;
QList<rs_signature_t *> s_signatureSets; ///< loaded by the running test and not released
QList<rs_signature_t *> s_signatureSetsOfEarlierTests; ///< so that promised leaks are no news
QStringList s_closed; ///< names of the files that were closed, in order

template <typename Function> Function *librsyncs(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The program's own definitions come before librsync's: they take notes, and one fails on demand.

extern "C" rs_result rs_loadsig_file(FILE *file, rs_signature_t **signature, rs_stats_t *stats)
{
    using Load = rs_result(FILE *, rs_signature_t **, rs_stats_t *);
    const rs_result result = librsyncs<Load>("rs_loadsig_file")(file, signature, stats);
    s_signatureSets.append(*signature);
    return result;
}

extern "C" void rs_free_sumset(rs_signature_t *signature)
{
    s_signatureSets.removeOne(signature);
    librsyncs<void(rs_signature_t *)>("rs_free_sumset")(signature);
}

extern "C" rs_result rs_build_hash_table(rs_signature_t *signature)
{
    if (s_noMemoryForHashTables)
        return RS_MEM_ERROR;
    return librsyncs<rs_result(rs_signature_t *)>("rs_build_hash_table")(signature);
}

extern "C" int rs_file_close(FILE *file)
{
    if (!file) {
        s_closed.append(QStringLiteral("nothing"));
        return 0;
    }
    std::error_code ignored;
    const auto link = "/proc/self/fd/" + std::to_string(fileno(file));
    const auto target = std::filesystem::read_symlink(link, ignored);
    s_closed.append(QString::fromStdString(target.filename().string()));
    return librsyncs<int(FILE *)>("rs_file_close")(file);
}

namespace {

/// What every open descriptor of the process leads to.
QMap<int, QString> openFiles()
{
    QMap<int, QString> files;
    const QString listed = QStringLiteral("/proc/%1/fd").arg(getpid());
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const auto target = std::filesystem::read_symlink(entry.path(), ignored);
        const QString path = QString::fromStdString(target.string());
        if (path != listed)
            files.insert(std::stoi(entry.path().filename().string()), path);
    }
    return files;
}

/// The files that have been opened since this was made and are still open.
class OpenedSince
{
public:
    OpenedSince()
        : m_before(openFiles())
    {
    }

    QMap<int, QString> files() const
    {
        QMap<int, QString> opened = openFiles();
        for (const int descriptor : m_before.keys())
            opened.remove(descriptor);
        return opened;
    }

    /// File names, sorted.
    QStringList names() const
    {
        QStringList names;
        for (const QString &path : files())
            names.append(QFileInfo(path).fileName());
        names.sort();
        return names;
    }

    /// Closes them and tells how many there were.
    int close() const
    {
        const QList<int> descriptors = files().keys();
        for (const int descriptor : descriptors)
            ::close(descriptor);
        return descriptors.size();
    }

private:
    QMap<int, QString> m_before;
};

/// Lets the process open only so many more files while it lives.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int more)
    {
        getrlimit(RLIMIT_NOFILE, &m_previous);
        const QMap<int, QString> open = openFiles();
        int limit = 0;
        for (; open.contains(limit) || more > 0; ++limit) {
            if (!open.contains(limit))
                --more;
        }
        rlimit lowered = m_previous;
        lowered.rlim_cur = static_cast<rlim_t>(limit);
        setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_previous); }
    DescriptorLimit(const DescriptorLimit &) = delete;
    DescriptorLimit &operator=(const DescriptorLimit &) = delete;

private:
    rlimit m_previous{};
};

/// Lets the process write no file beyond so many bytes while it lives.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
        : m_previousHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &m_previous);
        rlimit lowered = m_previous;
        lowered.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lowered);
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

/// Runs @p work in a child process and tells how that ended: "returned", or what stopped it.
QString endOfChild(const std::function<void()> &work)
{
    const pid_t child = fork();
    if (child == 0) {
        std::signal(SIGABRT, SIG_DFL);
        std::signal(SIGSEGV, SIG_DFL);
        const rlimit noCore{};
        setrlimit(RLIMIT_CORE, &noCore);
        alarm(60);
        work();
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child)
        return QStringLiteral("no child");
    if (WIFSIGNALED(status))
        return QStringLiteral("signal %1").arg(WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? QStringLiteral("returned")
                                    : QStringLiteral("exit %1").arg(WEXITSTATUS(status));
}

void ignoreMessage(Pellox::loglevel, const char *) { }

/// Null for a null byte array, which stands for a null pointer.
const char *asCString(const QByteArray &path)
{
    return path.isNull() ? nullptr : path.constData();
}

QByteArray withNumber(QByteArray bytes, int offset, quint32 number)
{
    qToBigEndian(number, bytes.data() + offset);
    return bytes;
}

/// A damaged copy of @p content, the same for the same @p seed. The bytes from @p spareFrom to
/// before @p spareTo stay as they are.
QByteArray damaged(QByteArray content, quint32 seed, int spareFrom = 0, int spareTo = 0)
{
    QRandomGenerator random(seed);
    // Every other one is hit in its first bytes only, where commands and lengths stand.
    const int reach = random.bounded(2) ? content.size() : qMin(content.size(), 32);
    for (int hits = 1 + random.bounded(4); hits > 0; --hits) {
        const int at = random.bounded(reach);
        const char byte = static_cast<char>(random.bounded(256));
        if (at < spareFrom || at >= spareTo)
            content[at] = byte;
    }
    if (random.bounded(4) == 0)
        content.truncate(qMax(random.bounded(content.size()), spareTo));
    return content;
}

const QByteArray NullPath;
const QByteArray TooLongName(256, 'x');
const QByteArray UnreadableFile("/proc/self/mem"); // opens, but no read at its start succeeds

} // namespace

/**
 * Every way in which the delta primitives fail. All of it happens in one program, which has to
 * live on. Paths are relative to a folder in which init() puts an example of each kind of file.
 */
class tst_PatchHelpFailures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void signatureOfFilesThatDoNotOpen_data();
    void signatureOfFilesThatDoNotOpen();
    void deltaOfFilesThatDoNotOpen_data();
    void deltaOfFilesThatDoNotOpen();
    void patchOfFilesThatDoNotOpen_data();
    void patchOfFilesThatDoNotOpen();

    void inputThatDoesNotOpen_data();
    void inputThatDoesNotOpen();
    void outputThatDoesNotOpen_data();
    void outputThatDoesNotOpen();
    void outputThatIsAnInputIsRefused_data();
    void outputThatIsAnInputIsRefused();
    void outputBesideALinkedInputIsNotRefused();

    void filesAreOpenedInOrder_data();
    void filesAreOpenedInOrder();
    void everythingIsReleasedInOrder_data();
    void everythingIsReleasedInOrder();

    void basisThatCannotBeRead_data();
    void basisThatCannotBeRead();
    void newFileThatCannotBeRead_data();
    void newFileThatCannotBeRead();
    void patchInputThatCannotBeRead_data();
    void patchInputThatCannotBeRead();
    void fullDisk_data();
    void fullDisk();
    void outputOfAFailedCallStaysWhereItIs();

    void signatureThatDoesNotLoad_data();
    void signatureThatDoesNotLoad();
    void signatureThatDoesNotLoadLeavesItsFilesOpen();
    void hashTableThatCannotBeBuilt();

    void truncatedSignatures();
    void damagedSignaturesNeverEndTheProcess();
    void blockLengthThatNoBufferCanHoldNeverEndsTheProcess_data();
    void blockLengthThatNoBufferCanHoldNeverEndsTheProcess();

    void brokenDelta_data();
    void brokenDelta();
    void truncatedDeltas();
    void damagedDeltasNeverEndTheProcess();
    void wrongBasis_data();
    void wrongBasis();

    void threadsFailWithTheirOwnMessages();
    void badPathsOneAfterTheOther();

private:
    void write(const char *relative, const QByteArray &content) const
    {
        m_tree->write(QLatin1String(relative), content);
    }
    /// For tests in a loop: without the truncation that makes some file systems slow.
    void overwrite(const char *relative, const QByteArray &content) const;
    QByteArray read(const char *relative) const { return m_tree->read(QLatin1String(relative)); }
    bool exists(const char *relative) const { return m_tree->exists(QLatin1String(relative)); }
    QStringList takeLines() { return m_log->takeAll("PatchHelper"); }
    /// All that anything logged, to whatever category of the library or to none.
    QStringList takeAllLines();
    /// Patches with and without a progress callable, which may make no difference.
    bool patch(const QByteArray &basis, const QByteArray &delta, const QByteArray &output);

    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<LogCapture> m_log;
};

void tst_PatchHelpFailures::init()
{
    m_tree = std::make_unique<TestTree>();
    QDir::setCurrent(m_tree->path());
    Pellox::setRsyncLogOutput(ignoreMessage);

    write("old", randomBytes(5000, 1));
    write("new", read("old").left(4096) + "new content" + randomBytes(3000, 2));
    QVERIFY(Pellox::createSignature("old", "signature"));
    QVERIFY(Pellox::createDelta("signature", "new", "delta"));

    write("file", "a file");
    m_tree->makeFolder(QStringLiteral("folder"));
    QCOMPARE(mkfifo("pipe", 0600), 0);
    m_tree->link(QStringLiteral("link to pipe"), QStringLiteral("pipe"));
    m_tree->link(QStringLiteral("dangling link"), QStringLiteral("nowhere"));
    m_tree->link(QStringLiteral("loop"), QStringLiteral("loop"));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "socket");
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QCOMPARE(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(listener);

    m_log = std::make_unique<LogCapture>();
    s_closed.clear();
    s_signatureSetsOfEarlierTests += s_signatureSets;
    s_signatureSets.clear();
}

void tst_PatchHelpFailures::cleanup()
{
    QDir::setCurrent(QDir::rootPath());
    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
    m_tree.reset();
}

void tst_PatchHelpFailures::overwrite(const char *relative, const QByteArray &content) const
{
    QFile file(m_tree->path(QLatin1String(relative)));
    QVERIFY(file.open(QIODevice::ReadWrite));
    QCOMPARE(file.write(content), static_cast<qint64>(content.size()));
    QVERIFY(file.resize(content.size()));
}

QStringList tst_PatchHelpFailures::takeAllLines()
{
    QStringList lines;
    for (const char *category :
        {"default", "PatchHelper", "BinariesController", "DeltaController", "SignaturesController"})
        lines += m_log->takeAll(category);
    return lines;
}

bool tst_PatchHelpFailures::patch(
    const QByteArray &basis, const QByteArray &delta, const QByteArray &output)
{
    const auto contentOf = [](const QByteArray &path) {
        QFile file(QFile::decodeName(path));
        return QFileInfo(file).isFile() && file.open(QIODevice::ReadOnly) ? file.readAll()
                                                                          : QByteArray();
    };
    int calls = 0;
    Progress progress = [&calls](qint64, qint64) { ++calls; };
    const bool result
        = Pellox::applyPatch(asCString(basis), asCString(delta), asCString(output), 7107, nullptr);
    const QByteArray written = contentOf(output);
    const bool resultWithProgress = Pellox::applyPatch(
        asCString(basis), asCString(delta), asCString(output), 7107, &progress);
    if (resultWithProgress != result || contentOf(output) != written || calls > 0)
        QTest::qFail("progress makes a difference", __FILE__, __LINE__);
    return result;
}

void tst_PatchHelpFailures::signatureOfFilesThatDoNotOpen_data()
{
    QTest::addColumn<QByteArray>("basis");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QStringList>("lines");

    const QByteArray missing("missing");
    const QByteArray folder("folder");
    const QString noBasis
        = QStringLiteral("debug: ERROR: Can't open basic file for signature creating missing");
    const QString noSignature
        = QStringLiteral("debug: ERROR: Can't open signature file for signature creating folder");

    QTest::newRow("basis") << missing << QByteArray("out") << QStringList{noBasis};
    QTest::newRow("signature") << QByteArray("old") << folder << QStringList{noSignature};
    QTest::newRow("both") << missing << folder << QStringList{noBasis, noSignature};
}

void tst_PatchHelpFailures::signatureOfFilesThatDoNotOpen()
{
    QFETCH(QByteArray, basis);
    QFETCH(QByteArray, signature);
    QFETCH(QStringList, lines);
    if (signature == "out")
        write("out", "content of an earlier run");
    const OpenedSince opened;

    QVERIFY(!Pellox::createSignature(basis.constData(), signature.constData()));
    QCOMPARE(takeLines(), lines);
    QVERIFY(!Pellox::createSignature(QString::fromUtf8(basis), QString::fromUtf8(signature)));
    QCOMPARE(takeLines(), lines);

    QCOMPARE(opened.names(), QStringList());
    if (signature == "out")
        QCOMPARE(read("out"), QByteArray(""));
}

void tst_PatchHelpFailures::deltaOfFilesThatDoNotOpen_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArray>("newFile");
    QTest::addColumn<QByteArray>("delta");
    QTest::addColumn<QStringList>("lines");

    const QByteArray missing("missing");
    const QByteArray alsoMissing("also missing");
    const QByteArray folder("folder");
    const QString noSignature = QStringLiteral(
        "debug: ERROR: Rsync can't open signature file for patch creating missing");
    const QString noNewFile
        = QStringLiteral("debug: ERROR: Rsync can't open new file for patch creating also missing");
    const QString noDelta
        = QStringLiteral("debug: ERROR: Rsync can't open delta file for patch creating folder");

    QTest::newRow("signature") << missing << QByteArray("new") << QByteArray("out")
                               << QStringList{noSignature};
    QTest::newRow("new file") << QByteArray("signature") << alsoMissing << QByteArray("out")
                              << QStringList{noNewFile};
    QTest::newRow("delta") << QByteArray("signature") << QByteArray("new") << folder
                           << QStringList{noDelta};
    QTest::newRow("signature and new file")
        << missing << alsoMissing << QByteArray("out") << QStringList{noSignature, noNewFile};
    QTest::newRow("signature and delta")
        << missing << QByteArray("new") << folder << QStringList{noSignature, noDelta};
    QTest::newRow("new file and delta")
        << QByteArray("signature") << alsoMissing << folder << QStringList{noNewFile, noDelta};
    QTest::newRow("all") << missing << alsoMissing << folder
                         << QStringList{noSignature, noNewFile, noDelta};
}

void tst_PatchHelpFailures::deltaOfFilesThatDoNotOpen()
{
    QFETCH(QByteArray, signature);
    QFETCH(QByteArray, newFile);
    QFETCH(QByteArray, delta);
    QFETCH(QStringList, lines);
    if (delta == "out")
        write("out", "content of an earlier run");
    const OpenedSince opened;

    QVERIFY(!Pellox::createDelta(signature.constData(), newFile.constData(), delta.constData()));
    QCOMPARE(takeLines(), lines);
    QVERIFY(!Pellox::createDelta(
        QString::fromUtf8(signature), QString::fromUtf8(newFile), QString::fromUtf8(delta)));
    QCOMPARE(takeLines(), lines);

    QCOMPARE(opened.names(), QStringList());
    if (delta == "out")
        QCOMPARE(read("out"), QByteArray(""));
}

void tst_PatchHelpFailures::patchOfFilesThatDoNotOpen_data()
{
    QTest::addColumn<QByteArray>("basis");
    QTest::addColumn<QByteArray>("delta");
    QTest::addColumn<QByteArray>("output");

    const QByteArray missing("missing");
    QTest::newRow("basis") << missing << QByteArray("delta") << QByteArray("out");
    QTest::newRow("delta") << QByteArray("old") << missing << QByteArray("out");
    QTest::newRow("new file") << QByteArray("old") << QByteArray("delta") << QByteArray("folder");
    QTest::newRow("basis and delta") << missing << missing << QByteArray("out");
    QTest::newRow("basis and new file") << missing << QByteArray("delta") << QByteArray("folder");
    QTest::newRow("delta and new file") << QByteArray("old") << missing << QByteArray("folder");
    QTest::newRow("all") << missing << missing << QByteArray("folder");
}

void tst_PatchHelpFailures::patchOfFilesThatDoNotOpen()
{
    QFETCH(QByteArray, basis);
    QFETCH(QByteArray, delta);
    QFETCH(QByteArray, output);
    if (output == "out")
        write("out", "content of an earlier run");
    const OpenedSince opened;

    QVERIFY(!patch(basis, delta, output));
    QVERIFY(!Pellox::applyPatch(QString::fromUtf8(basis), QString::fromUtf8(delta),
        QString::fromUtf8(output), 7107, nullptr));

    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(opened.names(), QStringList());
    if (output == "out")
        QCOMPARE(read("out"), QByteArray(""));
}

void tst_PatchHelpFailures::inputThatDoesNotOpen_data()
{
    QTest::addColumn<QByteArray>("input");

    QTest::newRow("missing") << QByteArray("missing");
    QTest::newRow("missing folder") << QByteArray("missing/file");
    QTest::newRow("below a file") << QByteArray("file/below");
    QTest::newRow("file with a separator at its end") << QByteArray("old/");
    QTest::newRow("empty path") << QByteArray("");
    QTest::newRow("null") << NullPath;
    QTest::newRow("a dash") << QByteArray("-");
    QTest::newRow("dangling link") << QByteArray("dangling link");
    QTest::newRow("link to itself") << QByteArray("loop");
    QTest::newRow("named pipe") << QByteArray("pipe");
    QTest::newRow("link to a named pipe") << QByteArray("link to pipe");
    QTest::newRow("socket") << QByteArray("socket");
    QTest::newRow("name longer than any file's") << TooLongName;
}

void tst_PatchHelpFailures::inputThatDoesNotOpen()
{
    QFETCH(QByteArray, input);
    const char *inputPath = asCString(input);
    const QString inputText = QString::fromUtf8(input);
    const OpenedSince opened;

    QVERIFY(!Pellox::createSignature(inputPath, "out"));
    QCOMPARE(takeLines(),
        QStringList(QStringLiteral("debug: ERROR: Can't open basic file for signature creating ")
            + inputText));
    QVERIFY(!Pellox::createDelta(inputPath, "new", "out"));
    QCOMPARE(takeLines(),
        QStringList(
            QStringLiteral("debug: ERROR: Rsync can't open signature file for patch creating ")
            + inputText));
    QVERIFY(!Pellox::createDelta("signature", inputPath, "out"));
    QCOMPARE(takeLines(),
        QStringList(QStringLiteral("debug: ERROR: Rsync can't open new file for patch creating ")
            + inputText));
    QVERIFY(!patch(input, "delta", "out"));
    QVERIFY(!patch("old", input, "out"));

    QCOMPARE(read("out"), QByteArray(""));
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::outputThatDoesNotOpen_data()
{
    QTest::addColumn<QByteArray>("output");

    QTest::newRow("folder") << QByteArray("folder");
    QTest::newRow("missing folder") << QByteArray("missing/file");
    QTest::newRow("below a file") << QByteArray("file/below");
    QTest::newRow("separator at its end") << QByteArray("missing/");
    QTest::newRow("empty path") << QByteArray("");
    QTest::newRow("null") << NullPath;
    QTest::newRow("link to itself") << QByteArray("loop");
    QTest::newRow("named pipe") << QByteArray("pipe");
    QTest::newRow("link to a named pipe") << QByteArray("link to pipe");
    QTest::newRow("socket") << QByteArray("socket");
    QTest::newRow("name longer than any file's") << TooLongName;
}

void tst_PatchHelpFailures::outputThatDoesNotOpen()
{
    QFETCH(QByteArray, output);
    const char *outputPath = asCString(output);
    const QString outputText = QString::fromUtf8(output);
    const QStringList entries = QDir().entryList(QDir::AllEntries | QDir::System);
    const OpenedSince opened;

    QVERIFY(!Pellox::createSignature("old", outputPath));
    QCOMPARE(takeLines(),
        QStringList(
            QStringLiteral("debug: ERROR: Can't open signature file for signature creating ")
            + outputText));
    QVERIFY(!Pellox::createDelta("signature", "new", outputPath));
    QCOMPARE(takeLines(),
        QStringList(QStringLiteral("debug: ERROR: Rsync can't open delta file for patch creating ")
            + outputText));
    QVERIFY(!patch("old", "delta", output));

    QCOMPARE(QDir().entryList(QDir::AllEntries | QDir::System), entries);
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::outputThatIsAnInputIsRefused_data()
{
    QTest::addColumn<QByteArray>("form");

    QTest::newRow("same path") << QByteArray("%1");
    QTest::newRow("other spelling") << QByteArray("./folder/../%1");
    QTest::newRow("symbolic link") << QByteArray("link to %1");
    QTest::newRow("hard link") << QByteArray("twin of %1");
    QTest::newRow("through a linked folder") << QByteArray("link to here/%1");
}

void tst_PatchHelpFailures::outputThatIsAnInputIsRefused()
{
    QFETCH(QByteArray, form);
    m_tree->link(QStringLiteral("link to here"), QStringLiteral("."));
    for (const char *input : {"old", "new", "signature", "delta"}) {
        m_tree->link(QStringLiteral("link to ") + QLatin1String(input), QLatin1String(input));
        QCOMPARE(::link(input, (QByteArray("twin of ") + input).constData()), 0);
    }
    const auto alias = [&form](const char *input) { return QByteArray(form).replace("%1", input); };
    const auto message = [](const char *text, const QByteArray &path) {
        return QStringList(QLatin1String(text) + QString::fromUtf8(path));
    };
    const QList<QByteArray> before{read("old"), read("new"), read("signature"), read("delta")};
    const OpenedSince opened;

    QVERIFY(!Pellox::createSignature("old", alias("old").constData()));
    QCOMPARE(takeLines(),
        message("debug: ERROR: Can't open signature file for signature creating ", alias("old")));
    QVERIFY(!Pellox::createDelta("signature", "new", alias("signature").constData()));
    QCOMPARE(takeLines(),
        message(
            "debug: ERROR: Rsync can't open delta file for patch creating ", alias("signature")));
    QVERIFY(!Pellox::createDelta("signature", "new", alias("new").constData()));
    QCOMPARE(takeLines(),
        message("debug: ERROR: Rsync can't open delta file for patch creating ", alias("new")));
    QVERIFY(!patch("old", "delta", alias("old")));
    QVERIFY(!patch("old", "delta", alias("delta")));

    QCOMPARE(opened.names(), QStringList());
    QVERIFY(
        before == (QList<QByteArray>{read("old"), read("new"), read("signature"), read("delta")}));
}

void tst_PatchHelpFailures::outputBesideALinkedInputIsNotRefused()
{
    QCOMPARE(::link("old", "twin of old"), 0);
    write("copy of old", read("old"));
    QVERIFY(Pellox::createSignature("twin of old", "copy of old"));
    QVERIFY(read("copy of old") == read("signature"));
}

void tst_PatchHelpFailures::filesAreOpenedInOrder_data()
{
    QTest::addColumn<int>("descriptors");
    QTest::addColumn<QStringList>("signatureLines");
    QTest::addColumn<QStringList>("deltaLines");

    const QString noBasis
        = QStringLiteral("debug: ERROR: Can't open basic file for signature creating old");
    const QString noSignatureOutput
        = QStringLiteral("debug: ERROR: Can't open signature file for signature creating out");
    const QString noSignature = QStringLiteral(
        "debug: ERROR: Rsync can't open signature file for patch creating signature");
    const QString noNewFile
        = QStringLiteral("debug: ERROR: Rsync can't open new file for patch creating new");
    const QString noDelta
        = QStringLiteral("debug: ERROR: Rsync can't open delta file for patch creating out");

    QTest::newRow("no more descriptors") << 0 << QStringList{noBasis, noSignatureOutput}
                                         << QStringList{noSignature, noNewFile, noDelta};
    QTest::newRow("one") << 1 << QStringList{noSignatureOutput} << QStringList{noNewFile, noDelta};
    QTest::newRow("two") << 2 << QStringList() << QStringList{noDelta};
    QTest::newRow("three") << 3 << QStringList() << QStringList();
}

void tst_PatchHelpFailures::filesAreOpenedInOrder()
{
    QFETCH(int, descriptors);
    const OpenedSince opened;
    bool signatureMade = false;
    bool deltaMade = false;
    bool patched = false;
    {
        const DescriptorLimit limit(descriptors);
        signatureMade = Pellox::createSignature("old", "out");
        deltaMade = Pellox::createDelta("signature", "new", "out");
        patched = Pellox::applyPatch("old", "delta", "patched", 7107, nullptr);
    }
    QFETCH(QStringList, signatureLines);
    QFETCH(QStringList, deltaLines);
    QCOMPARE(takeAllLines(), signatureLines + deltaLines);
    QCOMPARE(signatureMade, signatureLines.isEmpty());
    QCOMPARE(deltaMade, deltaLines.isEmpty());
    QCOMPARE(patched, descriptors == 3);
    QCOMPARE(exists("patched"), descriptors == 3);
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::everythingIsReleasedInOrder_data()
{
    QTest::addColumn<Call>("call");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QStringList>("closed");

    using Pellox::applyPatch;
    using Pellox::createDelta;
    using Pellox::createSignature;
    const QString old = QStringLiteral("old");
    const QString newFile = QStringLiteral("new");
    const QString signature = QStringLiteral("signature");
    const QString delta = QStringLiteral("delta");
    const QString out = QStringLiteral("out");

    QTest::newRow("signature") << Call([] { return createSignature("old", "out"); }) << true
                               << QStringList{out, old};
    QTest::newRow("signature that fails") << Call([] { return createSignature("folder", "out"); })
                                          << false << QStringList{out, QStringLiteral("folder")};
    QTest::newRow("signature without basis")
        << Call([] { return createSignature("missing", "out"); }) << false << QStringList{out};
    QTest::newRow("signature without output")
        << Call([] { return createSignature("old", "folder"); }) << false << QStringList{old};

    QTest::newRow("delta") << Call([] { return createDelta("signature", "new", "out"); }) << true
                           << QStringList{out, newFile, signature};
    QTest::newRow("delta that fails")
        << Call([] { return createDelta("signature", "folder", "out"); }) << false
        << QStringList{out, QStringLiteral("folder"), signature};
    QTest::newRow("delta without signature")
        << Call([] { return createDelta("missing", "new", "out"); }) << false
        << QStringList{out, newFile};
    QTest::newRow("delta without new file")
        << Call([] { return createDelta("signature", "missing", "out"); }) << false
        << QStringList{out, signature};
    QTest::newRow("delta without output")
        << Call([] { return createDelta("signature", "new", "folder"); }) << false
        << QStringList{newFile, signature};

    QTest::newRow("patch") << Call([] { return applyPatch("old", "delta", "out", 0, nullptr); })
                           << true << QStringList{out, delta, old};
    QTest::newRow("patch that fails")
        << Call([] { return applyPatch("old", "new", "out", 0, nullptr); }) << false
        << QStringList{out, newFile, old};
    QTest::newRow("patch without basis")
        << Call([] { return applyPatch("missing", "delta", "out", 0, nullptr); }) << false
        << QStringList{out, delta};
    QTest::newRow("patch without delta")
        << Call([] { return applyPatch("old", "missing", "out", 0, nullptr); }) << false
        << QStringList{out, old};
    QTest::newRow("patch without output")
        << Call([] { return applyPatch("old", "delta", "folder", 0, nullptr); }) << false
        << QStringList{delta, old};
}

void tst_PatchHelpFailures::everythingIsReleasedInOrder()
{
    QFETCH(Call, call);
    const OpenedSince opened;
    QTEST(call(), "result");
    QTEST(s_closed, "closed");
    QCOMPARE(s_signatureSets.size(), 0);
    QCOMPARE(opened.names(), QStringList());
    takeLines();
}

void tst_PatchHelpFailures::basisThatCannotBeRead_data()
{
    QTest::addColumn<QByteArray>("input");

    QTest::newRow("folder") << QByteArray("folder");
    QTest::newRow("unreadable file") << UnreadableFile;
}

void tst_PatchHelpFailures::basisThatCannotBeRead()
{
    QFETCH(QByteArray, input);
    const OpenedSince opened;
    QVERIFY(!Pellox::createSignature(input.constData(), "out"));
    QCOMPARE(takeLines(),
        (QStringList{QStringLiteral("debug: ERROR: Rsync can't create signature file out"),
            QStringLiteral("debug: Rsync error code: 100")}));
    QVERIFY(exists("out"));
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::newFileThatCannotBeRead_data()
{
    basisThatCannotBeRead_data();
}

void tst_PatchHelpFailures::newFileThatCannotBeRead()
{
    QFETCH(QByteArray, input);
    const OpenedSince opened;
    QVERIFY(!Pellox::createDelta("signature", input.constData(), "out"));
    QCOMPARE(takeLines(),
        (QStringList{QStringLiteral("debug: ERROR: Rsync can't create delta file out"),
            QStringLiteral("debug: Rsync error code: 100")}));
    QVERIFY(exists("out"));
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::patchInputThatCannotBeRead_data()
{
    basisThatCannotBeRead_data();
}

void tst_PatchHelpFailures::patchInputThatCannotBeRead()
{
    QFETCH(QByteArray, input);
    const OpenedSince opened;
    QVERIFY(!patch(input, "delta", "out"));
    QVERIFY(!patch("old", input, "out"));
    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::fullDisk_data()
{
    QTest::addColumn<QByteArray>("oldContent");
    QTest::addColumn<QByteArray>("newContent");

    QTest::newRow("a few bytes") << QByteArray("") << QByteArray("x");
    QTest::newRow("some blocks") << randomBytes(5000, 1) << randomBytes(6000, 2);
    QTest::newRow("more than any buffer") << randomBytes(300000, 1) << randomBytes(300000, 2);
}

void tst_PatchHelpFailures::fullDisk()
{
    QFETCH(QByteArray, oldContent);
    QFETCH(QByteArray, newContent);
    write("old", oldContent);
    write("new", newContent);
    QVERIFY(Pellox::createSignature("old", "signature"));
    QVERIFY(Pellox::createDelta("signature", "new", "delta"));
    const OpenedSince opened;

    QVERIFY(!Pellox::createSignature("old", "/dev/full"));
    QCOMPARE(takeLines(),
        (QStringList{QStringLiteral("debug: ERROR: Rsync can't create signature file /dev/full"),
            QStringLiteral("debug: Rsync error code: 100")}));
    QVERIFY(!Pellox::createDelta("signature", "new", "/dev/full"));
    QCOMPARE(takeLines(),
        (QStringList{QStringLiteral("debug: ERROR: Rsync can't create delta file /dev/full"),
            QStringLiteral("debug: Rsync error code: 100")}));
    QVERIFY(!patch("old", "delta", "/dev/full"));
    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::outputOfAFailedCallStaysWhereItIs()
{
    constexpr int Limit = 40000;
    write("old", randomBytes(3000000, 1));
    write("new", randomBytes(90000, 2));
    QVERIFY(Pellox::createSignature("old", "signature"));
    QVERIFY(Pellox::createDelta("signature", "new", "delta"));
    const OpenedSince opened;
    {
        const FileSizeLimit limit(Limit);
        QVERIFY(!Pellox::createSignature("old", "part of signature"));
        QVERIFY(!Pellox::createDelta("signature", "new", "part of delta"));
        QVERIFY(!Pellox::applyPatch("old", "delta", "part of new", 90000, nullptr));
    }
    QCOMPARE(takeAllLines(),
        (QStringList{
            QStringLiteral("debug: ERROR: Rsync can't create signature file part of signature"),
            QStringLiteral("debug: Rsync error code: 100"),
            QStringLiteral("debug: ERROR: Rsync can't create delta file part of delta"),
            QStringLiteral("debug: Rsync error code: 100")}));
    QVERIFY(read("part of signature") == read("signature").left(Limit));
    QVERIFY(read("part of delta") == read("delta").left(Limit));
    QVERIFY(read("part of new") == read("new").left(Limit));
    QCOMPARE(opened.names(), QStringList());
}

void tst_PatchHelpFailures::signatureThatDoesNotLoad_data()
{
    QTest::addColumn<QByteArray>("content"); // null: see the row's path
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QStringList>("lines");

    const auto lines = [](const char *path, const char *code) {
        return QStringList{
            QStringLiteral("debug: ERROR: Rsync can't load signature file ") + QLatin1String(path),
            QStringLiteral("debug: Rsync error code: ") + QLatin1String(code)};
    };
    const QByteArray header = QByteArray::fromHex("72730137 00000800 00000020");
    const QByteArray bad("bad");
    QTest::newRow("empty") << QByteArray("") << bad << lines("bad", "103");
    QTest::newRow("half a magic number") << header.left(2) << bad << lines("bad", "103");
    QTest::newRow("half a header") << header.left(8) << bad << lines("bad", "103");
    QTest::newRow("half a block") << header + QByteArray(20, 'x') << bad << lines("bad", "103");
    QTest::newRow("other content")
        << QByteArray("This is no librsync signature.") << bad << lines("bad", "106");
    QTest::newRow("other magic number")
        << withNumber(header, 0, 0x12345678U) << bad << lines("bad", "104");
    QTest::newRow("magic number of a delta")
        << withNumber(header, 0, 0x72730236U) << bad << lines("bad", "104");
    QTest::newRow("an empty delta")
        << QByteArray::fromHex("72730236 00") << bad << lines("bad", "103");
    QTest::newRow("no block length") << withNumber(header, 4, 0) << bad << lines("bad", "106");
    QTest::newRow("negative block length")
        << withNumber(header, 4, 0x80000000U) << bad << lines("bad", "106");
    QTest::newRow("strong sums longer than any")
        << withNumber(header, 8, 33) << bad << lines("bad", "106");
    QTest::newRow("folder") << QByteArray() << QByteArray("folder") << lines("folder", "100");
    QTest::newRow("unreadable file")
        << QByteArray() << UnreadableFile << lines("/proc/self/mem", "100");
}

void tst_PatchHelpFailures::signatureThatDoesNotLoad()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, signature);
    QFETCH(QStringList, lines);
    if (!content.isNull())
        write("bad", content);
    const OpenedSince opened;

    QVERIFY(!Pellox::createDelta(signature.constData(), "new", "out"));
    QCOMPARE(takeLines(), lines);
    QCOMPARE(opened.files().size(), 3);
    QCOMPARE(read("out"), QByteArray(""));
    QVERIFY(!Pellox::createDelta(
        QString::fromUtf8(signature), QStringLiteral("new"), QStringLiteral("out")));
    QCOMPARE(takeLines(), lines);
    QCOMPARE(opened.close(), 6);
}

void tst_PatchHelpFailures::signatureThatDoesNotLoadLeavesItsFilesOpen()
{
    const OpenedSince opened;
    QVERIFY(!Pellox::createDelta("file", "new", "out"));
    takeLines();
    QCOMPARE(s_closed, QStringList());
    QCOMPARE(s_signatureSets.size(), 1);

    const QMap<int, QString> files = opened.files();
    QCOMPARE(files.size(), 3);
    for (const char *input : {"file", "new"}) {
        const int descriptor = files.key(m_tree->path(QLatin1String(input)), -1);
        QCOMPARE(fcntl(descriptor, F_GETFL) & O_ACCMODE, O_RDONLY);
    }
    const int output = files.key(m_tree->path(QStringLiteral("out")), -1);
    QCOMPARE(fcntl(output, F_GETFL) & O_ACCMODE, O_WRONLY);
    // A child process that the host starts inherits none of them.
    for (const int descriptor : files.keys())
        QCOMPARE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    opened.close();
}

void tst_PatchHelpFailures::hashTableThatCannotBeBuilt()
{
    const OpenedSince opened;
    s_noMemoryForHashTables = true;
    const bool made = Pellox::createDelta("signature", "new", "out");
    s_noMemoryForHashTables = false;
    QVERIFY(!made);
    QCOMPARE(takeLines(),
        (QStringList{QStringLiteral("debug: ERROR: Rsync can't build hash table signature"),
            QStringLiteral("debug: Rsync error code: 102")}));
    QCOMPARE(opened.names(),
        (QStringList{QStringLiteral("new"), QStringLiteral("out"), QStringLiteral("signature")}));
    QCOMPARE(s_closed, QStringList());
    QCOMPARE(s_signatureSets.size(), 1);
    QCOMPARE(read("out"), QByteArray(""));
    opened.close();
}

void tst_PatchHelpFailures::truncatedSignatures()
{
    const QByteArray signature = read("signature");
    const QByteArray newContent = read("new");
    const OpenedSince opened;
    for (int size = 0; size < signature.size(); ++size) {
        overwrite("bad", signature.left(size));
        const bool made = Pellox::createDelta("bad", "new", "out");
        QCOMPARE(takeLines().size(), made ? 0 : 2);
        QCOMPARE(opened.close(), made ? 0 : 3);
        // Fewer blocks to copy, but what is there is right.
        if (made) {
            QVERIFY(Pellox::applyPatch("old", "out", "patched", 7107, nullptr));
            QVERIFY2(read("patched") == newContent, QByteArray::number(size).constData());
        }
    }
}

void tst_PatchHelpFailures::damagedSignaturesNeverEndTheProcess()
{
    const QByteArray signature = read("signature");
    const QString failed = QStringLiteral("debug: ERROR: Rsync can't load signature file bad");
    const FileSizeLimit limit(1 << 20);
    const OpenedSince opened;
    int loaded = 0;
    int refused = 0;
    for (quint32 seed = 1; seed <= 2000; ++seed) {
        // The block length has a test of its own.
        overwrite("bad", damaged(signature, seed, 4, 8));
        const bool made = Pellox::createDelta("bad", "new", "/dev/null");
        ++(made ? loaded : refused);
        const QStringList lines = takeLines();
        QCOMPARE(lines.value(0), made ? QString() : failed);
        QCOMPARE(lines.size(), made ? 0 : 2);
        QCOMPARE(opened.close(), made ? 0 : 3);
    }
    QVERIFY2(loaded > 200 && refused > 200, qPrintable(QString::number(loaded)));
}

void tst_PatchHelpFailures::blockLengthThatNoBufferCanHoldNeverEndsTheProcess_data()
{
    QTest::addColumn<quint32>("blockLength");

    QTest::newRow("smallest") << 0x1ffffffeU;
    QTest::newRow("in the middle") << 0x33333333U;
    QTest::newRow("largest") << 0x3ffffffdU;
    QTest::newRow("smallest of the second range") << 0x5ffffffeU;
    QTest::newRow("largest of the second range") << 0x7ffffffdU;
}

void tst_PatchHelpFailures::blockLengthThatNoBufferCanHoldNeverEndsTheProcess()
{
    QFETCH(quint32, blockLength);
    write("bad", withNumber(read("signature"), 4, blockLength));
    QCOMPARE(
        endOfChild([] { Pellox::createDelta("bad", "new", "out"); }), QStringLiteral("returned"));
}

void tst_PatchHelpFailures::brokenDelta_data()
{
    QTest::addColumn<QByteArray>("content");

    const QByteArray magic = QByteArray::fromHex("72730236");
    QTest::newRow("empty") << QByteArray("");
    QTest::newRow("half a magic number") << magic.left(2);
    QTest::newRow("nothing but the magic number") << magic;
    QTest::newRow("a signature") << QByteArray::fromHex("72730137 00000800 00000020");
    QTest::newRow("other content") << QByteArray("This is no librsync delta.");
    QTest::newRow("unknown command") << magic + QByteArray::fromHex("ff 00");
    QTest::newRow("no end command") << magic + QByteArray::fromHex("03 616263");
    QTest::newRow("new content that is cut off") << magic + QByteArray::fromHex("04 616263");
    QTest::newRow("copy from beyond the end") << magic + QByteArray::fromHex("4a ffff 0010 00");
    QTest::newRow("copy of nothing") << magic + QByteArray::fromHex("4a 0000 0000 00");
    QTest::newRow("copy of more than there can be")
        << magic + QByteArray::fromHex("54 0000000000000000 7fffffffffffffff 00");
    QTest::newRow("negative length")
        << magic + QByteArray::fromHex("54 0000000000000000 ffffffffffffffff 00");
    QTest::newRow("negative position") << magic + QByteArray::fromHex("51 ffffffffffffffff 01 00");
}

void tst_PatchHelpFailures::brokenDelta()
{
    QFETCH(QByteArray, content);
    write("bad", content);
    const FileSizeLimit limit(1 << 20);
    const OpenedSince opened;
    QVERIFY(!patch("old", "bad", "out"));
    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(opened.names(), QStringList());
    QVERIFY(exists("out"));
}

void tst_PatchHelpFailures::truncatedDeltas()
{
    const QByteArray delta = read("delta");
    const OpenedSince opened;
    for (int size = 0; size < delta.size(); ++size) {
        overwrite("bad", delta.left(size));
        QVERIFY2(!Pellox::applyPatch("old", "bad", "/dev/null", 7107, nullptr),
            QByteArray::number(size).constData());
    }
    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(opened.names(), QStringList());
    QVERIFY(Pellox::applyPatch("old", "delta", "out", 7107, nullptr));
    QVERIFY(read("out") == read("new"));
}

void tst_PatchHelpFailures::damagedDeltasNeverEndTheProcess()
{
    const QByteArray delta = read("delta");
    const FileSizeLimit limit(1 << 20);
    const OpenedSince opened;
    int applied = 0;
    int refused = 0;
    for (quint32 seed = 1; seed <= 3000; ++seed) {
        overwrite("bad", damaged(delta, seed));
        ++(Pellox::applyPatch("old", "bad", "/dev/null", 7107, nullptr) ? applied : refused);
    }
    QCOMPARE(takeAllLines(), QStringList());
    QCOMPARE(opened.names(), QStringList());
    QVERIFY2(applied > 300 && refused > 300, qPrintable(QString::number(applied)));
}

void tst_PatchHelpFailures::wrongBasis_data()
{
    QTest::addColumn<QByteArray>("basis");
    QTest::addColumn<bool>("result");

    const QByteArray right = randomBytes(5000, 1);
    QTest::newRow("empty") << QByteArray("") << false;
    QTest::newRow("shorter than a copy needs") << right.left(4095) << false;
    QTest::newRow("just as long as the copies need") << right.left(4096) << true;
    QTest::newRow("right") << right << true;
    QTest::newRow("longer") << right + "more" << true;
    QTest::newRow("as long but of other content") << randomBytes(5000, 9) << true;
}

void tst_PatchHelpFailures::wrongBasis()
{
    QFETCH(QByteArray, basis);
    write("basis", basis);
    QTEST(patch("basis", "delta", "out"), "result");
    QCOMPARE(takeAllLines(), QStringList());
}

void tst_PatchHelpFailures::threadsFailWithTheirOwnMessages()
{
    QList<int> numbers;
    QStringList expected;
    for (int number = 0; number < 200; ++number) {
        numbers.append(number);
        expected.append(
            QStringLiteral("debug: ERROR: Can't open basic file for signature creating missing %1")
                .arg(number));
        expected.append(QStringLiteral(
            "debug: ERROR: Can't open signature file for signature creating folder/%1/out")
                            .arg(number));
    }
    QtConcurrent::blockingMap(numbers, [](const int &number) {
        const QByteArray text = QByteArray::number(number);
        Pellox::createSignature(
            ("missing " + text).constData(), ("folder/" + text + "/out").constData());
    });
    QStringList lines = takeLines();
    lines.sort();
    expected.sort();
    QCOMPARE(lines, expected);
}

void tst_PatchHelpFailures::badPathsOneAfterTheOther()
{
    const QList<QByteArray> badInputs{"missing", "folder", "pipe", "socket", "loop", "file/below",
        "", NullPath, "-", TooLongName, UnreadableFile};
    const QList<QByteArray> badOutputs{"folder", "missing/out", "pipe", "socket", "loop",
        "file/below", "", NullPath, TooLongName, "/dev/full"};
    const OpenedSince opened;
    for (const QByteArray &input : badInputs) {
        for (const QByteArray &output : badOutputs) {
            QVERIFY(!Pellox::createSignature(asCString(input), asCString(output)));
            QVERIFY(!Pellox::createDelta(asCString(input), "new", asCString(output)));
            QVERIFY(!Pellox::createDelta("signature", asCString(input), asCString(output)));
            QVERIFY(!patch(input, "delta", output));
            QVERIFY(!patch("old", input, output));
            QVERIFY(!patch(input, input, output));
        }
    }
    takeLines();
    // "folder" and the unreadable file open as a signature, and "/dev/full" opens as a delta.
    QCOMPARE(opened.close(), 2 * 3);

    QVERIFY(Pellox::createSignature("old", "out signature"));
    QVERIFY(Pellox::createDelta("out signature", "new", "out delta"));
    QVERIFY(patch("old", "out delta", "out"));
    QVERIFY(read("out") == read("new"));
}

QTEST_GUILESS_MAIN(tst_PatchHelpFailures)
#include "tst_patchhelpfailures.moc"
