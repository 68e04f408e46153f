// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "testtree.h"

#include <Pellox/BinariesController>
#include <Pellox/patchhelp.h>

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QMutex>
#include <QSemaphore>
#include <QSet>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QThreadPool>
#include <QTimer>

#include <memory>
#include <optional>
#include <utility>

#include <sys/stat.h>

using Pellox::BinariesController;

namespace {

const char Category[] = "BinariesController";
const QByteArray Sha512OfNothing
    = "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
      "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e";
const QByteArray Sha512OfAbc = "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                               "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f";

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

/// Writes down what a controller tells its host, in order, on whatever thread it is told.
class Told
{
public:
    void listenTo(const BinariesController &controller)
    {
        listen(controller, &BinariesController::patchProgress, "patchProgress"_s);
        listen(controller, &BinariesController::verifyProgress, "verifyProgress"_s);
        listen(controller, &BinariesController::finished, "finished"_s);
        listen(controller, &BinariesController::verifyFinished, "verifyFinished"_s);
        listen(controller, &BinariesController::applyPatchError, "applyPatchError"_s);
        listen(controller, &BinariesController::verifyError, "verifyError"_s);
    }

    QStringList take()
    {
        const QMutexLocker lock(&m_mutex);
        return std::exchange(m_lines, QStringList());
    }

private:
    template <typename... Arguments>
    void listen(const BinariesController &controller,
        void (BinariesController::*signal)(Arguments...), const QString &name)
    {
        QObject::connect(&controller, signal, [this, name](const Arguments &...arguments) {
            const QMutexLocker lock(&m_mutex);
            const QStringList texts{QVariant(arguments).toString()...};
            m_lines.append(name + "("_s + texts.join(", "_s) + ")"_s);
        });
    }

    QMutex m_mutex;
    QStringList m_lines;
};

QVariantMap rule(const QString &name, const QString &relativePath)
{
    return {{"rule"_s, name}, {"relative_path"_s, relativePath}};
}

QVariantMap patchRule(const QString &relativePath, const QByteArray &checkSum)
{
    QVariantMap record = rule("patch"_s, relativePath);
    record.insert("sha512"_s, QString::fromUtf8(checkSum));
    record.insert("file_size"_s, 1000);
    return record;
}

QByteArray sha512(const QByteArray &content)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Sha512).toHex();
}

unsigned modeOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        qFatal("cannot look at %s", qPrintable(path));
    return status.st_mode & 07777U;
}

void setMode(const QString &path, mode_t mode)
{
    if (::chmod(QFile::encodeName(path).constData(), mode) != 0)
        qFatal("cannot set the mode of %s", qPrintable(path));
}

void makePipe(const QString &path)
{
    if (::mkfifo(QFile::encodeName(path).constData(), 0600) != 0)
        qFatal("cannot make the named pipe %s", qPrintable(path));
}

} // namespace

class tst_Verify : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    // verifyPatchedFile()
    void rightContentReplacesTheOldFile_data();
    void rightContentReplacesTheOldFile();
    void wrongContentIsDeletedAndReported();
    void onlyTheSameBytesMatch_data();
    void onlyTheSameBytesMatch();
    void missingTemporaryFileIsReported_data();
    void missingTemporaryFileIsReported();
    void unreadableTemporaryFileIsAMismatch_data();
    void unreadableTemporaryFileIsAMismatch();
    void unreadableTemporaryFileMatchesNoCheckSum();
    void readableTemporaryFileNeverMatchesNoCheckSum();
    void readOnlyFileIsReplaced();
    void permissionsAreThoseOfTheTemporaryFile();
    void linkIsReplacedAndItsTargetStays();
    void failedRenameIsNotNoticed_data();
    void failedRenameIsNotNoticed();
    void namesOfAnyKind_data();
    void namesOfAnyKind();
    void errorIsToldOnTheCallingThread();

    // verifyPatchedFiles()
    void emptyBuildFolderIsRefused_data();
    void emptyBuildFolderIsRefused();
    void missingRuleFileIsReportedAndNothingStarts_data();
    void missingRuleFileIsReportedAndNothingStarts();
    void ruleFileWithoutRulesSucceedsWithoutProgress_data();
    void ruleFileWithoutRulesSucceedsWithoutProgress();
    void ruleFileThatCannotBeReadSucceeds();
    void rulesOtherThanPatchAreNotExamined_data();
    void rulesOtherThanPatchAreNotExamined();
    void leftoverOfADeleteRuleIsOnlyWarnedAbout_data();
    void leftoverOfADeleteRuleIsOnlyWarnedAbout();
    void matchingFilesAreCommitted();
    void mismatchFailsTheRunAndOthersAreCommitted();
    void missingTemporaryFileFailsTheRun();
    void ruleWithoutCheckSumIsAMismatch();
    void checkSumIsCutAtNulInTheMessage();
    void secondRunFindsNothingToCommit();
    void mismatchedFileCanBePatchedAgain();
    void executableStaysExecutable();
    void foldersMayBeGivenInAnyForm_data();
    void foldersMayBeGivenInAnyForm();

    void progressCountsRules();
    void progressReachesTheTotalOnManyThreads();
    void onePathCountsOnce();
    void entriesOfThePatchRunAreOverwrittenOrAdded_data();
    void entriesOfThePatchRunAreOverwrittenOrAdded();
    void entriesOfEarlierChecksAreAdded();

    void callReturnsBeforeTheRulesAreRun();
    void signalsComeOnTheirThreads();
    void objectMayBeDeletedWhenTheEndArrives();

private:
    QStringList verify(const QString &build, const QString &patch);
    QStringList verify() { return verify(path("build"_s), path("patch"_s)); }
    QStringList apply();
    QStringList settled();
    QString path(const QString &relative) const { return m_tree->path(relative); }
    void writeRules(const QVariantList &rules, const QString &folder = "patch"_s) const;
    QVariantMap makePatch(const QString &relativePath, const QByteArray &oldContent,
        const QByteArray &newContent) const;
    QString mismatch(const QByteArray &expected, const QByteArray &actual) const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::optional<Told> m_told;
    std::unique_ptr<BinariesController> m_controller;
    QString m_currentFolder;
    int m_poolSize = 0;
};

/// Every test starts with a build that holds the file "keep", and with one pool thread.
void tst_Verify::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_told.emplace();
    m_controller = std::make_unique<BinariesController>(nullptr);
    m_told->listenTo(*m_controller);
    m_currentFolder = QDir::currentPath();
    m_poolSize = QThreadPool::globalInstance()->maxThreadCount();
    QThreadPool::globalInstance()->setMaxThreadCount(1);
    m_tree->makeFolder("patch"_s);
    m_tree->write("build/keep"_s, "kept");
}

void tst_Verify::cleanup()
{
    QThreadPool::globalInstance()->waitForDone();
    QThreadPool::globalInstance()->setMaxThreadCount(m_poolSize);
    QDir::setCurrent(m_currentFolder);
    m_controller.reset();
    QCOMPARE(m_told->take(), QStringList());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

/// Runs verifyPatchedFiles() to its end and returns what the host was told.
QStringList tst_Verify::verify(const QString &build, const QString &patch)
{
    QSignalSpy finished(m_controller.get(), &BinariesController::verifyFinished);
    if (!m_controller->verifyPatchedFiles(build, patch))
        return QStringList("refused"_s) + settled();
    if (!finished.wait(Patience))
        return QStringList("never finished"_s) + settled();
    return settled();
}

QStringList tst_Verify::apply()
{
    QSignalSpy finished(m_controller.get(), &BinariesController::finished);
    if (!m_controller->applyPatch(path("build"_s), path("patch"_s)) || !finished.wait(Patience))
        return {"not applied"_s};
    return settled();
}

/// What the host was told when nothing is under way any more.
QStringList tst_Verify::settled()
{
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    return m_told->take();
}

void tst_Verify::writeRules(const QVariantList &rules, const QString &folder) const
{
    m_tree->write(folder + "/patchRules.json"_s, QJsonDocument::fromVariant(rules).toJson());
}

/// Installs a file with @p oldContent and makes the delta to @p newContent; its rule.
QVariantMap tst_Verify::makePatch(
    const QString &relativePath, const QByteArray &oldContent, const QByteArray &newContent) const
{
    const TestTree scratch;
    scratch.write("new"_s, newContent);
    m_tree->write("build"_s + relativePath, oldContent);
    m_tree->write("patch"_s + relativePath, QByteArray());
    if (!Pellox::createSignature(path("build"_s + relativePath), scratch.path("signature"_s))
        || !Pellox::createDelta(
            scratch.path("signature"_s), scratch.path("new"_s), path("patch"_s + relativePath)))
        qFatal("cannot make the delta of %s", qPrintable(relativePath));
    return patchRule(relativePath, sha512(newContent));
}

QString tst_Verify::mismatch(const QByteArray &expected, const QByteArray &actual) const
{
    return "Can't verify file: \nChecksum's are not matched\nexpect "_s
        + QString::fromLatin1(expected) + "\nresult "_s + QString::fromLatin1(actual);
}

void tst_Verify::rightContentReplacesTheOldFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("checkSum");
    QTest::newRow("three letters") << QByteArray("abc") << Sha512OfAbc;
    QTest::newRow("nothing") << QByteArray() << Sha512OfNothing;
    const QByteArray large = randomBytes(300000, 1);
    QTest::newRow("a lot") << large << sha512(large);
}

void tst_Verify::rightContentReplacesTheOldFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, checkSum);
    m_tree->write("build/x"_s, "an older and longer content");
    m_tree->write("build/x.temp"_s, content);

    QVERIFY(m_controller->verifyPatchedFile(path("build/x"_s), checkSum));
    QCOMPARE(m_log->takeAll(Category),
        QStringList({
            "debug: binFilePath "_s + quoted(path("build/x"_s)),
            "debug: checkSum "_s + quoted(QString::fromLatin1(checkSum)),
        }));
    const QMap<QString, QByteArray> expected{{"keep"_s, "kept"}, {"x"_s, content}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_Verify::wrongContentIsDeletedAndReported()
{
    m_tree->write("build/x"_s, "old");
    m_tree->write("build/x.temp"_s, "abc");

    QVERIFY(!m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfNothing));
    const QString message
        = "Can't verify file: \n"
          "Checksum's are not matched\n"
          "expect cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
          "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e\n"
          "result ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
          "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"_s;
    QCOMPARE(m_told->take(), QStringList("verifyError("_s + message + ")"_s));
    QCOMPARE(m_log->takeAll(Category),
        QStringList({
            "debug: binFilePath "_s + quoted(path("build/x"_s)),
            "debug: checkSum "_s + quoted(QString::fromLatin1(Sha512OfNothing)),
            "critical: "_s + message,
        }));
    const QMap<QString, QByteArray> expected{{"keep"_s, "kept"}, {"x"_s, "old"}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_Verify::onlyTheSameBytesMatch_data()
{
    QTest::addColumn<QByteArray>("checkSum");
    QTest::addColumn<QString>("printed");
    const QString digest = QString::fromLatin1(Sha512OfAbc);

    QTest::newRow("upper case") << Sha512OfAbc.toUpper() << digest.toUpper();
    QTest::newRow("one letter in upper case")
        << QByteArray("D" + Sha512OfAbc.mid(1)) << "D"_s + digest.mid(1);
    QTest::newRow("shorter by one") << Sha512OfAbc.chopped(1) << digest.chopped(1);
    QTest::newRow("longer by one") << QByteArray(Sha512OfAbc + "0") << digest + "0"_s;
    QTest::newRow("blank at the end") << QByteArray(Sha512OfAbc + " ") << digest + " "_s;
    QTest::newRow("NUL at the end") << QByteArray(Sha512OfAbc + '\0') << digest;
    QTest::newRow("raw digest's first half") << Sha512OfAbc.left(64) << digest.left(64);
    QTest::newRow("NUL inside") << QByteArray("ab\0cd", 5) << "ab"_s;
    QTest::newRow("one character a byte") << QByteArray("\xC3\xBC") << "Ã¼"_s;
    QTest::newRow("place holders") << QByteArray("%1 %2") << "%1 %2"_s;
    QTest::newRow("empty") << QByteArray() << QString();
}

void tst_Verify::onlyTheSameBytesMatch()
{
    QFETCH(QByteArray, checkSum);
    QFETCH(QString, printed);
    m_tree->write("build/x"_s, "old");
    m_tree->write("build/x.temp"_s, "abc");

    QVERIFY(!m_controller->verifyPatchedFile(path("build/x"_s), checkSum));
    const QString message = "Can't verify file: \nChecksum's are not matched\nexpect "_s + printed
        + "\nresult "_s + QString::fromLatin1(Sha512OfAbc);
    QCOMPARE(m_told->take(), QStringList("verifyError("_s + message + ")"_s));
    QCOMPARE(m_log->take(QtCriticalMsg, Category), QStringList(message));
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("old"));
    QVERIFY(!m_tree->exists("build/x.temp"_s));
}

void tst_Verify::missingTemporaryFileIsReported_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("file without it") << "keep"_s;
    QTest::newRow("neither file nor it") << "nowhere/x"_s;
    QTest::newRow("it leads nowhere") << "linked"_s;
    QTest::newRow("place holder in the name") << "100%1"_s;
    QTest::newRow("non-ASCII") << "größe"_s;
}

void tst_Verify::missingTemporaryFileIsReported()
{
    QFETCH(QString, name);
    m_tree->link("build/linked.temp"_s, path("nothing here"_s));
    const QString file = path("build/"_s + name);

    QVERIFY(!m_controller->verifyPatchedFile(file, Sha512OfAbc));
    QCOMPARE(m_told->take(),
        QStringList("verifyError(Can't verify file: \n"_s + file + ".temp - not found)"_s));
    QCOMPARE(m_log->takeAll(Category),
        QStringList({
            "debug: binFilePath "_s + quoted(file),
            "debug: checkSum "_s + quoted(QString::fromLatin1(Sha512OfAbc)),
        }));
    QCOMPARE(m_tree->read("build/keep"_s), QByteArray("kept"));
}

void tst_Verify::unreadableTemporaryFileIsAMismatch_data()
{
    QTest::addColumn<QString>("target");
    QTest::newRow("folder") << QString();
    QTest::newRow("opens but cannot be read") << "/proc/self/mem"_s;
    QTest::newRow("named pipe") << "%1/pipe"_s;
}

void tst_Verify::unreadableTemporaryFileIsAMismatch()
{
    QFETCH(QString, target);
    makePipe(path("pipe"_s));
    m_tree->write("build/x"_s, "old");
    if (target.isEmpty())
        m_tree->makeFolder("build/x.temp"_s);
    else
        m_tree->link("build/x.temp"_s, target.replace("%1"_s, path(QString())));

    QVERIFY(!m_controller->verifyPatchedFile(path("build/x"_s), "00ff"));
    const QString message
        = "Can't verify file: \nChecksum's are not matched\nexpect 00ff\nresult "_s;
    QCOMPARE(m_told->take(), QStringList("verifyError("_s + message + ")"_s));
    QCOMPARE(m_log->take(QtCriticalMsg, Category), QStringList(message));
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("old"));
    QCOMPARE(m_tree->exists("build/x.temp"_s), target.isEmpty()); // a folder is not removed
}

/// Promised: the digest of what cannot be read is empty, and so equals an empty one.
void tst_Verify::unreadableTemporaryFileMatchesNoCheckSum()
{
    m_tree->write("build/x"_s, "old");
    m_tree->makeFolder("build/x.temp"_s);

    QVERIFY(m_controller->verifyPatchedFile(path("build/x"_s), QByteArray()));
    QCOMPARE(m_told->take(), QStringList());
    QVERIFY(QFileInfo(path("build/x"_s)).isDir());
    QVERIFY(!m_tree->exists("build/x.temp"_s));
}

void tst_Verify::readableTemporaryFileNeverMatchesNoCheckSum()
{
    m_tree->write("build/x"_s, "old");
    m_tree->write("build/x.temp"_s, QByteArray());

    QVERIFY(!m_controller->verifyPatchedFile(path("build/x"_s), QByteArray()));
    const QString message = mismatch(QByteArray(), Sha512OfNothing);
    QCOMPARE(m_told->take(), QStringList("verifyError("_s + message + ")"_s));
    QCOMPARE(m_log->take(QtCriticalMsg, Category), QStringList(message));
}

void tst_Verify::readOnlyFileIsReplaced()
{
    m_tree->write("build/x"_s, "old");
    setMode(path("build/x"_s), 0444);
    m_tree->write("build/x.temp"_s, "abc");

    QVERIFY(m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfAbc));
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("abc"));
}

void tst_Verify::permissionsAreThoseOfTheTemporaryFile()
{
    m_tree->write("build/x"_s, "old");
    setMode(path("build/x"_s), 0600);
    m_tree->write("build/x.temp"_s, "abc");
    setMode(path("build/x.temp"_s), 0751);

    QVERIFY(m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfAbc));
    QCOMPARE(modeOf(path("build/x"_s)), 0751U);
}

void tst_Verify::linkIsReplacedAndItsTargetStays()
{
    m_tree->write("shared/target"_s, "old");
    m_tree->link("build/x"_s, path("shared/target"_s));
    m_tree->write("build/x.temp"_s, "abc");

    QVERIFY(m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfAbc));
    QVERIFY(!QFileInfo(path("build/x"_s)).isSymLink());
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("abc"));
    QCOMPARE(m_tree->read("shared/target"_s), QByteArray("old"));
}

void tst_Verify::failedRenameIsNotNoticed_data()
{
    QTest::addColumn<QString>("inside");
    QTest::newRow("empty folder in the file's place") << QString();
    QTest::newRow("folder in the file's place") << "/inside"_s;
}

void tst_Verify::failedRenameIsNotNoticed()
{
    QFETCH(QString, inside);
    m_tree->makeFolder("build/x"_s + inside);
    m_tree->write("build/x.temp"_s, "abc");

    QVERIFY(m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfAbc));
    QCOMPARE(m_told->take(), QStringList());
    QVERIFY(m_tree->exists("build/x"_s + inside));
    QCOMPARE(m_tree->read("build/x.temp"_s), QByteArray("abc"));
}

void tst_Verify::namesOfAnyKind_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("blanks") << " two  words "_s;
    QTest::newRow("non-ASCII") << "größe файл 文件"_s;
    QTest::newRow("beyond 16 bits") << "🎮.pak"_s;
    QTest::newRow("place holder") << "100%1"_s;
    QTest::newRow("ends like a temporary file") << "x.temp"_s;
    QTest::newRow("as long as a name may be") << QString(250, QLatin1Char('n'));
}

void tst_Verify::namesOfAnyKind()
{
    QFETCH(QString, name);
    m_tree->write("build/"_s + name, "old");
    m_tree->write("build/"_s + name + ".temp"_s, "abc");

    QVERIFY(m_controller->verifyPatchedFile(path("build/"_s + name), Sha512OfAbc));
    const QMap<QString, QByteArray> expected{{"keep"_s, "kept"}, {name, "abc"}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_Verify::errorIsToldOnTheCallingThread()
{
    QThread *toldOn = nullptr;
    connect(m_controller.get(), &BinariesController::verifyError,
        [&toldOn] { toldOn = QThread::currentThread(); });

    m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfAbc);
    QCOMPARE(toldOn, QThread::currentThread());

    const std::unique_ptr<QThread> worker(QThread::create(
        [this] { m_controller->verifyPatchedFile(path("build/x"_s), Sha512OfAbc); }));
    worker->start();
    worker->wait();
    QCOMPARE(toldOn, worker.get());
    QCOMPARE(m_told->take().size(), 2);
}

void tst_Verify::emptyBuildFolderIsRefused_data()
{
    QTest::addColumn<QString>("folder");
    QTest::newRow("nothing in it") << "nothing"_s;
    QTest::newRow("separator at the end") << "nothing/"_s;
    QTest::newRow("not there") << "missing"_s;
    QTest::newRow("hidden file only") << "hidden"_s;
    QTest::newRow("a file") << "build/keep"_s;
}

void tst_Verify::emptyBuildFolderIsRefused()
{
    QFETCH(QString, folder);
    m_tree->makeFolder("nothing"_s);
    m_tree->write("hidden/.settings"_s, "x");
    writeRules({rule("copy"_s, "/x"_s)});

    QDir::setCurrent(path(QString()));
    QCOMPARE(verify(folder, "patch"_s), QStringList("refused"_s));
    QCOMPARE(
        m_log->takeAll(Category), QStringList("debug: Can't verify empty dir "_s + quoted(folder)));
}

void tst_Verify::missingRuleFileIsReportedAndNothingStarts_data()
{
    QTest::addColumn<QString>("passed");
    QTest::addColumn<QString>("absolute");
    QTest::newRow("no rule file") << "patch"_s
                                  << "patch"_s;
    QTest::newRow("separator at the end") << "patch/"_s
                                          << "patch"_s;
    QTest::newRow("no patch folder") << "nowhere"_s
                                     << "nowhere"_s;
    QTest::newRow("a folder in the rule file's place") << "folder"_s
                                                       << "folder"_s;
    QTest::newRow("a named pipe in the rule file's place") << "piped"_s
                                                           << "piped"_s;
    QTest::newRow("place holders in the name") << "100%2 %1"_s
                                               << "100%2 %1"_s;
    QTest::newRow("non-ASCII name") << "пропатчен ü"_s
                                    << "пропатчен ü"_s;
}

void tst_Verify::missingRuleFileIsReportedAndNothingStarts()
{
    QFETCH(QString, passed);
    QFETCH(QString, absolute);
    m_tree->makeFolder("folder/patchRules.json"_s);
    m_tree->makeFolder("piped"_s);
    makePipe(path("piped/patchRules.json"_s));

    const QString patch = path(absolute);
    const QString message
        = "Failed verify "_s + patch + "\n Can't open "_s + patch + "/patchRules.json"_s;
    QDir::setCurrent(path(QString()));
    QVERIFY(!m_controller->verifyPatchedFiles("build"_s, passed));
    QCOMPARE(m_told->take(), QStringList("verifyError("_s + message + ")"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList("critical: "_s + message));
    QCOMPARE(settled(), QStringList());
}

void tst_Verify::ruleFileWithoutRulesSucceedsWithoutProgress_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("empty array") << QByteArray("[]");
    QTest::newRow("empty file") << QByteArray();
    QTest::newRow("no JSON") << QByteArray("patch /keep");
    QTest::newRow("array cut short") << QByteArray(R"([{"rule":"patch","relative_path":"/keep"})");
    QTest::newRow("object") << QByteArray(R"({"rule":"patch","relative_path":"/keep"})");
}

void tst_Verify::ruleFileWithoutRulesSucceedsWithoutProgress()
{
    QFETCH(QByteArray, json);
    m_tree->write("patch/patchRules.json"_s, json);
    QCOMPARE(verify(), QStringList("verifyFinished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_Verify::ruleFileThatCannotBeReadSucceeds()
{
    m_tree->link("patch/patchRules.json"_s, "/proc/self/mem"_s); // opens all the same
    QCOMPARE(verify(), QStringList("verifyFinished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_Verify::rulesOtherThanPatchAreNotExamined_data()
{
    QTest::addColumn<QByteArray>("json");
    const auto row
        = [](const char *name, const char *json) { QTest::newRow(name) << QByteArray(json); };
    row("copy of a file that is there", R"([{"rule":"copy","relative_path":"/keep"}])");
    row("copy of a file that is missing", R"([{"rule":"copy","relative_path":"/x"}])");
    row("copy with a checksum", R"([{"rule":"copy","relative_path":"/keep","sha512":"00"}])");
    row("delete of a file that is gone", R"([{"rule":"delete","relative_path":"/x"}])");
    row("none", R"([{"rule":"none","relative_path":"/keep"}])");
    row("misspelt", R"([{"rule":"Patch","relative_path":"/keep"}])");
    row("no name", R"([{"relative_path":"/keep"}])");
    row("no members", "[{}]");
    row("no object", R"(["patch"])");
}

void tst_Verify::rulesOtherThanPatchAreNotExamined()
{
    QFETCH(QByteArray, json);
    m_tree->write("patch/patchRules.json"_s, json);
    QCOMPARE(verify(), QStringList({"verifyProgress(1, 1)"_s, "verifyFinished(true)"_s}));
    QCOMPARE(m_log->takeAll(Category), QStringList());
    QCOMPARE(m_tree->read("build/keep"_s), QByteArray("kept"));
}

void tst_Verify::leftoverOfADeleteRuleIsOnlyWarnedAbout_data()
{
    QTest::addColumn<QString>("relativePath");
    QTest::addColumn<bool>("warned");
    QTest::newRow("file") << "/keep"_s << true;
    QTest::newRow("folder") << "/folder"_s << true;
    QTest::newRow("non-ASCII name") << "/größe 1"_s << true;
    QTest::newRow("place holder in the name") << "/100%1"_s << true;
    QTest::newRow("no separator in front") << "beside"_s << true;
    QTest::newRow("link to a file") << "/link"_s << true;
    QTest::newRow("link to nothing") << "/dangling"_s << false;
    QTest::newRow("gone") << "/gone"_s << false;
}

void tst_Verify::leftoverOfADeleteRuleIsOnlyWarnedAbout()
{
    QFETCH(QString, relativePath);
    QFETCH(bool, warned);
    m_tree->makeFolder("build/folder"_s);
    m_tree->write("build/größe 1"_s, "x");
    m_tree->write("build/100%1"_s, "x");
    m_tree->write("buildbeside"_s, "x");
    m_tree->link("build/link"_s, path("build/keep"_s));
    m_tree->link("build/dangling"_s, path("nowhere"_s));
    writeRules({rule("delete"_s, relativePath)});

    QCOMPARE(verify(), QStringList({"verifyProgress(1, 1)"_s, "verifyFinished(true)"_s}));
    QStringList lines;
    if (warned)
        lines.append(
            "warning: File "_s + path("build"_s) + relativePath + " exists but shouldn't"_s);
    QCOMPARE(m_log->takeAll(Category), lines);
    QCOMPARE(m_tree->exists("build"_s + relativePath), relativePath != "/gone"_s);
}

void tst_Verify::matchingFilesAreCommitted()
{
    QThreadPool::globalInstance()->setMaxThreadCount(4);
    QVariantList rules;
    QMap<QString, QByteArray> expected{{"keep"_s, "kept"}, {"data/"_s, QByteArray()}};
    for (int i = 0; i < 40; ++i) {
        const QString name = "data/"_s + QString::number(i);
        const QByteArray content = randomBytes(2000 + i, static_cast<quint32>(i));
        m_tree->write("build/"_s + name, "old");
        m_tree->write("build/"_s + name + ".temp"_s, content);
        rules.append(patchRule("/"_s + name, sha512(content)));
        expected.insert(name, content);
    }
    writeRules(rules);

    QCOMPARE(verify().last(), "verifyFinished(true)"_s);
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_Verify::mismatchFailsTheRunAndOthersAreCommitted()
{
    for (const QString &name : {"1"_s, "2"_s, "3"_s}) {
        m_tree->write("build/"_s + name, "old");
        m_tree->write("build/"_s + name + ".temp"_s, "abc");
    }
    writeRules(
        {patchRule("/1"_s, Sha512OfAbc), patchRule("/2"_s, "00"), patchRule("/3"_s, Sha512OfAbc)});

    const QString message = mismatch("00", Sha512OfAbc);
    QCOMPARE(verify(),
        QStringList({
            "verifyProgress(1, 3)"_s,
            "verifyError("_s + message + ")"_s,
            "verifyProgress(2, 3)"_s,
            "verifyProgress(3, 3)"_s,
            "verifyFinished(false)"_s,
        }));
    const QStringList lines{message,
        R"(Failed apply rule "{\"file_size\":1000,\"relative_path\":\"/2\",)"_s
            + R"(\"rule\":\"patch\",\"sha512\":\"00\"}")"_s};
    QCOMPARE(m_log->take(QtCriticalMsg, Category), lines);
    const QMap<QString, QByteArray> expected{
        {"keep"_s, "kept"}, {"1"_s, "abc"}, {"2"_s, "old"}, {"3"_s, "abc"}};
    QCOMPARE(TestTree::snapshot(path("build"_s)), expected);
}

void tst_Verify::missingTemporaryFileFailsTheRun()
{
    writeRules({patchRule("/keep"_s, sha512("kept"))});
    QCOMPARE(verify(),
        QStringList({
            "verifyError(Can't verify file: \n"_s + path("build/keep.temp"_s) + " - not found)"_s,
            "verifyProgress(1, 1)"_s,
            "verifyFinished(false)"_s,
        }));
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1); // that the rule failed
    QCOMPARE(m_tree->read("build/keep"_s), QByteArray("kept"));
}

void tst_Verify::ruleWithoutCheckSumIsAMismatch()
{
    m_tree->write("build/keep.temp"_s, "abc");
    writeRules({rule("patch"_s, "/keep"_s)});

    QCOMPARE(verify(),
        QStringList({
            "verifyError("_s + mismatch(QByteArray(), Sha512OfAbc) + ")"_s,
            "verifyProgress(1, 1)"_s,
            "verifyFinished(false)"_s,
        }));
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 2);
    QVERIFY(!m_tree->exists("build/keep.temp"_s));
}

void tst_Verify::checkSumIsCutAtNulInTheMessage()
{
    m_tree->write("build/keep.temp"_s, "abc");
    m_tree->write("patch/patchRules.json"_s,
        R"([{"rule":"patch","relative_path":"/keep","sha512":"dd\u0000af"}])");

    QCOMPARE(verify().value(0), "verifyError("_s + mismatch("dd", Sha512OfAbc) + ")"_s);
    QCOMPARE(m_log->take(QtCriticalMsg, Category).value(0), mismatch("dd", Sha512OfAbc));
}

void tst_Verify::secondRunFindsNothingToCommit()
{
    m_tree->write("build/x"_s, "old");
    m_tree->write("build/x.temp"_s, "abc");
    writeRules({patchRule("/x"_s, Sha512OfAbc), rule("copy"_s, "/y"_s)});

    QCOMPARE(verify(),
        QStringList(
            {"verifyProgress(1, 2)"_s, "verifyProgress(2, 2)"_s, "verifyFinished(true)"_s}));
    QCOMPARE(verify(),
        QStringList({
            "verifyError(Can't verify file: \n"_s + path("build/x.temp"_s) + " - not found)"_s,
            "verifyProgress(1, 2)"_s,
            "verifyProgress(2, 2)"_s,
            "verifyFinished(false)"_s,
        }));
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("abc"));
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1);
}

void tst_Verify::mismatchedFileCanBePatchedAgain()
{
    writeRules({makePatch("/x"_s, "before", "after")});
    QCOMPARE(apply(), QStringList("finished(true)"_s));
    m_tree->write("build/x.temp"_s, "damaged");
    QCOMPARE(verify().last(), "verifyFinished(false)"_s);
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 2);

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(verify().last(), "verifyFinished(true)"_s);
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("after"));
}

void tst_Verify::executableStaysExecutable()
{
    writeRules({makePatch("/bin/game"_s, "#!/bin/sh\nbefore", "#!/bin/sh\nafter"),
        makePatch("/read only"_s, "before", "after")});
    setMode(path("build/bin/game"_s), 0755);
    setMode(path("build/read only"_s), 0444);

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(verify().last(), "verifyFinished(true)"_s);
    QCOMPARE(m_tree->read("build/bin/game"_s), QByteArray("#!/bin/sh\nafter"));
    QCOMPARE(modeOf(path("build/bin/game"_s)), 0755U);
    QCOMPARE(m_tree->read("build/read only"_s), QByteArray("after"));
}

void tst_Verify::foldersMayBeGivenInAnyForm_data()
{
    QTest::addColumn<QString>("build");
    QTest::addColumn<QString>("patch");
    QTest::newRow("absolute") << "%1/build"_s
                              << "%1/patch"_s;
    QTest::newRow("absolute, separator at the end") << "%1/build/"_s
                                                    << "%1/patch/"_s;
    QTest::newRow("relative") << "build"_s
                              << "patch"_s;
    QTest::newRow("relative, separator at the end") << "build/"_s
                                                    << "patch/"_s;
    QTest::newRow("detour") << "patch/../build"_s
                            << "./build/../patch"_s;
    QTest::newRow("through a link") << "linked build"_s
                                    << "patch"_s;
}

void tst_Verify::foldersMayBeGivenInAnyForm()
{
    QFETCH(QString, build);
    QFETCH(QString, patch);
    m_tree->link("linked build"_s, path("build"_s));
    m_tree->write("build/größe/x"_s, "old");
    m_tree->write("build/größe/x.temp"_s, "abc");
    writeRules({patchRule("/größe/x"_s, Sha512OfAbc)});

    QDir::setCurrent(path(QString()));
    build.replace("%1"_s, path(QString()));
    patch.replace("%1"_s, path(QString()));
    QCOMPARE(
        verify(build, patch), QStringList({"verifyProgress(1, 1)"_s, "verifyFinished(true)"_s}));
    QCOMPARE(m_tree->read("build/größe/x"_s), QByteArray("abc"));
    const QString absolute = QDir::cleanPath(QDir::current().absoluteFilePath(build));
    QCOMPARE(m_log->takeAll(Category).value(0),
        "debug: binFilePath "_s + quoted(absolute + "/größe/x"_s));
}

void tst_Verify::progressCountsRules()
{
    m_tree->write("build/x"_s, "old");
    m_tree->write("build/x.temp"_s, "abc");
    writeRules({rule("delete"_s, "/a"_s), rule("copy"_s, "/b"_s), patchRule("/x"_s, Sha512OfAbc),
        rule("none"_s, "/c"_s), rule("copy"_s, "/d"_s)});

    QCOMPARE(verify(),
        QStringList({
            "verifyProgress(1, 5)"_s,
            "verifyProgress(2, 5)"_s,
            "verifyProgress(3, 5)"_s,
            "verifyProgress(4, 5)"_s,
            "verifyProgress(5, 5)"_s,
            "verifyFinished(true)"_s,
        }));
}

void tst_Verify::progressReachesTheTotalOnManyThreads()
{
    QThreadPool::globalInstance()->setMaxThreadCount(4);
    QVariantList rules;
    for (int i = 0; i < 100; ++i)
        rules.append(rule("copy"_s, "/"_s + QString::number(i)));
    writeRules(rules);

    QSet<QString> possible;
    for (int done = 1; done <= 100; ++done)
        possible.insert("verifyProgress(%1, 100)"_s.arg(done));
    QStringList told = verify();
    QCOMPARE(told.size(), 101);
    QCOMPARE(told.takeLast(), "verifyFinished(true)"_s);
    for (const QString &progress : std::as_const(told))
        QVERIFY2(possible.contains(progress), qPrintable(progress));
    QVERIFY(told.contains("verifyProgress(100, 100)"_s));
}

void tst_Verify::onePathCountsOnce()
{
    writeRules({rule("copy"_s, "/a"_s), rule("delete"_s, "/a"_s), rule("copy"_s, "/A"_s)});
    QCOMPARE(verify(),
        QStringList({
            "verifyProgress(1, 2)"_s,
            "verifyProgress(1, 2)"_s,
            "verifyProgress(2, 2)"_s,
            "verifyFinished(true)"_s,
        }));
}

void tst_Verify::entriesOfThePatchRunAreOverwrittenOrAdded_data()
{
    QTest::addColumn<QString>("relativePath");
    QTest::addColumn<QStringList>("told");
    QTest::newRow("same path") << "/x"_s
                               << QStringList({"verifyProgress(1, 1)"_s, "verifyFinished(true)"_s});
    QTest::newRow("other path") << "/y"_s
                                << QStringList(
                                       {"verifyProgress(1, 1001)"_s, "verifyFinished(true)"_s});
}

void tst_Verify::entriesOfThePatchRunAreOverwrittenOrAdded()
{
    QFETCH(QString, relativePath);
    QFETCH(QStringList, told);
    writeRules({makePatch("/x"_s, "before", "after")}); // weighs 1000
    QCOMPARE(apply(), QStringList("finished(true)"_s));

    writeRules({rule("copy"_s, relativePath)});
    QCOMPARE(verify(), told);
}

void tst_Verify::entriesOfEarlierChecksAreAdded()
{
    writeRules({rule("copy"_s, "/a"_s), rule("copy"_s, "/b"_s)});
    QCOMPARE(verify().size(), 3);
    writeRules({rule("copy"_s, "/b"_s), rule("copy"_s, "/c"_s)});
    QCOMPARE(verify(),
        QStringList(
            {"verifyProgress(2, 3)"_s, "verifyProgress(3, 3)"_s, "verifyFinished(true)"_s}));
}

void tst_Verify::callReturnsBeforeTheRulesAreRun()
{
    m_tree->write("build/x"_s, "old");
    m_tree->write("build/x.temp"_s, "abc");
    writeRules({patchRule("/x"_s, Sha512OfAbc)});
    QSemaphore go;
    QThreadPool::globalInstance()->start([&go] { go.acquire(); }); // the only thread

    const bool started = m_controller->verifyPatchedFiles(path("build"_s), path("patch"_s));
    QCoreApplication::processEvents();
    const bool untouched = m_tree->exists("build/x.temp"_s);
    const QStringList toldSoFar = m_told->take();
    go.release();

    QVERIFY(started);
    QVERIFY(untouched);
    QCOMPARE(toldSoFar, QStringList());
    QCOMPARE(settled(), QStringList({"verifyProgress(1, 1)"_s, "verifyFinished(true)"_s}));
    QCOMPARE(m_tree->read("build/x"_s), QByteArray("abc"));
}

void tst_Verify::signalsComeOnTheirThreads()
{
    QThread *progressOn = nullptr;
    QThread *errorOn = nullptr;
    QThread *endOn = nullptr;
    connect(m_controller.get(), &BinariesController::verifyProgress,
        [&] { progressOn = QThread::currentThread(); });
    connect(m_controller.get(), &BinariesController::verifyError,
        [&] { errorOn = QThread::currentThread(); });
    connect(m_controller.get(), &BinariesController::verifyFinished,
        [&] { endOn = QThread::currentThread(); });
    writeRules({patchRule("/x"_s, Sha512OfAbc)});

    QCOMPARE(verify().size(), 3);
    QVERIFY(progressOn);
    QVERIFY(progressOn != QThread::currentThread());
    QCOMPARE(errorOn, progressOn);
    QCOMPARE(endOn, QThread::currentThread());
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1);

    QVERIFY(!m_controller->verifyPatchedFiles(path("build"_s), path("nowhere"_s)));
    QCOMPARE(errorOn, QThread::currentThread());
    QCOMPARE(m_told->take().size(), 1);
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1);
}

void tst_Verify::objectMayBeDeletedWhenTheEndArrives()
{
    writeRules({rule("delete"_s, "/gone"_s)});
    QEventLoop loop;
    QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
    connect(m_controller.get(), &BinariesController::verifyFinished, &loop, [&] {
        m_controller.reset();
        loop.quit();
    });

    QVERIFY(m_controller->verifyPatchedFiles(path("build"_s), path("patch"_s)));
    loop.exec();
    QVERIFY(!m_controller);
    QCOMPARE(settled(), QStringList({"verifyProgress(1, 1)"_s, "verifyFinished(true)"_s}));
}

QTEST_GUILESS_MAIN(tst_Verify)

#include "tst_verify.moc"
