// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "testtree.h"

#include <Pellox/deltacontroller.h>
#include <Pellox/patchhelp.h>
#include <Pellox/signaturescontroller.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaMethod>
#include <QMutex>
#include <QSignalSpy>
#include <QThread>
#include <QThreadPool>
#include <QtTest>
#include <QVector>

#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include <sys/stat.h>

using Pellox::DeltaController;
using Pellox::SignaturesController;

static_assert(std::is_base_of_v<QObject, DeltaController>);

namespace {

const char Category[] = "DeltaController";
const char ExecutorCategory[] = "BinariesController";

const char Sha512OfNew[] = "aa54def9e0bb11c1ebbfc97a9ee63af9e95c4fdf1d032b1ddcc0f21661f74865"
                           "1d2b2b8fb94e9ae041780554db29815daa1c0fe991ddae54eff0c4c28cd9d20c";
const char Sha512OfOld[] = "a6d96fa05fb243a13082a21195ebd126fc42f2f158cf5e0042e4f956b60d7edb"
                           "4b363bcd41ce433b33b7024303d34f0ecaad5071841bd3ada3e99d68f00b89b2";

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

QStringList texts(std::initializer_list<const char *> utf8)
{
    QStringList list;
    for (const char *item : utf8)
        list.append(text(item));
    return list;
}

/// Relative paths of the files under @p folder, in the order of the directory.
QStringList walk(const QString &folder)
{
    QStringList paths;
    QDirIterator iterator(folder, QStringList(), QDir::Files, QDirIterator::Subdirectories);
    while (iterator.hasNext())
        paths.append(iterator.next().mid(folder.size()));
    return paths;
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

QString tooLongWarning(const QString &path)
{
    return text("\nWarning! File path length exceeds the operating system limit (1023 symbols).\n"
                "We recommend moving the game folder and shipwright utility closer to the root of "
                "the disk.\nPath: ")
        + path;
}

/// "/ddd.../ddd...", @p size code units long, with no part longer than a file name may be.
QString longRelativePath(int size)
{
    QString path;
    while (path.size() < size)
        path += (path.size() % 100 == 0 && size - path.size() > 1) ? QLatin1Char('/')
                                                                   : QLatin1Char('d');
    return path;
}

/// One record of a signatures.json as JSON text.
QByteArray record(const char *relativePath, const char *sha512)
{
    return QByteArray("{\"relative_path\": \"") + relativePath + "\", \"sha512\": \"" + sha512
        + "\", \"suffix\": \"\"}";
}

/// While it lives, the rules run one after another, in their order.
class OneThread
{
public:
    OneThread()
        : m_threads(pool().maxThreadCount())
    {
        setThreads(1);
    }
    ~OneThread() { setThreads(m_threads); }
    OneThread(const OneThread &) = delete;
    OneThread &operator=(const OneThread &) = delete;

private:
    static QThreadPool &pool() { return *QThreadPool::globalInstance(); }
    static void setThreads(int count)
    {
        pool().waitForDone();
        pool().setMaxThreadCount(count);
    }

    const int m_threads;
};

} // namespace

/// Each test has a folder of its own with the builds "old" and "new", and makes the patch
/// between them in "patch" from what it puts into "signatures".
class tst_DeltaController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void metaObjectHoldsWhatIsPromisedAndNoMore();
    void slotsCanBeCalledByName();
    void belongsToItsParent();

    void manifestOfDeletesAndAPatchIsExact();
    void manifestOfCopiesIsExact();
    void fileSizeIsAWholeNumber();
    void deletesStandFirstAndReversedThenTheWalk();
    void unchangedFilesGetNoRule();
    void noneIsNeverWritten();
    void buildsWithoutFiles_data();
    void buildsWithoutFiles();

    void ignoredFile_data();
    void ignoredFile();
    void ignoredFileSparesItsRecord_data();
    void ignoredFileSparesItsRecord();
    void severalFilesAreIgnored();
    void walkTakesFilesAndLinksToFiles();

    void decisionProgressIsExactAndInTheCallersThread();
    void ignoredFilesDoNotCount();
    void fileIsReportedBeforeItIsExamined();
    void ruleProgressIsExactInTheOrderOfCompletion();
    void ruleIsReportedBeforeItIsExecuted();
    void ruleProgressComesOnceARule();
    void rulesRunOnTheThreadPool();
    void emptyCallbackIsTakenAsOneThatDoesNothing();
    void callbackMayBeLeftOut();

    void signaturesThatCannotBeOpened_data();
    void signaturesThatCannotBeOpened();
    void signaturesFolderIsTakenAsPassed();
    void signaturesThatAreNoRecords_data();
    void signaturesThatAreNoRecords();
    void checksumOfARecordIsComparedByteForByte_data();
    void checksumOfARecordIsComparedByteForByte();
    void firstOfTwoRecordsCounts_data();
    void firstOfTwoRecordsCounts();
    void relativePathsAreComparedExactly_data();
    void relativePathsAreComparedExactly();
    void signingWithASeparatorAtTheEndMakesEverythingNew();

    void folderPathsMayTakeAnyForm_data();
    void folderPathsMayTakeAnyForm();
    void patchFolderIsCreatedWithParents();

    void deltasRebuildTheNewFiles();
    void copiesAreTheNewFiles();
    void fileThatBecomesAFolder();
    void folderThatBecomesAFile();
    void unusualNamesAreTakenAsTheyAre_data();
    void unusualNamesAreTakenAsTheyAre();
    void manyFiles();

    void failedDeltaFailsTheRun_data();
    void failedDeltaFailsTheRun();
    void failedCopyFailsTheRun_data();
    void failedCopyFailsTheRun();
    void fileThatGoesAwayFailsItsRule_data();
    void fileThatGoesAwayFailsItsRule();
    void fileThatChangesFailsItsPatch();
    void fileThatChangesAfterItsRuleIsDoneFailsNothing();
    void changedContentIsCopiedAsItIs();
    void fileThatGoesAwayBeforeItIsExaminedIsToBePatched();
    void unreadableFile_data();
    void unreadableFile();
    void logQuotesRelativePaths();
    void severalFailuresAreOneError();
    void failureKeepsTheManifestOfAnEarlierRun();
    void errorIsSignalledInTheCallersThread();

    void manifestThatCannotBeOpened_data();
    void manifestThatCannotBeOpened();
    void pipeInPlaceOfTheManifestIsNotWaitedFor();
    void linkToAPipeIsNotWaitedFor();
    void failureAfterOpeningTheManifestIsNotNoticed();

    void existingPatchFolderIsFilledAndNotCleaned();
    void tooLongPathsAreWarnedOfAndWorkGoesOn_data();
    void tooLongPathsAreWarnedOfAndWorkGoesOn();
    void longPathsOfCopiesAreNotWarnedOf();

private:
    QString path(const char *relative) const { return m_tree->path(text(relative)); }
    void write(const QString &relative, const QByteArray &content) const
    {
        m_tree->write(relative, content);
    }
    void write(const char *relative, const QByteArray &content) const
    {
        m_tree->write(text(relative), content);
    }
    QByteArray read(const char *relative) const { return m_tree->read(text(relative)); }
    void changeGameBin();
    void signOld() const;
    void writeRecords(const QByteArrayList &records) const;
    bool createPatch(
        const QStringList &ignoreFiles = QStringList(), const PROGRESS_CALLBACK &progress = {});
    QJsonArray rules() const;
    QStringList ruleLines() const;
    QByteArray rebuilt(const QString &relativePath) const;
    QStringList patchEntries() const { return TestTree::snapshot(path("patch")).keys(); }
    QString failureOf(const char *patchFolder) const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    DeltaController m_controller;
    std::optional<QSignalSpy> m_errors;
};

#define EXPECT_ERROR(message)                                                                      \
    do {                                                                                           \
        QCOMPARE(m_log->take(QtDebugMsg, Category), QStringList(message));                         \
        QCOMPARE(m_errors->count(), 1);                                                            \
        QCOMPARE(m_errors->takeFirst(), QVariantList({message}));                                  \
    } while (false)

void tst_DeltaController::initTestCase()
{
    // Else librsync tells on the standard error what the tests provoke.
    Pellox::setRsyncLogOutput([](Pellox::loglevel, const char *) {});
}

void tst_DeltaController::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_tree->makeFolder(text("old"));
    m_tree->makeFolder(text("new"));
    m_errors.emplace(&m_controller, &DeltaController::createPatchError);
}

void tst_DeltaController::cleanup()
{
    QDir::setCurrent(QDir::rootPath());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    QCOMPARE(m_log->take(QtDebugMsg, Category), QStringList());
    QCOMPARE(m_errors->count(), 0);
    m_tree.reset();
    m_log.reset();
}

/// The shortest patch: /game.bin turns from "old" into "new".
void tst_DeltaController::changeGameBin()
{
    write("old/game.bin", "old");
    write("new/game.bin", "new");
    signOld();
}

void tst_DeltaController::signOld() const
{
    SignaturesController().createSignatures(path("old"), path("signatures"));
}

void tst_DeltaController::writeRecords(const QByteArrayList &records) const
{
    write("signatures/signatures.json", '[' + records.join(", ") + ']');
}

bool tst_DeltaController::createPatch(
    const QStringList &ignoreFiles, const PROGRESS_CALLBACK &progress)
{
    return m_controller.createPatch(
        path("new"), path("signatures"), path("patch"), ignoreFiles, progress);
}

QJsonArray tst_DeltaController::rules() const
{
    return QJsonDocument::fromJson(read("patch/patchRules.json")).array();
}

/// The rules as "patch /relative/path", in order.
QStringList tst_DeltaController::ruleLines() const
{
    QStringList lines;
    const QJsonArray all = rules();
    for (const QJsonValue &rule : all)
        lines.append(rule[QLatin1String("rule")].toString() + QLatin1Char(' ')
            + rule[QLatin1String("relative_path")].toString());
    return lines;
}

/// What the old file of that path and its delta make.
QByteArray tst_DeltaController::rebuilt(const QString &relativePath) const
{
    const bool applied = Pellox::applyPatch(
        path("old") + relativePath, path("patch") + relativePath, path("rebuilt"), 0, nullptr);
    return applied ? read("rebuilt") : QByteArray("not rebuilt");
}

QString tst_DeltaController::failureOf(const char *patchFolder) const
{
    return QStringLiteral("Failed create patch rules file in folder ") + path(patchFolder);
}

void tst_DeltaController::metaObjectHoldsWhatIsPromisedAndNoMore()
{
    const QMetaObject &meta = DeltaController::staticMetaObject;
    QByteArrayList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const QByteArray kind = method.methodType() == QMetaMethod::Signal ? "signal "
            : method.methodType() == QMetaMethod::Slot                     ? "slot "
                                                                           : "other ";
        const QByteArray clone = method.attributes() & QMetaMethod::Cloned ? "cloned " : "";
        QCOMPARE(method.access(), QMetaMethod::Public);
        methods.append(clone + kind + method.typeName() + ' ' + method.methodSignature());
    }

    QCOMPARE(methods,
        QByteArrayList({
            "signal void createPatchError(QString)",
            "slot bool createPatch(QString,QString,QString,QStringList,PROGRESS_CALLBACK)",
            "cloned slot bool createPatch(QString,QString,QString,QStringList)",
        }));
    QCOMPARE(meta.className(), "Pellox::DeltaController");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_DeltaController::slotsCanBeCalledByName()
{
    changeGameBin();
    bool made = false;
    QVERIFY(QMetaObject::invokeMethod(&m_controller, "createPatch", Q_RETURN_ARG(bool, made),
        Q_ARG(QString, path("new")), Q_ARG(QString, path("signatures")),
        Q_ARG(QString, path("patch")), Q_ARG(QStringList, QStringList())));
    QVERIFY(made);
    QCOMPARE(ruleLines(), texts({"patch /game.bin"}));

    QVector<double> progress;
    const PROGRESS_CALLBACK callback = [&](double percent) { progress.append(percent); };
    made = false;
    QVERIFY(QMetaObject::invokeMethod(&m_controller, "createPatch", Q_RETURN_ARG(bool, made),
        Q_ARG(QString, path("new")), Q_ARG(QString, path("signatures")),
        Q_ARG(QString, path("patch")), Q_ARG(QStringList, QStringList()),
        Q_ARG(PROGRESS_CALLBACK, callback)));
    QVERIFY(made);
    QCOMPARE(progress, QVector<double>({50, 100}));
}

void tst_DeltaController::belongsToItsParent()
{
    QObject parent;
    const QPointer<DeltaController> child = new DeltaController(&parent);
    QCOMPARE(child->parent(), &parent);
    QVERIFY(!m_controller.parent());
}

void tst_DeltaController::manifestOfDeletesAndAPatchIsExact()
{
    changeGameBin();
    writeRecords({record("/gone/1", "x"), record("/game.bin", Sha512OfOld), record("/gone2", "y")});

    QVERIFY(createPatch());
    QCOMPARE(read("patch/patchRules.json"),
        QByteArray(
            "[\n"
            "    {\n"
            "        \"relative_path\": \"/gone2\",\n"
            "        \"rule\": \"delete\"\n"
            "    },\n"
            "    {\n"
            "        \"relative_path\": \"/gone/1\",\n"
            "        \"rule\": \"delete\"\n"
            "    },\n"
            "    {\n"
            "        \"file_size\": 3,\n"
            "        \"relative_path\": \"/game.bin\",\n"
            "        \"rule\": \"patch\",\n"
            "        \"sha512\": \"aa54def9e0bb11c1ebbfc97a9ee63af9e95c4fdf1d032b1ddcc0f21661f7"
            "48651d2b2b8fb94e9ae041780554db29815daa1c0fe991ddae54eff0c4c28cd9d20c\"\n"
            "    }\n"
            "]\n"));
}

void tst_DeltaController::manifestOfCopiesIsExact()
{
    write("new/data/x.pak", "new");
    signOld();

    QVERIFY(createPatch());
    QCOMPARE(read("patch/patchRules.json"),
        QByteArray("[\n"
                   "    {\n"
                   "        \"relative_path\": \"/data/x.pak\",\n"
                   "        \"rule\": \"copy\"\n"
                   "    }\n"
                   "]\n"));
}

void tst_DeltaController::fileSizeIsAWholeNumber()
{
    write("old/a", "old");
    write("new/a", QByteArray(1234567, '\0'));
    signOld();

    QVERIFY(createPatch());
    const QByteArray json = read("patch/patchRules.json");
    QVERIFY2(json.contains("        \"file_size\": 1234567,\n"), json.constData());
}

void tst_DeltaController::deletesStandFirstAndReversedThenTheWalk()
{
    QStringList expected;
    for (int i = 0; i < 12; ++i) {
        write(QStringLiteral("old/%1/gone %2").arg(i % 3).arg(i), "old");
        write(QStringLiteral("old/%1/changed %2").arg(i % 3).arg(i), "old");
        write(QStringLiteral("new/%1/changed %2").arg(i % 3).arg(i), "new");
        write(QStringLiteral("old/%1/same %2").arg(i % 3).arg(i), "same");
        write(QStringLiteral("new/%1/same %2").arg(i % 3).arg(i), "same");
        write(QStringLiteral("new/%1/added %2").arg(i % 3).arg(i), "new");
    }
    for (const QString &relativePath : walk(path("old"))) {
        if (relativePath.contains(QLatin1String("gone")))
            expected.prepend(QStringLiteral("delete ") + relativePath);
    }
    for (const QString &relativePath : walk(path("new"))) {
        if (relativePath.contains(QLatin1String("changed")))
            expected.append(QStringLiteral("patch ") + relativePath);
        if (relativePath.contains(QLatin1String("added")))
            expected.append(QStringLiteral("copy ") + relativePath);
    }
    signOld();

    QVERIFY(createPatch());
    QCOMPARE(expected.size(), 36);
    QCOMPARE(ruleLines(), expected);
}

void tst_DeltaController::unchangedFilesGetNoRule()
{
    for (const char *file : {"a", "folder/b", "folder/empty"}) {
        write(QStringLiteral("old/") + text(file), file);
        write(QStringLiteral("new/") + text(file), file);
    }
    signOld();
    QVector<double> progress;

    QVERIFY(createPatch({}, [&](double percent) { progress.append(percent); }));
    QCOMPARE(read("patch/patchRules.json"), QByteArray("[\n]\n"));
    QCOMPARE(patchEntries(), texts({"patchRules.json"}));
    QCOMPARE(progress, QVector<double>({1.0 / 3 * 50, 2.0 / 3 * 50, 50}));
}

void tst_DeltaController::noneIsNeverWritten()
{
    changeGameBin();
    write("old/gone", "old");
    write("old/same", "same");
    write("new/same", "same");
    write("new/added", "new");
    signOld();

    QVERIFY(createPatch());
    QCOMPARE(sorted(ruleLines()), texts({"copy /added", "delete /gone", "patch /game.bin"}));
}

void tst_DeltaController::buildsWithoutFiles_data()
{
    QTest::addColumn<QByteArrayList>("records");
    QTest::addColumn<QString>("newBuild");
    QTest::addColumn<QStringList>("rules");
    QTest::addColumn<QVector<double>>("progress");

    const QByteArrayList two{record("/a", "x"), record("/b", "y")};
    QTest::newRow("both") << QByteArrayList() << text("new") << QStringList() << QVector<double>();
    QTest::newRow("new one") << two << text("new") << texts({"delete /b", "delete /a"})
                             << QVector<double>{75, 100};
    QTest::newRow("new one is not there")
        << two << text("nowhere") << texts({"delete /b", "delete /a"}) << QVector<double>{75, 100};
}

void tst_DeltaController::buildsWithoutFiles()
{
    QFETCH(QByteArrayList, records);
    QFETCH(QString, newBuild);
    QFETCH(QStringList, rules);
    QFETCH(QVector<double>, progress);

    write("new/.hidden", "new");
    m_tree->makeFolder(text("new/empty"));
    writeRecords(records);
    QVector<double> seen;
    const OneThread oneThread;
    QVERIFY(m_controller.createPatch(m_tree->path(newBuild), path("signatures"), path("patch"), {},
        [&](double percent) { seen.append(percent); }));

    QCOMPARE(ruleLines(), rules);
    QCOMPARE(seen, progress);
    QCOMPARE(patchEntries(), texts({"patchRules.json"}));
}

void tst_DeltaController::ignoredFile_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<bool>("relativeToTree");
    QTest::addColumn<bool>("ignored");

    QTest::newRow("absolute path") << text("/new/data/x.pak") << false << true;
    QTest::newRow("relative path of the rule") << text("/data/x.pak") << true << false;
    QTest::newRow("relative to the current folder") << text("new/data/x.pak") << true << false;
    QTest::newRow("name alone") << text("x.pak") << true << false;
    QTest::newRow("other case") << text("/new/data/X.pak") << false << false;
    QTest::newRow("other case of the folder") << text("/new/Data/x.pak") << false << false;
    QTest::newRow("doubled separator") << text("/new//data/x.pak") << false << false;
    QTest::newRow("dot") << text("/new/./data/x.pak") << false << false;
    QTest::newRow("blank at the end") << text("/new/data/x.pak ") << false << false;
    QTest::newRow("one character less") << text("/new/data/x.pa") << false << false;
    QTest::newRow("its folder") << text("/new/data") << false << false;
    QTest::newRow("wildcard") << text("/new/data/*") << false << false;
    QTest::newRow("empty") << text("") << true << false;
}

void tst_DeltaController::ignoredFile()
{
    QFETCH(QString, entry);
    QFETCH(bool, relativeToTree);
    QFETCH(bool, ignored);

    write("new/data/x.pak", "new");
    signOld();
    QVERIFY(QDir::setCurrent(m_tree->path()));
    QVERIFY(createPatch({relativeToTree ? entry : m_tree->path() + entry}));

    QCOMPARE(ruleLines(), ignored ? QStringList() : texts({"copy /data/x.pak"}));
    QCOMPARE(m_tree->exists(text("patch/data/x.pak")), !ignored);
}

void tst_DeltaController::ignoredFileSparesItsRecord_data()
{
    QTest::addColumn<QByteArrayList>("records");
    QTest::addColumn<QStringList>("rules");

    QTest::newRow("changed file") << QByteArrayList{record("/a", Sha512OfOld)} << QStringList();
    QTest::newRow("unchanged file") << QByteArrayList{record("/a", Sha512OfNew)} << QStringList();
    QTest::newRow("two records of it")
        << QByteArrayList{record("/a", "x"), record("/a", "y")} << QStringList();
    QTest::newRow("record in other case")
        << QByteArrayList{record("/A", "x")} << texts({"delete /A"});
    QTest::newRow("record without separator")
        << QByteArrayList{record("a", "x")} << texts({"delete a"});
    QTest::newRow("ignored path that only the old build has")
        << QByteArrayList{record("/gone", "x")} << texts({"delete /gone"});
}

void tst_DeltaController::ignoredFileSparesItsRecord()
{
    QFETCH(QByteArrayList, records);
    QFETCH(QStringList, rules);

    write("new/a", "new");
    writeRecords(records);
    QVERIFY(createPatch({path("new/a"), path("new/gone")}));

    QCOMPARE(ruleLines(), rules);
    QCOMPARE(patchEntries(), texts({"patchRules.json"}));
}

void tst_DeltaController::severalFilesAreIgnored()
{
    for (const char *file : {"new/a", "new/b", "new/folder/a", "new/folder/b"})
        write(file, "new");
    signOld();
    QVERIFY(createPatch({path("new/folder/a"), path("nowhere"), path("new/b"), path("new/b")}));

    QCOMPARE(sorted(ruleLines()), texts({"copy /a", "copy /folder/b"}));
}

void tst_DeltaController::walkTakesFilesAndLinksToFiles()
{
    write("new/file", "new");
    write("new/.hidden", "new");
    write("new/.hidden folder/file", "new");
    m_tree->makeFolder(text("new/empty folder"));
    write("outside/file", "outside");
    m_tree->link(text("new/link to file"), path("outside/file"));
    m_tree->link(text("new/link to folder"), path("outside"));
    m_tree->link(text("new/dangling"), path("nowhere"));
    QCOMPARE(::mkfifo(QFile::encodeName(path("new/pipe")).constData(), 0600), 0);
    signOld();

    QVERIFY(createPatch());
    QCOMPARE(sorted(ruleLines()), texts({"copy /file", "copy /link to file"}));
    QCOMPARE(patchEntries(), texts({"file", "link to file", "patchRules.json"}));
    QCOMPARE(read("patch/link to file"), QByteArray("outside"));
    QVERIFY(!QFileInfo(path("patch/link to file")).isSymLink());
}

void tst_DeltaController::decisionProgressIsExactAndInTheCallersThread()
{
    // No rule comes of these, so that only decisions are reported.
    QByteArrayList records;
    for (const char *file : {"/a", "/b", "/c"}) {
        write(QStringLiteral("new") + text(file), "new");
        records.append(record(file, Sha512OfNew));
    }
    writeRecords(records);
    QVector<double> values;
    QVector<QThread *> seen;
    QThread *caller = nullptr;
    std::thread thread([&] {
        caller = QThread::currentThread();
        m_controller.createPatch(
            path("new"), path("signatures"), path("patch"), {}, [&](double percent) {
                values.append(percent);
                seen.append(QThread::currentThread());
            });
    });
    thread.join();

    QCOMPARE(values, QVector<double>({1.0 / 3 * 50, 2.0 / 3 * 50, 50}));
    QCOMPARE(seen, QVector<QThread *>({caller, caller, caller}));
}

void tst_DeltaController::ignoredFilesDoNotCount()
{
    for (const char *file : {"new/a", "new/b", "new/c"})
        write(file, "new");
    writeRecords({record("/a", Sha512OfNew), record("/b", Sha512OfNew)});
    QVector<double> progress;
    QVERIFY(createPatch({path("new/c")}, [&](double percent) { progress.append(percent); }));

    QCOMPARE(progress, QVector<double>({25, 50}));
}

void tst_DeltaController::fileIsReportedBeforeItIsExamined()
{
    for (const char *file : {"old/a", "old/b", "old/c"})
        write(file, "old");
    for (const char *file : {"new/a", "new/b", "new/c"})
        write(file, "new");
    signOld();
    const QStringList order = walk(path("new"));

    // The report of the second file comes too late for the first and in time for the second.
    QVERIFY(createPatch({}, [&](double percent) {
        if (percent == 2.0 / 3 * 50)
            write(text("new") + order.at(1), "old");
    }));
    QCOMPARE(
        ruleLines(), QStringList({text("patch ") + order.at(0), text("patch ") + order.at(2)}));
}

void tst_DeltaController::ruleProgressIsExactInTheOrderOfCompletion()
{
    write("new/added", "new");
    changeGameBin();
    writeRecords({record("/gone", "x"), record("/game.bin", Sha512OfOld)});
    QVector<double> progress;
    const OneThread oneThread;
    QVERIFY(createPatch({}, [&](double percent) { progress.append(percent); }));

    QCOMPARE(progress, QVector<double>({25, 50, 1.0 / 3 * 50 + 50, 2.0 / 3 * 50 + 50, 100}));
}

void tst_DeltaController::ruleIsReportedBeforeItIsExecuted()
{
    write("new/a", "new");
    write("new/b", "new");
    signOld();
    QVector<int> copies;
    const OneThread oneThread;
    QVERIFY(createPatch({}, [&](double percent) {
        if (percent > 50)
            copies.append(patchEntries().size());
    }));

    QCOMPARE(copies, QVector<int>({0, 1}));
}

void tst_DeltaController::ruleProgressComesOnceARule()
{
    constexpr int Count = 50;
    for (int i = 0; i < Count; ++i)
        write(QStringLiteral("new/%1").arg(i), "new");
    signOld();
    QMutex mutex;
    QVector<double> progress;
    QVERIFY(createPatch({}, [&](double percent) {
        const QMutexLocker lock(&mutex);
        if (percent > 50)
            progress.append(percent);
    }));

    // How the values fall is approximate by promise where rules run side by side.
    QCOMPARE(progress.size(), Count);
    for (const double percent : std::as_const(progress))
        QVERIFY2(percent >= 51 && percent <= 100, qPrintable(QString::number(percent)));
}

void tst_DeltaController::rulesRunOnTheThreadPool()
{
    changeGameBin();
    QThread *decision = nullptr;
    QThread *rule = nullptr;
    QVERIFY(createPatch(
        {}, [&](double percent) { (percent > 50 ? rule : decision) = QThread::currentThread(); }));

    QCOMPARE(decision, QThread::currentThread());
    QVERIFY(rule && rule != decision);
}

void tst_DeltaController::emptyCallbackIsTakenAsOneThatDoesNothing()
{
    changeGameBin();
    QVERIFY(m_controller.createPatch(
        path("new"), path("signatures"), path("patch"), {}, PROGRESS_CALLBACK()));
    QCOMPARE(ruleLines(), texts({"patch /game.bin"}));
}

void tst_DeltaController::callbackMayBeLeftOut()
{
    changeGameBin();
    QVERIFY(m_controller.createPatch(path("new"), path("signatures"), path("patch"), {}));
    QCOMPARE(ruleLines(), texts({"patch /game.bin"}));
}

void tst_DeltaController::signaturesThatCannotBeOpened_data()
{
    QTest::addColumn<QString>("signatureFolder"); // from the tree, the current folder
    QTest::addColumn<bool>("absolute");

    QTest::newRow("missing file") << text("old") << true;
    QTest::newRow("missing folder") << text("nowhere") << true;
    QTest::newRow("separator at the end") << text("old/") << true;
    QTest::newRow("doubled separator") << text("/old") << true;
    QTest::newRow("relative") << text("old") << false;
    QTest::newRow("relative with dots") << text("./new/../old") << false;
    QTest::newRow("odd name") << text("\"%1\" größe\nend") << false;
    QTest::newRow("folder of that name") << text("folder") << false;
    QTest::newRow("dangling link of that name") << text("dangling") << false;
    QTest::newRow("named pipe of that name") << text("pipe") << false;
    QTest::newRow("other case") << text("case") << false;
}

void tst_DeltaController::signaturesThatCannotBeOpened()
{
    QFETCH(QString, signatureFolder);
    QFETCH(bool, absolute);

    m_tree->makeFolder(text("folder/signatures.json"));
    m_tree->makeFolder(text("pipe"));
    QCOMPARE(::mkfifo(QFile::encodeName(path("pipe/signatures.json")).constData(), 0600), 0);
    m_tree->link(text("dangling/signatures.json"), path("nowhere"));
    write("case/Signatures.json", "[]");
    write("new/a", "new");
    QVERIFY(QDir::setCurrent(m_tree->path()));
    if (absolute)
        signatureFolder.prepend(m_tree->path() + QLatin1Char('/'));
    int calls = 0;
    QVERIFY(!m_controller.createPatch(
        path("new"), signatureFolder, path("patches/one"), {}, [&](double) { ++calls; }));

    EXPECT_ERROR(QStringLiteral("Can't open signatures.json from ") + signatureFolder);
    QVERIFY(QFileInfo(path("patches/one")).isDir());
    QCOMPARE(TestTree::snapshot(path("patches/one")).size(), 0);
    QCOMPARE(calls, 0);
}

void tst_DeltaController::signaturesFolderIsTakenAsPassed()
{
    // An empty path with a separator behind it is the root, not the current folder.
    QVERIFY(!QFile::exists(text("/signatures.json")));
    changeGameBin();
    QVERIFY(QDir::setCurrent(path("signatures")));
    QVERIFY(!m_controller.createPatch(path("new"), QString(), path("patch"), {}));

    EXPECT_ERROR(QStringLiteral("Can't open signatures.json from "));
}

void tst_DeltaController::signaturesThatAreNoRecords_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QStringList>("rules");

    const QStringList copy = texts({"copy /a"});
    QTest::newRow("empty file") << QByteArray() << copy;
    QTest::newRow("not JSON") << QByteArray("relative_path=/a") << copy;
    QTest::newRow("cut off") << QByteArray("[{\"relative_path\": \"/a\"}") << copy;
    QTest::newRow("object") << QByteArray("{\"relative_path\": \"/a\"}") << copy;
    QTest::newRow("plain value") << QByteArray("null") << copy;
    QTest::newRow("more behind the array") << QByteArray("[{\"relative_path\": \"/a\"}]]") << copy;
    QTest::newRow("empty array") << QByteArray("[]") << copy;
    QTest::newRow("members that are no objects")
        << QByteArray("[1, \"/a\", null, [\"/a\"]]")
        << texts({"delete ", "delete ", "delete ", "delete ", "copy /a"});
    QTest::newRow("object without path")
        << QByteArray("[{\"sha512\": \"x\"}]") << texts({"delete ", "copy /a"});
    QTest::newRow("path that is a number")
        << QByteArray("[{\"relative_path\": 5}]") << texts({"delete 5", "copy /a"});
    QTest::newRow("member in other case")
        << QByteArray("[{\"Relative_Path\": \"/a\"}]") << texts({"delete ", "copy /a"});
}

void tst_DeltaController::signaturesThatAreNoRecords()
{
    QFETCH(QByteArray, json);
    QFETCH(QStringList, rules);

    write("signatures/signatures.json", json);
    write("new/a", "new");
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(), rules);
    QCOMPARE(read("patch/a"), QByteArray("new"));
}

void tst_DeltaController::checksumOfARecordIsComparedByteForByte_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("unchanged");

    const QByteArray path = "\"relative_path\": \"/game.bin\"";
    const QByteArray sha512 = Sha512OfNew;
    QTest::newRow("equal") << '{' + path + ", \"sha512\": \"" + sha512 + "\"}" << true;
    QTest::newRow("other order of members")
        << "{\"sha512\": \"" + sha512 + "\", " + path + '}' << true;
    QTest::newRow("more members") << '{' + path + ", \"size\": 3, \"sha512\": \"" + sha512 + "\"}"
                                  << true;
    QTest::newRow("capitals") << '{' + path + ", \"sha512\": \"" + sha512.toUpper() + "\"}"
                              << false;
    QTest::newRow("one digit less")
        << '{' + path + ", \"sha512\": \"" + sha512.left(127) + "\"}" << false;
    QTest::newRow("one digit more") << '{' + path + ", \"sha512\": \"" + sha512 + "0\"}" << false;
    QTest::newRow("empty") << '{' + path + ", \"sha512\": \"\"}" << false;
    QTest::newRow("missing") << '{' + path + '}' << false;
}

void tst_DeltaController::checksumOfARecordIsComparedByteForByte()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, unchanged);

    changeGameBin();
    writeRecords({json});
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(), unchanged ? QStringList() : texts({"patch /game.bin"}));
}

void tst_DeltaController::firstOfTwoRecordsCounts_data()
{
    QTest::addColumn<QByteArrayList>("records");
    QTest::addColumn<QStringList>("rules");

    const QByteArray old = record("/game.bin", Sha512OfOld);
    const QByteArray same = record("/game.bin", Sha512OfNew);
    QTest::newRow("first differs")
        << QByteArrayList{old, same} << texts({"delete /game.bin", "patch /game.bin"});
    QTest::newRow("first is equal") << QByteArrayList{same, old} << texts({"delete /game.bin"});
    QTest::newRow("three") << QByteArrayList{same, old, same}
                           << texts({"delete /game.bin", "delete /game.bin"});
}

void tst_DeltaController::firstOfTwoRecordsCounts()
{
    QFETCH(QByteArrayList, records);
    QFETCH(QStringList, rules);

    changeGameBin();
    writeRecords(records);
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(), rules);
}

void tst_DeltaController::relativePathsAreComparedExactly_data()
{
    QTest::addColumn<QString>("oldName");
    QTest::addColumn<QString>("newName");

    QTest::newRow("letter case") << text("data.pak") << text("Data.pak");
    QTest::newRow("case of the folder") << text("Data/x") << text("data/x");
    QTest::newRow("composed, then decomposed") << text("caf\u00e9.txt") << text("cafe\u0301.txt");
    QTest::newRow("decomposed, then composed") << text("cafe\u0301.txt") << text("caf\u00e9.txt");
    QTest::newRow("blank at the end") << text("x") << text("x ");
}

void tst_DeltaController::relativePathsAreComparedExactly()
{
    QFETCH(QString, oldName);
    QFETCH(QString, newName);

    write(text("old/") + oldName, "same");
    write(text("new/") + newName, "same");
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(), QStringList({text("delete /") + oldName, text("copy /") + newName}));
    QCOMPARE(m_tree->read(text("patch/") + newName), QByteArray("same"));
}

void tst_DeltaController::signingWithASeparatorAtTheEndMakesEverythingNew()
{
    for (const char *file : {"old/same", "new/same"})
        write(file, "same");
    write("old/data/x.pak", "old");
    write("new/data/x.pak", "new");
    const QStringList oldWalk = walk(path("old"));
    const QStringList newWalk = walk(path("new"));
    SignaturesController().createSignatures(path("old/"), path("signatures"));
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(),
        QStringList({text("delete ") + oldWalk.at(1).mid(1), text("delete ") + oldWalk.at(0).mid(1),
            text("copy ") + newWalk.at(0), text("copy ") + newWalk.at(1)}));
}

void tst_DeltaController::folderPathsMayTakeAnyForm_data()
{
    QTest::addColumn<QString>("newBuild");
    QTest::addColumn<QString>("signatureFolder");
    QTest::addColumn<QString>("patchFolder");

    QTest::newRow("relative") << text("new") << text("signatures") << text("patch");
    QTest::newRow("separators at the end") << text("new/") << text("signatures/") << text("patch/");
    QTest::newRow("doubled separators")
        << text("new//") << text(".//signatures") << text("patch//");
    QTest::newRow("dots") << text("./old/../new/.") << text("new/../signatures/.")
                          << text("./new/../patch/.");
}

void tst_DeltaController::folderPathsMayTakeAnyForm()
{
    QFETCH(QString, newBuild);
    QFETCH(QString, signatureFolder);
    QFETCH(QString, patchFolder);

    changeGameBin();
    write("new/data/added", "added");
    write("new/data/ignored", "ignored");
    QVERIFY(QDir::setCurrent(m_tree->path()));
    QVERIFY(m_controller.createPatch(
        newBuild, signatureFolder, patchFolder, {path("new/data/ignored")}));

    QCOMPARE(sorted(ruleLines()), texts({"copy /data/added", "patch /game.bin"}));
    QCOMPARE(patchEntries(), texts({"data/", "data/added", "game.bin", "patchRules.json"}));
    QCOMPARE(rebuilt(text("/game.bin")), QByteArray("new"));
}

void tst_DeltaController::patchFolderIsCreatedWithParents()
{
    changeGameBin();
    QVERIFY(m_controller.createPatch(path("new"), path("signatures"), path("one/two/three"), {}));

    QCOMPARE(
        TestTree::snapshot(path("one/two/three")).keys(), texts({"game.bin", "patchRules.json"}));
}

void tst_DeltaController::deltasRebuildTheNewFiles()
{
    const QByteArray content = randomBytes(20000, 3);
    const QMap<QByteArray, QPair<QByteArray, QByteArray>> files{
        {"empty before", {"", content}},
        {"empty afterwards", {content, ""}},
        {"one byte", {"a", "b"}},
        {"one block", {content.left(2048), content.mid(2048, 2048)}},
        {"appended", {content, content + "end"}},
        {"prepended", {content, "begin" + content}},
        {"cut", {content, content.left(4097)}},
        {"folder/moved blocks", {content, content.mid(8192) + content.left(8192)}},
        {"folder/unlike", {content, randomBytes(10001, 4)}},
    };
    for (auto file = files.cbegin(); file != files.cend(); ++file) {
        write(text("old/" + file.key()), file.value().first);
        write(text("new/" + file.key()), file.value().second);
    }
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(ruleLines().size(), files.size());
    for (auto file = files.cbegin(); file != files.cend(); ++file)
        QVERIFY2(rebuilt(text("/" + file.key())) == file.value().second, file.key().constData());
    QVERIFY(QFileInfo(path("patch/appended")).size() < 4096);
    const QJsonArray all = rules();
    for (const QJsonValue &rule : all) {
        const QString file = rule[QLatin1String("relative_path")].toString();
        const QByteArray made = m_tree->read(text("new") + file);
        QCOMPARE(rule[QLatin1String("sha512")].toString().toLatin1(),
            QCryptographicHash::hash(made, QCryptographicHash::Sha512).toHex());
        QCOMPARE(rule[QLatin1String("file_size")].toInt(-1), made.size());
    }
}

void tst_DeltaController::copiesAreTheNewFiles()
{
    write("new/a", randomBytes(100000, 5));
    write("new/empty", "");
    write("new/deep/er/b", "new");
    signOld();
    QVERIFY(createPatch());

    auto expected = TestTree::snapshot(path("new"));
    expected.insert(text("patchRules.json"), read("patch/patchRules.json"));
    QCOMPARE(TestTree::snapshot(path("patch")), expected);
}

void tst_DeltaController::fileThatBecomesAFolder()
{
    write("old/name", "old");
    write("new/name/file", "new");
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(), texts({"delete /name", "copy /name/file"}));
    QCOMPARE(read("patch/name/file"), QByteArray("new"));
}

void tst_DeltaController::folderThatBecomesAFile()
{
    write("old/name/one", "old");
    write("new/name", "new");
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(ruleLines(), texts({"delete /name/one", "copy /name"}));
    QCOMPARE(read("patch/name"), QByteArray("new"));
}

void tst_DeltaController::unusualNamesAreTakenAsTheyAre_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("blanks") << text(" my game ");
    QTest::newRow("umlauts") << text("Größe/Übung.txt");
    QTest::newRow("beyond the basic plane") << text("\U0001F3AE.pak");
    QTest::newRow("place holder") << text("%1.pak");
    QTest::newRow("quotes") << text("\"game\" 'x'.pak");
    QTest::newRow("line feed") << text("two\nlines.pak");
    QTest::newRow("backslash") << text("back\\slash.pak");
    QTest::newRow("dash") << text("-");
    QTest::newRow("longest name") << QString(255, QLatin1Char('n'));
}

void tst_DeltaController::unusualNamesAreTakenAsTheyAre()
{
    QFETCH(QString, name);

    write(text("old/changed/") + name, "old");
    write(text("new/changed/") + name, "new");
    write(text("new/added/") + name, "added");
    write(text("old/gone/") + name, "gone");
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(sorted(ruleLines()),
        QStringList({text("copy /added/") + name, text("delete /gone/") + name,
            text("patch /changed/") + name}));
    QCOMPARE(m_tree->read(text("patch/added/") + name), QByteArray("added"));
    QCOMPARE(rebuilt(text("/changed/") + name), QByteArray("new"));
}

void tst_DeltaController::manyFiles()
{
    constexpr int Count = 60;
    for (int i = 0; i < Count; ++i) {
        const QByteArray name = QByteArray::number(i % 7) + '/' + QByteArray::number(i);
        write(text("old/changed/" + name), "old" + name);
        write(text("new/changed/" + name), "new" + name);
        write(text("new/added/" + name), name);
        write(text("old/gone/" + name), name);
    }
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(ruleLines().size(), 3 * Count);
    for (int i = 0; i < Count; ++i) {
        const QByteArray name = QByteArray::number(i % 7) + '/' + QByteArray::number(i);
        QCOMPARE(rebuilt(text("/changed/" + name)), "new" + name);
        QCOMPARE(read("patch/added/" + name), name);
    }
}

void tst_DeltaController::failedDeltaFailsTheRun_data()
{
    QTest::addColumn<QString>("breakage");
    QTest::addColumn<QString>("place");

    QTest::newRow("signature missing") << text("remove") << text("signatures/game.bin");
    QTest::newRow("signature broken") << text("garbage") << text("signatures/game.bin");
    QTest::newRow("signature empty") << text("empty") << text("signatures/game.bin");
    QTest::newRow("signature a folder") << text("folder") << text("signatures/game.bin");
    QTest::newRow("folder in the delta's place") << text("folder") << text("patch/game.bin");
    QTest::newRow("delta on a full device") << text("full") << text("patch/game.bin");
}

void tst_DeltaController::failedDeltaFailsTheRun()
{
    QFETCH(QString, breakage);
    QFETCH(QString, place);

    changeGameBin();
    write("new/added", "added");
    if (m_tree->exists(place))
        m_tree->remove(place);
    if (breakage == QLatin1String("garbage"))
        write(place, "no signature at all");
    else if (breakage == QLatin1String("empty"))
        write(place, "");
    else if (breakage == QLatin1String("folder"))
        m_tree->makeFolder(place);
    else if (breakage == QLatin1String("full"))
        m_tree->link(place, text("/dev/full"));
    QVERIFY(!createPatch());

    QCOMPARE(m_log->take(QtCriticalMsg, Category),
        texts({"Failed create patch file for  \"/game.bin\""}));
    QCOMPARE(m_log->takeAll(ExecutorCategory),
        texts({"critical: Failed apply rule \"{\\\"file_size\\\":3,"
               "\\\"relative_path\\\":\\\"/game.bin\\\",\\\"rule\\\":\\\"patch\\\","
               "\\\"sha512\\\":\\\"aa54def9e0bb11c1ebbfc97a9ee63af9e95c4fdf1d032b1ddcc0f21661f74865"
               "1d2b2b8fb94e9ae041780554db29815daa1c0fe991ddae54eff0c4c28cd9d20c\\\"}\""}));
    EXPECT_ERROR(failureOf("patch"));
    QVERIFY(!m_tree->exists(text("patch/patchRules.json")));
    QCOMPARE(read("patch/added"), QByteArray("added"));
    QVERIFY(!m_log->take(QtDebugMsg, "PatchHelper").isEmpty());
}

void tst_DeltaController::failedCopyFailsTheRun_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("warnings");

    QTest::newRow("folder in the copy's place") << text(
        "patch/data/x.pak") << QString() << texts({"target file already exists! Remove it!"});
    QTest::newRow("file in the place of its folder")
        << QString() << text("patch/data") << QStringList();
}

void tst_DeltaController::failedCopyFailsTheRun()
{
    QFETCH(QString, folder);
    QFETCH(QString, file);
    QFETCH(QStringList, warnings);

    if (!folder.isEmpty())
        m_tree->makeFolder(folder);
    if (!file.isEmpty())
        write(file, "in the way");
    changeGameBin();
    write("new/data/x.pak", "new");
    QVERIFY(!createPatch());

    QCOMPARE(m_log->take(QtWarningMsg, ExecutorCategory), warnings);
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory),
        texts({"Failed apply rule "
               "\"{\\\"relative_path\\\":\\\"/data/x.pak\\\",\\\"rule\\\":\\\"copy\\\"}\""}));
    EXPECT_ERROR(failureOf("patch"));
    QVERIFY(!m_tree->exists(text("patch/patchRules.json")));
    QCOMPARE(rebuilt(text("/game.bin")), QByteArray("new"));
}

void tst_DeltaController::fileThatGoesAwayFailsItsRule_data()
{
    QTest::addColumn<bool>("isOld");
    QTest::addColumn<QString>("executorLine");

    QTest::newRow("patch")
        << true
        << text("Failed apply rule \"{\\\"file_size\\\":3,\\\"relative_path\\\":\\\"/game.bin\\\","
                "\\\"rule\\\":\\\"patch\\\",\\\"sha512\\\":\\\""
                "aa54def9e0bb11c1ebbfc97a9ee63af9e95c4fdf1d032b1ddcc0f21661f74865"
                "1d2b2b8fb94e9ae041780554db29815daa1c0fe991ddae54eff0c4c28cd9d20c\\\"}\"");
    QTest::newRow("copy")
        << false
        << text("Failed apply rule "
                "\"{\\\"relative_path\\\":\\\"/game.bin\\\",\\\"rule\\\":\\\"copy\\\"}\"");
}

void tst_DeltaController::fileThatGoesAwayFailsItsRule()
{
    QFETCH(bool, isOld);
    QFETCH(QString, executorLine);

    changeGameBin();
    if (!isOld)
        writeRecords({});
    QVERIFY(!createPatch({}, [&](double percent) {
        if (percent > 50)
            m_tree->remove(text("new/game.bin"));
    }));

    QCOMPARE(m_log->take(QtCriticalMsg, Category), texts({"File \"/game.bin\" is not founded"}));
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory), QStringList(executorLine));
    EXPECT_ERROR(failureOf("patch"));
    QCOMPARE(patchEntries(), QStringList());
}

void tst_DeltaController::fileThatChangesFailsItsPatch()
{
    changeGameBin();
    QVERIFY(!createPatch({}, [&](double percent) {
        if (percent > 50)
            write("new/game.bin", "wen");
    }));

    QCOMPARE(
        m_log->take(QtCriticalMsg, Category), texts({"Seems that file \"/game.bin\" has changed"}));
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory).size(), 1);
    EXPECT_ERROR(failureOf("patch"));
    QCOMPARE(patchEntries(), QStringList());
}

void tst_DeltaController::fileThatChangesAfterItsRuleIsDoneFailsNothing()
{
    for (const char *file : {"old/a", "old/b"})
        write(file, "old");
    for (const char *file : {"new/a", "new/b"})
        write(file, "new");
    signOld();
    const QStringList order = walk(path("new"));
    const OneThread oneThread;
    QVERIFY(createPatch({}, [&](double percent) {
        if (percent == 100.0)
            m_tree->remove(text("new") + order.first());
    }));

    QCOMPARE(rebuilt(order.first()), QByteArray("new"));
    QCOMPARE(rebuilt(order.last()), QByteArray("new"));
}

void tst_DeltaController::changedContentIsCopiedAsItIs()
{
    write("new/added", "decided on");
    signOld();
    QVERIFY(createPatch({}, [&](double percent) {
        if (percent > 50)
            write("new/added", "changed since");
    }));

    QCOMPARE(read("patch/added"), QByteArray("changed since"));
}

void tst_DeltaController::fileThatGoesAwayBeforeItIsExaminedIsToBePatched()
{
    changeGameBin();
    QVERIFY(!createPatch({}, [&](double percent) {
        if (percent == 50.0)
            m_tree->remove(text("new/game.bin"));
    }));

    QCOMPARE(m_log->take(QtCriticalMsg, Category), texts({"File \"/game.bin\" is not founded"}));
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory),
        texts({"Failed apply rule \"{\\\"file_size\\\":0,\\\"relative_path\\\":\\\"/game.bin\\\","
               "\\\"rule\\\":\\\"patch\\\",\\\"sha512\\\":\\\"\\\"}\""}));
    EXPECT_ERROR(failureOf("patch"));
}

void tst_DeltaController::unreadableFile_data()
{
    QTest::addColumn<QByteArrayList>("records");
    QTest::addColumn<bool>("done");
    QTest::addColumn<QStringList>("lines");

    QTest::newRow("could be read once") << QByteArrayList{record("/game.bin", Sha512OfOld)} << false
                                        << texts({"Failed create patch file for  \"/game.bin\""});
    QTest::newRow("could never be read")
        << QByteArrayList{record("/game.bin", "")} << true << QStringList();
}

void tst_DeltaController::unreadableFile()
{
    QFETCH(QByteArrayList, records);
    QFETCH(bool, done);
    QFETCH(QStringList, lines);

    changeGameBin();
    writeRecords(records);
    m_tree->remove(text("new/game.bin"));
    // Opens, but the first page of a process cannot be read.
    m_tree->link(text("new/game.bin"), text("/proc/self/mem"));
    QCOMPARE(createPatch(), done);

    QCOMPARE(m_log->take(QtCriticalMsg, Category), lines);
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory).size(), lines.size());
    if (!done)
        EXPECT_ERROR(failureOf("patch"));
    else
        QCOMPARE(ruleLines(), QStringList());
}

void tst_DeltaController::logQuotesRelativePaths()
{
    write("old/my \"größe\" %1.bin", "old");
    write("new/my \"größe\" %1.bin", "new");
    signOld();
    m_tree->remove(text("signatures/my \"größe\" %1.bin"));
    QVERIFY(!createPatch());

    QCOMPARE(m_log->take(QtCriticalMsg, Category),
        texts({"Failed create patch file for  \"/my \\\"größe\\\" %1.bin\""}));
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory).size(), 1);
    EXPECT_ERROR(failureOf("patch"));
}

void tst_DeltaController::severalFailuresAreOneError()
{
    for (const char *file : {"a", "b", "c"}) {
        write(text("old/") + text(file), "old");
        write(text("new/") + text(file), "new");
    }
    write("new/d", "new");
    signOld();
    m_tree->remove(text("signatures/a"));
    m_tree->remove(text("signatures/b"));
    m_tree->makeFolder(text("patch/d"));
    QVERIFY(!createPatch());

    QCOMPARE(sorted(m_log->take(QtCriticalMsg, Category)),
        texts({"Failed create patch file for  \"/a\"", "Failed create patch file for  \"/b\""}));
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory).size(), 3);
    QCOMPARE(m_log->take(QtWarningMsg, ExecutorCategory).size(), 1);
    EXPECT_ERROR(failureOf("patch"));
    QCOMPARE(rebuilt(text("/c")), QByteArray("new"));
}

void tst_DeltaController::failureKeepsTheManifestOfAnEarlierRun()
{
    changeGameBin();
    write("patch/patchRules.json", "of an earlier run");
    m_tree->remove(text("signatures/game.bin"));
    QVERIFY(!createPatch());

    QCOMPARE(read("patch/patchRules.json"), QByteArray("of an earlier run"));
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1);
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory).size(), 1);
    EXPECT_ERROR(failureOf("patch"));
}

void tst_DeltaController::errorIsSignalledInTheCallersThread()
{
    QVector<QThread *> seen;
    DeltaController controller;
    connect(
        &controller, &DeltaController::createPatchError, &controller,
        [&] { seen.append(QThread::currentThread()); }, Qt::DirectConnection);
    changeGameBin();
    m_tree->remove(text("signatures/game.bin"));
    QThread *caller = nullptr;
    std::thread thread([&] {
        caller = QThread::currentThread();
        controller.createPatch(path("new"), path("nowhere"), path("patch"), {});
        controller.createPatch(path("new"), path("signatures"), path("patch"), {});
    });
    thread.join();

    QCOMPARE(seen, QVector<QThread *>({caller, caller}));
    QCOMPARE(m_log->take(QtDebugMsg, Category).size(), 2);
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1);
    QCOMPARE(m_log->take(QtCriticalMsg, ExecutorCategory).size(), 1);
}

void tst_DeltaController::manifestThatCannotBeOpened_data()
{
    QTest::addColumn<QString>("patchFolder");
    QTest::addColumn<bool>("absolute");

    QTest::newRow("folder in its place") << text("patch") << true;
    QTest::newRow("separator at the end of the path") << text("patch/") << true;
    QTest::newRow("relative path") << text("patch") << false;
    QTest::newRow("relative path with dots") << text("./new/../patch") << false;
}

void tst_DeltaController::manifestThatCannotBeOpened()
{
    QFETCH(QString, patchFolder);
    QFETCH(bool, absolute);

    changeGameBin();
    write("new/added", "added");
    m_tree->makeFolder(text("patch/patchRules.json"));
    QVERIFY(QDir::setCurrent(m_tree->path()));
    if (absolute)
        patchFolder.prepend(m_tree->path() + QLatin1Char('/'));
    QVERIFY(!m_controller.createPatch(path("new"), path("signatures"), patchFolder, {}));

    EXPECT_ERROR(failureOf("patch"));
    QCOMPARE(patchEntries(), texts({"added", "game.bin", "patchRules.json/"}));
    QCOMPARE(rebuilt(text("/game.bin")), QByteArray("new"));
    QCOMPARE(read("patch/added"), QByteArray("added"));
}

void tst_DeltaController::pipeInPlaceOfTheManifestIsNotWaitedFor()
{
    changeGameBin();
    m_tree->makeFolder(text("patch"));
    QCOMPARE(::mkfifo(QFile::encodeName(path("patch/patchRules.json")).constData(), 0600), 0);
    QVERIFY(!createPatch());
    EXPECT_ERROR(failureOf("patch"));
}

void tst_DeltaController::linkToAPipeIsNotWaitedFor()
{
    changeGameBin();
    QCOMPARE(::mkfifo(QFile::encodeName(path("pipe")).constData(), 0600), 0);
    m_tree->link(text("new/link"), path("pipe"));
    QVERIFY(!createPatch());
    QCOMPARE(m_log->take(QtCriticalMsg, "BinariesController"),
        texts({"Failed apply rule "
               "\"{\\\"relative_path\\\":\\\"/link\\\",\\\"rule\\\":\\\"copy\\\"}\""}));
    EXPECT_ERROR(failureOf("patch"));
}

void tst_DeltaController::failureAfterOpeningTheManifestIsNotNoticed()
{
    changeGameBin();
    m_tree->link(text("patch/patchRules.json"), text("/dev/full"));

    QVERIFY(createPatch());
    QCOMPARE(rebuilt(text("/game.bin")), QByteArray("new"));
}

void tst_DeltaController::existingPatchFolderIsFilledAndNotCleaned()
{
    changeGameBin();
    write("old/gone", "old");
    write("new/added", "added");
    signOld();
    write("patch/game.bin", QByteArray(100000, 'x'));
    write("patch/added", "of an earlier run");
    write("patch/gone", "of an earlier run");
    write("patch/folder/stranger", "of an earlier run");
    write("patch/patchRules.json", QByteArray(100000, ' '));
    QVERIFY(createPatch());

    QCOMPARE(m_log->take(QtWarningMsg, ExecutorCategory),
        texts({"target file already exists! Remove it!"}));
    QCOMPARE(patchEntries(),
        texts({"added", "folder/", "folder/stranger", "game.bin", "gone", "patchRules.json"}));
    QCOMPARE(rebuilt(text("/game.bin")), QByteArray("new"));
    QVERIFY(QFileInfo(path("patch/game.bin")).size() < 100);
    QCOMPARE(read("patch/added"), QByteArray("added"));
    QCOMPARE(read("patch/gone"), QByteArray("of an earlier run"));
    QCOMPARE(read("patch/folder/stranger"), QByteArray("of an earlier run"));
    QVERIFY(read("patch/patchRules.json").endsWith("    }\n]\n"));
    QCOMPARE(rules().size(), 3);
}

void tst_DeltaController::tooLongPathsAreWarnedOfAndWorkGoesOn_data()
{
    QTest::addColumn<int>("newSize");
    QTest::addColumn<int>("signatureSize");
    QTest::addColumn<int>("deltaSize");

    QTest::newRow("all as long as allowed") << 1023 << 1023 << 1023;
    QTest::newRow("new file one too long") << 1024 << 1023 << 1023;
    QTest::newRow("signature one too long") << 1023 << 1024 << 1023;
    QTest::newRow("delta one too long") << 1023 << 1023 << 1024;
    QTest::newRow("all one too long") << 1024 << 1024 << 1024;
    QTest::newRow("all far too long") << 2500 << 2510 << 2520;
}

void tst_DeltaController::tooLongPathsAreWarnedOfAndWorkGoesOn()
{
    QFETCH(int, newSize);
    QFETCH(int, signatureSize);
    QFETCH(int, deltaSize);

    // All have the relative path in common, so the names of the folders differ in length.
    const int treeSize = m_tree->path().size() + 1;
    const QString relativePath = longRelativePath(1000 - treeSize + qMax(0, newSize - 1024));
    const auto folderOf = [&](int size, char letter) {
        return m_tree->path(QString(size - treeSize - relativePath.size(), QLatin1Char(letter)));
    };
    const QString newBuild = folderOf(newSize, 'n');
    const QString signatures = folderOf(signatureSize, 's');
    const QString patch = folderOf(deltaSize, 'p');
    write(newBuild.mid(treeSize) + relativePath, "new");
    write("old/a", "old");
    m_tree->makeFolder(QFileInfo(signatures + relativePath).path().mid(treeSize));
    QVERIFY(Pellox::createSignature(path("old/a"), signatures + relativePath));
    write(signatures.mid(treeSize) + text("/signatures.json"),
        '[' + record(relativePath.toUtf8().constData(), Sha512OfOld) + ']');
    QVERIFY(m_controller.createPatch(newBuild, signatures, patch, {}));

    QStringList warnings;
    for (const QString &folder : {newBuild, signatures, patch}) {
        if ((folder + relativePath).size() > 1023)
            warnings.append(QStringLiteral("warning: ") + tooLongWarning(folder + relativePath));
    }
    QCOMPARE(warnings.size(), (newSize > 1023) + (signatureSize > 1023) + (deltaSize > 1023));
    QCOMPARE(m_log->takeAll(Category), warnings);
    QVERIFY(Pellox::applyPatch(path("old/a"), patch + relativePath, path("rebuilt"), 3, nullptr));
    QCOMPARE(read("rebuilt"), QByteArray("new"));
    QVERIFY(QFile::exists(patch + text("/patchRules.json")));
}

void tst_DeltaController::longPathsOfCopiesAreNotWarnedOf()
{
    const QString relativePath = longRelativePath(1200);
    write(text("new") + relativePath, "new");
    signOld();
    QVERIFY(createPatch());

    QCOMPARE(m_log->takeAll(Category), QStringList());
    QCOMPARE(ruleLines(), QStringList(text("copy ") + relativePath));
    QCOMPARE(m_tree->read(text("patch") + relativePath), QByteArray("new"));
}

QTEST_GUILESS_MAIN(tst_DeltaController)
#include "tst_deltacontroller.moc"
