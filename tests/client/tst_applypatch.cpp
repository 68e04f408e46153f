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
#include <QMetaMethod>
#include <QMutex>
#include <QPointer>
#include <QSemaphore>
#include <QSignalSpy>
#include <QTest>
#include <QThread>
#include <QThreadPool>
#include <QTimer>

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include <sys/stat.h>

using Pellox::BinariesController;

static_assert(std::is_base_of_v<QObject, BinariesController>);
static_assert(std::has_virtual_destructor_v<BinariesController>);

namespace {

const char Category[] = "BinariesController";
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

/// Keeps the only thread of the global pool busy until let go.
class BusyPool
{
public:
    BusyPool()
    {
        QThreadPool::globalInstance()->setMaxThreadCount(1);
        QThreadPool::globalInstance()->start([this] { m_go.acquire(); });
    }
    ~BusyPool() { letGo(); }
    BusyPool(const BusyPool &) = delete;
    BusyPool &operator=(const BusyPool &) = delete;

    void letGo()
    {
        m_go.release();
        QThreadPool::globalInstance()->waitForDone();
    }

private:
    QSemaphore m_go;
};

/// As the log prints it: names with quotes or backslashes in them are another matter.
QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QVariantMap rule(const QString &name, const QString &relativePath)
{
    return {{"rule"_s, name}, {"relative_path"_s, relativePath}};
}

void ignoreLibrsync(Pellox::loglevel, const char *) { }

} // namespace

class tst_ApplyPatch : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void metaObjectHoldsSixSignalsAndNothingElse();
    void belongsToItsParent();
    void constructionTakesOverTheMessagesOfLibrsync();
    void anotherConstructionTakesThemOverAgain();

    void emptyBuildFolderIsRefused_data();
    void emptyBuildFolderIsRefused();
    void emptyBuildFolderIsLoggedAsItWasPassed();
    void oneEmptyFolderMakesABuild();
    void missingRuleFileIsReportedAndTheRunSucceeds_data();
    void missingRuleFileIsReportedAndTheRunSucceeds();
    void missingRuleFileIsReportedBeforeTheCallReturns();
    void ruleFileWithoutRulesSucceeds_data();
    void ruleFileWithoutRulesSucceeds();
    void ruleFileThatCannotBeReadSucceeds();
    void recordsThatAreNoObjectsFail();

    void deleteRemovesTheFile();
    void deleteOfAFileThatIsGoneCountsAsSuccess();
    void deleteOfAFolderFails();
    void deleteOfALinkLeavesItsTarget();
    void deleteOverlooksADanglingLink();
    void pathsAreQuotedInTheLog();

    void copyPutsTheNewFileIn();
    void copyOverAnExistingFileWarns();
    void copyOfAMissingFileFailsAndTheOldOneIsGone();
    void copyOntoAFolderFails();

    void patchLeavesTheNewContentBesideTheOldFile();
    void patchOfALinkedFileLeavesLinkAndTarget();
    void failedPatchIsReportedOnAPoolThread();

    void unknownRulesFailWhileOthersAreCarriedOut_data();
    void unknownRulesFailWhileOthersAreCarriedOut();
    void failedRuleUndoesNothing();
    void oneFailureAmongManyFailsTheRun();
    void deleteAndCopyAloneSucceed();
    void patchFolderIsLeftAsItWas();

    void fileMayGiveWayToAFolder();
    void folderDoesNotGiveWayToAFile();

    void relativePathsAreAppendedAsTheyAre();
    void foldersMayBeGivenInAnyForm_data();
    void foldersMayBeGivenInAnyForm();

    void noRunReportsPatchProgress();
    void entriesStayForLaterSums_data();
    void entriesStayForLaterSums();
    void failedDeleteLeavesTheSizeOfWhatStays();
    void entriesOfAllRunsStay();

    void callReturnsBeforeTheRulesAreRun();
    void finishedComesOnceOnTheCallersThread();
    void hostMayLiveOnAThreadOfItsOwn();
    void runsOnOneObjectEachEndOnTheirOwn();
    void overlappingRunsEachEndOnTheirOwn();
    void objectMayBeDeletedWhenFinishedArrives();

private:
    QStringList apply(const QString &build, const QString &patch);
    QStringList apply() { return apply(m_tree->path("build"_s), m_tree->path("patch"_s)); }
    QStringList leftoverSums();
    QStringList settled();
    QStringList takeFailedRules();
    QString removedLine(const QString &relative) const;
    QString skippedLine(const QString &relative) const;
    void writeRules(const QVariantList &rules, const QString &folder = "patch"_s);
    QVariantMap makePatch(
        const QString &relativePath, const QByteArray &oldContent, const QByteArray &newContent);

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::optional<Told> m_told;
    std::unique_ptr<BinariesController> m_controller;
    QString m_currentFolder;
    int m_poolSize = 0;
};

void tst_ApplyPatch::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_told.emplace();
    m_controller = std::make_unique<BinariesController>(nullptr);
    m_told->listenTo(*m_controller);
    m_currentFolder = QDir::currentPath();
    m_poolSize = QThreadPool::globalInstance()->maxThreadCount();
    m_tree->makeFolder("patch"_s);
    m_tree->write("build/keep"_s, "kept");
}

void tst_ApplyPatch::cleanup()
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

/// Runs applyPatch() to its end and returns what the host was told.
QStringList tst_ApplyPatch::apply(const QString &build, const QString &patch)
{
    QSignalSpy finished(m_controller.get(), &BinariesController::finished);
    if (!m_controller->applyPatch(build, patch))
        return QStringList("refused"_s) + settled();
    if (!finished.wait(Patience))
        return QStringList("never finished"_s) + settled();
    return settled();
}

/// What the host was told when nothing is under way any more.
QStringList tst_ApplyPatch::settled()
{
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::processEvents();
    return m_told->take();
}

/// What a check of one further rule, which adds (1, 1), reports: the sums of all entries.
QStringList tst_ApplyPatch::leftoverSums()
{
    writeRules({rule("copy"_s, "/one further rule"_s)}, "check"_s);
    QSignalSpy finished(m_controller.get(), &BinariesController::verifyFinished);
    if (!m_controller->verifyPatchedFiles(m_tree->path("build"_s), m_tree->path("check"_s))
        || !finished.wait(Patience))
        return {"not checked"_s};
    return settled();
}

QStringList tst_ApplyPatch::takeFailedRules()
{
    QStringList lines = m_log->take(QtCriticalMsg, Category);
    lines.sort();
    return lines;
}

/// What is logged when a "delete" rule meets the file @p relative.
QString tst_ApplyPatch::removedLine(const QString &relative) const
{
    return "info: File  "_s + quoted(m_tree->path(relative)) + "  exists. Remove it!"_s;
}

/// What is logged when a "delete" rule does not meet the file @p relative.
QString tst_ApplyPatch::skippedLine(const QString &relative) const
{
    return "info: File  "_s + quoted(m_tree->path(relative)) + "  isnt exists. Skip!"_s;
}

void tst_ApplyPatch::writeRules(const QVariantList &rules, const QString &folder)
{
    m_tree->write(folder + "/patchRules.json"_s, QJsonDocument::fromVariant(rules).toJson());
}

/// Installs a file with @p oldContent and makes the delta to @p newContent; its rule.
QVariantMap tst_ApplyPatch::makePatch(
    const QString &relativePath, const QByteArray &oldContent, const QByteArray &newContent)
{
    const auto path
        = [&](const char *folder) { return m_tree->path(QLatin1String(folder) + relativePath); };
    m_tree->write("build"_s + relativePath, oldContent);
    m_tree->write("new"_s + relativePath, newContent);
    m_tree->write("signatures"_s + relativePath, QByteArray());
    m_tree->write("patch"_s + relativePath, QByteArray());
    if (!Pellox::createSignature(path("build"), path("signatures"))
        || !Pellox::createDelta(path("signatures"), path("new"), path("patch")))
        qFatal("cannot make the delta of %s", qPrintable(relativePath));

    QVariantMap record = rule("patch"_s, relativePath);
    const QByteArray digest = QCryptographicHash::hash(newContent, QCryptographicHash::Sha512);
    record.insert("sha512"_s, QString::fromLatin1(digest.toHex()));
    record.insert("file_size"_s, newContent.size());
    return record;
}

void tst_ApplyPatch::metaObjectHoldsSixSignalsAndNothingElse()
{
    const QMetaObject &meta = BinariesController::staticMetaObject;
    QCOMPARE(meta.className(), "Pellox::BinariesController");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);

    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        QCOMPARE(method.methodType(), QMetaMethod::Signal);
        QCOMPARE(method.returnType(), static_cast<int>(QMetaType::Void));
        signatures.append(QString::fromLatin1(method.methodSignature()));
    }
    QCOMPARE(signatures,
        QStringList({
            "patchProgress(qlonglong,qlonglong)"_s,
            "verifyProgress(qlonglong,qlonglong)"_s,
            "finished(bool)"_s,
            "verifyFinished(bool)"_s,
            "applyPatchError(QString)"_s,
            "verifyError(QString)"_s,
        }));
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_ApplyPatch::belongsToItsParent()
{
    auto parent = std::make_unique<QObject>();
    const QPointer<BinariesController> child = new BinariesController(parent.get());
    QCOMPARE(child->parent(), parent.get());
    parent.reset();
    QVERIFY(child.isNull());
}

void tst_ApplyPatch::constructionTakesOverTheMessagesOfLibrsync()
{
    m_tree->write("no delta"_s, "no delta");
    const auto provoke = [this] {
        Pellox::applyPatch(m_tree->path("build/keep"_s), m_tree->path("no delta"_s),
            m_tree->path("output"_s), 0, nullptr);
        return !m_log->take(QtDebugMsg, Category).filter("level:  3  msg:  "_s).isEmpty();
    };

    Pellox::setRsyncLogOutput(ignoreLibrsync);
    QVERIFY(!provoke());
    const BinariesController controller(nullptr);
    QVERIFY(provoke());
}

void tst_ApplyPatch::anotherConstructionTakesThemOverAgain()
{
    const BinariesController first(nullptr);
    constructionTakesOverTheMessagesOfLibrsync();
}

void tst_ApplyPatch::emptyBuildFolderIsRefused_data()
{
    QTest::addColumn<QString>("folder");
    QTest::newRow("nothing in it") << "nothing"_s;
    QTest::newRow("separator at the end") << "nothing/"_s;
    QTest::newRow("not there") << "missing"_s;
    QTest::newRow("hidden file only") << "hidden file"_s;
    QTest::newRow("hidden folder only") << "hidden folder"_s;
    QTest::newRow("dangling link only") << "dangling"_s;
    QTest::newRow("a file") << "file"_s;
}

void tst_ApplyPatch::emptyBuildFolderIsRefused()
{
    QFETCH(QString, folder);
    m_tree->makeFolder("nothing"_s);
    m_tree->write("hidden file/.settings"_s, "x");
    m_tree->write("hidden folder/.git/config"_s, "x");
    m_tree->link("dangling/link"_s, m_tree->path("nowhere"_s));
    m_tree->write("file"_s, "x");
    writeRules({rule("copy"_s, "/x"_s)});

    const QString build = m_tree->path(folder);
    QCOMPARE(apply(build, m_tree->path("patch"_s)), QStringList("refused"_s));
    QCOMPARE(m_log->takeAll(Category),
        QStringList("debug: Can't apply patch for empty dir "_s + quoted(build)));
}

void tst_ApplyPatch::emptyBuildFolderIsLoggedAsItWasPassed()
{
    m_tree->makeFolder("nöthing in \"it\""_s);
    QDir::setCurrent(m_tree->path());
    QCOMPARE(apply("./nöthing in \"it\"/"_s, "patch"_s), QStringList("refused"_s));
    const QStringList lines{R"(debug: Can't apply patch for empty dir "./nöthing in \"it\"/")"_s};
    QCOMPARE(m_log->takeAll(Category), lines);
}

void tst_ApplyPatch::oneEmptyFolderMakesABuild()
{
    m_tree->makeFolder("bare/data"_s);
    writeRules({});
    QCOMPARE(
        apply(m_tree->path("bare"_s), m_tree->path("patch"_s)), QStringList("finished(true)"_s));
}

void tst_ApplyPatch::missingRuleFileIsReportedAndTheRunSucceeds_data()
{
    QTest::addColumn<QString>("passed");
    QTest::addColumn<QString>("absolute");
    QTest::newRow("no rule file") << "patch"_s
                                  << "patch"_s;
    QTest::newRow("separator at the end") << "patch/"_s
                                          << "patch"_s;
    QTest::newRow("detour") << "build/../patch"_s
                            << "patch"_s;
    QTest::newRow("no patch folder") << "nowhere"_s
                                     << "nowhere"_s;
    QTest::newRow("a file in its place") << "build/keep"_s
                                         << "build/keep"_s;
    QTest::newRow("a folder in the rule file's place") << "folder"_s
                                                       << "folder"_s;
    QTest::newRow("a link to nothing in the rule file's place") << "link"_s
                                                                << "link"_s;
    QTest::newRow("a named pipe in the rule file's place") << "piped"_s
                                                           << "piped"_s;
    QTest::newRow("place holders in the name") << "100%2 %1"_s
                                               << "100%2 %1"_s;
    QTest::newRow("non-ASCII name") << "пропатчен ü"_s
                                    << "пропатчен ü"_s;
}

void tst_ApplyPatch::missingRuleFileIsReportedAndTheRunSucceeds()
{
    QFETCH(QString, passed);
    QFETCH(QString, absolute);
    m_tree->makeFolder("folder/patchRules.json"_s);
    m_tree->link("link/patchRules.json"_s, m_tree->path("nowhere"_s));
    m_tree->makeFolder("piped"_s);
    QCOMPARE(
        ::mkfifo(QFile::encodeName(m_tree->path("piped/patchRules.json"_s)).constData(), 0600), 0);

    const QString patch = m_tree->path(absolute);
    const QString message
        = "Failed patch "_s + patch + "\n Can't open "_s + patch + "/patchRules.json"_s;
    QDir::setCurrent(m_tree->path());
    QCOMPARE(apply("build"_s, passed),
        QStringList({"applyPatchError("_s + message + ")"_s, "finished(true)"_s}));
    QCOMPARE(m_log->takeAll(Category), QStringList("critical: "_s + message));
}

void tst_ApplyPatch::missingRuleFileIsReportedBeforeTheCallReturns()
{
    QThread *reportedOn = nullptr;
    connect(m_controller.get(), &BinariesController::applyPatchError,
        [&reportedOn] { reportedOn = QThread::currentThread(); });

    QVERIFY(m_controller->applyPatch(m_tree->path("build"_s), m_tree->path("patch"_s)));
    QCOMPARE(reportedOn, QThread::currentThread());
    QCOMPARE(m_told->take().size(), 1);
    QCOMPARE(settled(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->take(QtCriticalMsg, Category).size(), 1);
}

void tst_ApplyPatch::ruleFileWithoutRulesSucceeds_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::newRow("empty array") << QByteArray("[]");
    QTest::newRow("empty file") << QByteArray();
    QTest::newRow("no JSON") << QByteArray("delete /keep");
    QTest::newRow("array cut short") << QByteArray(R"([{"rule":"delete","relative_path":"/keep"})");
    QTest::newRow("object") << QByteArray(R"({"rule":"delete","relative_path":"/keep"})");
    QTest::newRow("text") << QByteArray(R"("delete")");
    QTest::newRow("null") << QByteArray("null");
}

void tst_ApplyPatch::ruleFileWithoutRulesSucceeds()
{
    QFETCH(QByteArray, json);
    m_tree->write("patch/patchRules.json"_s, json);
    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());
    QCOMPARE(m_tree->read("build/keep"_s), QByteArray("kept"));
}

void tst_ApplyPatch::ruleFileThatCannotBeReadSucceeds()
{
    m_tree->link("patch/patchRules.json"_s, "/proc/self/mem"_s); // opens all the same
    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());
}

void tst_ApplyPatch::recordsThatAreNoObjectsFail()
{
    QThreadPool::globalInstance()->setMaxThreadCount(1);
    m_tree->write("build/old"_s, "old");
    m_tree->write("patch/patchRules.json"_s,
        R"(["delete", 5, null, {}, ["delete"], {"rule":"delete","relative_path":"/old"}])");

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        R"(Failed apply rule "")"_s,
        R"(Failed apply rule "")"_s,
        R"(Failed apply rule "")"_s,
        R"(Failed apply rule "{}")"_s,
        R"(Failed apply rule "[\"delete\"]")"_s,
    };
    QCOMPARE(m_log->take(QtCriticalMsg, Category), lines);
    QVERIFY(!m_tree->exists("build/old"_s));
}

void tst_ApplyPatch::deleteRemovesTheFile()
{
    m_tree->write("build/data/old.pak"_s, "old");
    writeRules({rule("delete"_s, "/data/old.pak"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList(removedLine("build/data/old.pak"_s)));
    QCOMPARE(
        TestTree::snapshot(m_tree->path("build"_s)).keys(), QStringList({"data/"_s, "keep"_s}));
}

void tst_ApplyPatch::deleteOfAFileThatIsGoneCountsAsSuccess()
{
    writeRules({rule("delete"_s, "/data/old.pak"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList(skippedLine("build/data/old.pak"_s)));
}

void tst_ApplyPatch::deleteOfAFolderFails()
{
    m_tree->makeFolder("build/data"_s);
    writeRules({rule("delete"_s, "/data"_s)});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        removedLine("build/data"_s),
        R"(critical: Failed apply rule "{\"relative_path\":\"/data\",\"rule\":\"delete\"}")"_s,
    };
    QCOMPARE(m_log->takeAll(Category), lines);
    QVERIFY(m_tree->exists("build/data"_s));
}

void tst_ApplyPatch::deleteOfALinkLeavesItsTarget()
{
    m_tree->write("shared/data.pak"_s, "shared");
    m_tree->link("build/data.pak"_s, m_tree->path("shared/data.pak"_s));
    writeRules({rule("delete"_s, "/data.pak"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QVERIFY(!m_tree->exists("build/data.pak"_s));
    QCOMPARE(m_tree->read("shared/data.pak"_s), QByteArray("shared"));
}

void tst_ApplyPatch::deleteOverlooksADanglingLink()
{
    m_tree->link("build/data.pak"_s, m_tree->path("nowhere"_s));
    writeRules({rule("delete"_s, "/data.pak"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList(skippedLine("build/data.pak"_s)));
    QVERIFY(m_tree->exists("build/data.pak"_s));
}

void tst_ApplyPatch::pathsAreQuotedInTheLog()
{
    m_tree->write("build/größe \"1\"\\2"_s, "old");
    writeRules({rule("delete"_s, "/größe \"1\"\\2"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    const QStringList lines{
        "info: File  \""_s + m_tree->path("build"_s) + R"(/größe \"1\"\\2"  exists. Remove it!)"_s};
    QCOMPARE(m_log->takeAll(Category), lines);
}

void tst_ApplyPatch::copyPutsTheNewFileIn()
{
    m_tree->write("patch/bin/tools/game"_s, "#!/bin/sh");
    m_tree->write("patch/empty file"_s, QByteArray());
    const auto executable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
        | QFile::ReadGroup | QFile::ExeGroup;
    QVERIFY(QFile::setPermissions(m_tree->path("patch/bin/tools/game"_s), executable));
    writeRules({rule("copy"_s, "/bin/tools/game"_s), rule("copy"_s, "/empty file"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_log->takeAll(Category), QStringList());
    QCOMPARE(m_tree->read("build/bin/tools/game"_s), QByteArray("#!/bin/sh"));
    QCOMPARE(m_tree->read("build/empty file"_s), QByteArray());
    QCOMPARE(QFile::permissions(m_tree->path("build/bin/tools/game"_s)),
        QFile::permissions(m_tree->path("patch/bin/tools/game"_s)));
}

void tst_ApplyPatch::copyOverAnExistingFileWarns()
{
    m_tree->write("build/data.pak"_s, "an older and longer content");
    m_tree->write("patch/data.pak"_s, "new");
    writeRules({rule("copy"_s, "/data.pak"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(
        m_log->takeAll(Category), QStringList("warning: target file already exists! Remove it!"_s));
    QCOMPARE(m_tree->read("build/data.pak"_s), QByteArray("new"));
}

void tst_ApplyPatch::copyOfAMissingFileFailsAndTheOldOneIsGone()
{
    m_tree->write("build/data.pak"_s, "old");
    writeRules({rule("copy"_s, "/data.pak"_s)});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        "warning: target file already exists! Remove it!"_s,
        R"(critical: Failed apply rule "{\"relative_path\":\"/data.pak\",\"rule\":\"copy\"}")"_s,
    };
    QCOMPARE(m_log->takeAll(Category), lines);
    QVERIFY(!m_tree->exists("build/data.pak"_s));
}

void tst_ApplyPatch::copyOntoAFolderFails()
{
    m_tree->write("build/data/x"_s, "x");
    m_tree->write("patch/data"_s, "new");
    writeRules({rule("copy"_s, "/data"_s)});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        "warning: target file already exists! Remove it!"_s,
        R"(critical: Failed apply rule "{\"relative_path\":\"/data\",\"rule\":\"copy\"}")"_s,
    };
    QCOMPARE(m_log->takeAll(Category), lines);
    QCOMPARE(m_tree->read("build/data/x"_s), QByteArray("x"));
}

void tst_ApplyPatch::patchLeavesTheNewContentBesideTheOldFile()
{
    const QByteArray oldContent = randomBytes(50000, 1);
    const QByteArray newContent = oldContent.mid(7000) + randomBytes(3000, 2);
    writeRules({makePatch("/data/x.pak"_s, oldContent, newContent)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_tree->read("build/data/x.pak"_s), oldContent);
    QCOMPARE(m_tree->read("build/data/x.pak.temp"_s), newContent);
}

void tst_ApplyPatch::patchOfALinkedFileLeavesLinkAndTarget()
{
    writeRules({makePatch("/data.pak"_s, "old", "new")});
    m_tree->write("shared/data.pak"_s, "old");
    m_tree->remove("build/data.pak"_s);
    m_tree->link("build/data.pak"_s, m_tree->path("shared/data.pak"_s));

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QVERIFY(QFileInfo(m_tree->path("build/data.pak"_s)).isSymLink());
    QCOMPARE(m_tree->read("shared/data.pak"_s), QByteArray("old"));
    QVERIFY(!QFileInfo(m_tree->path("build/data.pak.temp"_s)).isSymLink());
    QCOMPARE(m_tree->read("build/data.pak.temp"_s), QByteArray("new"));
}

void tst_ApplyPatch::failedPatchIsReportedOnAPoolThread()
{
    QThread *reportedOn = nullptr;
    connect(m_controller.get(), &BinariesController::applyPatchError,
        [&reportedOn] { reportedOn = QThread::currentThread(); });
    m_tree->write("build/data.pak"_s, "old");
    writeRules({rule("patch"_s, "/data.pak"_s)});

    const QString message
        = "Can't apply patch: \n"_s + m_tree->path("patch/data.pak"_s) + " - not found"_s;
    QCOMPARE(apply(), QStringList({"applyPatchError("_s + message + ")"_s, "finished(false)"_s}));
    QVERIFY(reportedOn);
    QVERIFY(reportedOn != QThread::currentThread());
    const QStringList lines{
        "debug: binFilePath "_s + quoted(m_tree->path("build/data.pak"_s)),
        "debug: patchFilePath "_s + quoted(m_tree->path("patch/data.pak"_s)),
        R"(debug: checkSum "")"_s,
        "critical: "_s + message,
        R"(critical: Failed apply rule "{\"relative_path\":\"/data.pak\",\"rule\":\"patch\"}")"_s,
    };
    QCOMPARE(m_log->takeAll(Category), lines);
}

void tst_ApplyPatch::unknownRulesFailWhileOthersAreCarriedOut_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("none") << "none"_s;
    QTest::newRow("misspelt") << "delet"_s;
    QTest::newRow("upper case") << "Delete"_s;
    QTest::newRow("blank at the end") << "delete "_s;
    QTest::newRow("empty") << QString();
}

void tst_ApplyPatch::unknownRulesFailWhileOthersAreCarriedOut()
{
    QFETCH(QString, name);
    m_tree->write("build/old"_s, "old");
    m_tree->write("patch/new"_s, "new");
    writeRules({rule("delete"_s, "/old"_s), rule(name, "/keep"_s), rule("copy"_s, "/new"_s),
        makePatch("/changed"_s, "before", "after")});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        R"(Failed apply rule "{\"relative_path\":\"/keep\",\"rule\":\")"_s + name + R"(\"}")"_s};
    QCOMPARE(m_log->take(QtCriticalMsg, Category), lines);
    QCOMPARE(m_tree->read("build/keep"_s), QByteArray("kept"));
    QVERIFY(!m_tree->exists("build/old"_s));
    QCOMPARE(m_tree->read("build/new"_s), QByteArray("new"));
    QCOMPARE(m_tree->read("build/changed.temp"_s), QByteArray("after"));
}

void tst_ApplyPatch::failedRuleUndoesNothing()
{
    QThreadPool::globalInstance()->setMaxThreadCount(1);
    m_tree->write("build/first"_s, "1");
    m_tree->write("build/last"_s, "1");
    writeRules({rule("delete"_s, "/first"_s), rule("copy"_s, "/not in the patch"_s),
        rule("delete"_s, "/last"_s)});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        removedLine("build/first"_s),
        R"(critical: Failed apply rule "{\"relative_path\":\"/not in the patch\",)"_s
            + R"(\"rule\":\"copy\"}")"_s,
        removedLine("build/last"_s),
    };
    QCOMPARE(m_log->takeAll(Category), lines);
    QCOMPARE(TestTree::snapshot(m_tree->path("build"_s)).keys(), QStringList("keep"_s));
}

void tst_ApplyPatch::oneFailureAmongManyFailsTheRun()
{
    QVariantList rules;
    for (int i = 0; i < 200; ++i) {
        const QString name = "/"_s + QString::number(i);
        m_tree->write("build"_s + name, "x");
        rules.append(rule("delete"_s, name));
    }
    rules.append(rule("copy"_s, "/not in the patch"_s));
    writeRules(rules);

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    QCOMPARE(takeFailedRules().size(), 1);
    QCOMPARE(TestTree::snapshot(m_tree->path("build"_s)).keys(), QStringList("keep"_s));
}

void tst_ApplyPatch::deleteAndCopyAloneSucceed()
{
    m_tree->write("build/old 1"_s, "old");
    m_tree->write("patch/new 1"_s, "new 1");
    m_tree->write("patch/data/new 2"_s, "new 2");
    writeRules({rule("delete"_s, "/old 1"_s), rule("delete"_s, "/old 2"_s),
        rule("copy"_s, "/new 1"_s), rule("copy"_s, "/data/new 2"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    const QMap<QString, QByteArray> expected{{"keep"_s, "kept"}, {"new 1"_s, "new 1"},
        {"data/"_s, QByteArray()}, {"data/new 2"_s, "new 2"}};
    QCOMPARE(TestTree::snapshot(m_tree->path("build"_s)), expected);
}

void tst_ApplyPatch::patchFolderIsLeftAsItWas()
{
    m_tree->write("build/old"_s, "old");
    m_tree->write("patch/new"_s, "new");
    writeRules({rule("delete"_s, "/old"_s), rule("copy"_s, "/new"_s),
        makePatch("/changed"_s, "before", "after")});
    const auto before = TestTree::snapshot(m_tree->path("patch"_s));

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(TestTree::snapshot(m_tree->path("patch"_s)), before);
}

void tst_ApplyPatch::fileMayGiveWayToAFolder()
{
    QThreadPool::globalInstance()->setMaxThreadCount(1); // rules run in the order of the list
    m_tree->write("build/x"_s, "a file");
    m_tree->write("patch/x/y"_s, "in a folder");
    writeRules({rule("delete"_s, "/x"_s), rule("copy"_s, "/x/y"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(m_tree->read("build/x/y"_s), QByteArray("in a folder"));
}

/// Promised: folders are never removed, not even empty ones.
void tst_ApplyPatch::folderDoesNotGiveWayToAFile()
{
    QThreadPool::globalInstance()->setMaxThreadCount(1);
    m_tree->write("build/x/y"_s, "in a folder");
    m_tree->write("patch/x"_s, "a file");
    writeRules({rule("delete"_s, "/x/y"_s), rule("copy"_s, "/x"_s)});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QStringList lines{
        removedLine("build/x/y"_s),
        "warning: target file already exists! Remove it!"_s,
        R"(critical: Failed apply rule "{\"relative_path\":\"/x\",\"rule\":\"copy\"}")"_s,
    };
    QCOMPARE(m_log->takeAll(Category), lines);
    QCOMPARE(TestTree::snapshot(m_tree->path("build"_s)).keys(), QStringList({"keep"_s, "x/"_s}));
}

void tst_ApplyPatch::relativePathsAreAppendedAsTheyAre()
{
    QVariantMap patched = makePatch("data.pak"_s, "before", "after"); // beside the folders
    m_tree->write("buildold.pak"_s, "old");
    m_tree->write("patchnew.pak"_s, "new");
    writeRules({rule("delete"_s, "old.pak"_s), rule("copy"_s, "new.pak"_s), patched});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QVERIFY(!m_tree->exists("buildold.pak"_s));
    QCOMPARE(m_tree->read("buildnew.pak"_s), QByteArray("new"));
    QCOMPARE(m_tree->read("builddata.pak.temp"_s), QByteArray("after"));
    QCOMPARE(TestTree::snapshot(m_tree->path("build"_s)).keys(), QStringList("keep"_s));
}

void tst_ApplyPatch::foldersMayBeGivenInAnyForm_data()
{
    QTest::addColumn<QString>("buildForm");
    QTest::addColumn<QString>("patchForm");
    QTest::newRow("absolute") << "%1/build"_s
                              << "%1/patch"_s;
    QTest::newRow("absolute, separator at the end") << "%1/build/"_s
                                                    << "%1/patch/"_s;
    QTest::newRow("doubled separators") << "%1//build//"_s
                                        << "%1//patch//"_s;
    QTest::newRow("relative") << "build"_s
                              << "patch"_s;
    QTest::newRow("relative, separator at the end") << "build/"_s
                                                    << "patch/"_s;
    QTest::newRow("from here") << "./build"_s
                               << "./patch/."_s;
    QTest::newRow("detour") << "patch/../build"_s
                            << "build/../patch"_s;
    QTest::newRow("through a link") << "linked build"_s
                                    << "gelinkter Pätch"_s;
}

void tst_ApplyPatch::foldersMayBeGivenInAnyForm()
{
    QFETCH(QString, buildForm);
    QFETCH(QString, patchForm);
    m_tree->link("linked build"_s, m_tree->path("build"_s));
    m_tree->link("gelinkter Pätch"_s, m_tree->path("patch"_s));
    m_tree->write("build/old file"_s, "old");
    m_tree->write("patch/größe/new"_s, "new");
    writeRules({rule("delete"_s, "/old file"_s), rule("copy"_s, "/größe/new"_s),
        makePatch("/größe/changed"_s, "before", "after")});
    buildForm.replace("%1"_s, m_tree->path());
    patchForm.replace("%1"_s, m_tree->path());

    QDir::setCurrent(m_tree->path());
    QCOMPARE(apply(buildForm, patchForm), QStringList("finished(true)"_s));
    const QMap<QString, QByteArray> expected{{"keep"_s, "kept"}, {"größe/"_s, QByteArray()},
        {"größe/new"_s, "new"}, {"größe/changed"_s, "before"}, {"größe/changed.temp"_s, "after"}};
    QCOMPARE(TestTree::snapshot(m_tree->path("build"_s)), expected);

    // Absolute paths are worked with, and links in them are left as they are.
    const QString build = QDir::cleanPath(QDir::current().absoluteFilePath(buildForm));
    const QString patch = QDir::cleanPath(QDir::current().absoluteFilePath(patchForm));
    QCOMPARE(m_log->take(QtInfoMsg, Category),
        QStringList("File  "_s + quoted(build + "/old file"_s) + "  exists. Remove it!"_s));
    QCOMPARE(m_log->take(QtDebugMsg, Category).mid(0, 2),
        QStringList({
            "binFilePath "_s + quoted(build + "/größe/changed"_s),
            "patchFilePath "_s + quoted(patch + "/größe/changed"_s),
        }));
}

void tst_ApplyPatch::noRunReportsPatchProgress()
{
    const QByteArray oldContent = randomBytes(1000000, 3);
    m_tree->write("build/old"_s, "old");
    m_tree->write("patch/new"_s, oldContent);
    writeRules({rule("delete"_s, "/old"_s), rule("copy"_s, "/new"_s),
        makePatch("/changed"_s, oldContent, randomBytes(1000000, 4))});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
}

void tst_ApplyPatch::entriesStayForLaterSums_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("sums"); // of what stays and of the (1, 1) of a further rule

    const auto row = [](const char *name, const char *json, const QString &sums) {
        QTest::newRow(name) << QByteArray(json) << sums;
    };
    row("patch", R"([{"rule":"patch","relative_path":"/changed","file_size":5}])", "1, 6"_s);
    row("patch without size", R"([{"rule":"patch","relative_path":"/changed"}])", "1, 1"_s);
    row("delete", R"([{"rule":"delete","relative_path":"/old"}])", "1, 1"_s);
    row("delete with size", R"([{"rule":"delete","relative_path":"/old","file_size":9}])",
        "1, 1"_s);
    row("delete of nothing", R"([{"rule":"delete","relative_path":"/-","file_size":9}])", "1, 1"_s);
    row("copy", R"([{"rule":"copy","relative_path":"/new"}])", "11, 11"_s);
    row("copy with size", R"([{"rule":"copy","relative_path":"/new","file_size":9}])", "11, 11"_s);
    row("copy of nothing", R"([{"rule":"copy","relative_path":"/-","file_size":9}])", "1, 1"_s);
    row("copy that fails", R"([{"rule":"copy","relative_path":"/folder"}])", "8, 8"_s);
    row("unknown rule", R"([{"rule":"none","relative_path":"/a","file_size":70}])", "1, 71"_s);
    row("size below zero", R"([{"rule":"none","relative_path":"/a","file_size":-5}])", "1, -4"_s);
    row("size as text", R"([{"rule":"none","relative_path":"/a","file_size":"42"}])", "1, 43"_s);
    row("size in words", R"([{"rule":"none","relative_path":"/a","file_size":"two"}])", "1, 1"_s);
    row("size above 32 bits", R"([{"rule":"none","relative_path":"/a","file_size":1099511627776}])",
        "1, 1099511627777"_s);
    row("no path", R"([{"rule":"none","file_size":3}])", "1, 4"_s);
    row("same path twice",
        R"([{"rule":"none","relative_path":"/a","file_size":5},
            {"rule":"none","relative_path":"/a","file_size":9}])",
        "1, 10"_s);
    row("paths that differ in case",
        R"([{"rule":"none","relative_path":"/a","file_size":5},
            {"rule":"none","relative_path":"/A","file_size":9}])",
        "1, 15"_s);
    row("all kinds",
        R"([{"rule":"delete","relative_path":"/old"},{"rule":"copy","relative_path":"/new"},
            {"rule":"patch","relative_path":"/changed","file_size":5},
            {"rule":"none","relative_path":"/a","file_size":7}])",
        "11, 23"_s);
}

void tst_ApplyPatch::entriesStayForLaterSums()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, sums);
    m_tree->write("build/old"_s, "old");
    m_tree->makeFolder("build/folder"_s);
    m_tree->write("patch/new"_s, "ten bytes.");
    m_tree->write("patch/folder"_s, "a file.");
    makePatch("/changed"_s, "before", "after");
    m_tree->write("patch/patchRules.json"_s, json);

    const QString outcome = apply().join("; "_s);
    QVERIFY2(outcome.startsWith("finished("_s), qPrintable(outcome));
    QCOMPARE(leftoverSums(),
        QStringList({"verifyProgress("_s + sums + ")"_s, "verifyFinished(true)"_s}));
    m_log->take(QtCriticalMsg, Category);
    m_log->take(QtWarningMsg, Category);
}

void tst_ApplyPatch::failedDeleteLeavesTheSizeOfWhatStays()
{
    m_tree->makeFolder("build/folder"_s);
    writeRules({rule("delete"_s, "/folder"_s)});

    QCOMPARE(apply(), QStringList("finished(false)"_s));
    const QString sum = QString::number(QFileInfo(m_tree->path("build/folder"_s)).size() + 1);
    QCOMPARE(leftoverSums(),
        QStringList({"verifyProgress("_s + sum + ", "_s + sum + ")"_s, "verifyFinished(true)"_s}));
    QCOMPARE(takeFailedRules().size(), 1);
}

void tst_ApplyPatch::entriesOfAllRunsStay()
{
    const auto applySized = [this](const QString &relativePath, int size) {
        QVariantMap record = rule("none"_s, relativePath);
        record.insert("file_size"_s, size);
        writeRules({record});
        return apply();
    };

    QCOMPARE(applySized("/a"_s, 10), QStringList("finished(false)"_s));
    QCOMPARE(applySized("/b"_s, 200), QStringList("finished(false)"_s));
    QCOMPARE(applySized("/a"_s, 3000), QStringList("finished(false)"_s));
    QCOMPARE(leftoverSums(), QStringList({"verifyProgress(1, 3201)"_s, "verifyFinished(true)"_s}));
    QCOMPARE(takeFailedRules().size(), 3);
}

void tst_ApplyPatch::callReturnsBeforeTheRulesAreRun()
{
    m_tree->write("build/old"_s, "old");
    writeRules({rule("delete"_s, "/old"_s)});

    BusyPool pool;
    QVERIFY(m_controller->applyPatch(m_tree->path("build"_s), m_tree->path("patch"_s)));
    QCoreApplication::processEvents();
    QVERIFY(m_tree->exists("build/old"_s));
    QCOMPARE(m_told->take(), QStringList());

    pool.letGo();
    QVERIFY(!m_tree->exists("build/old"_s));
    QCOMPARE(m_told->take(), QStringList()); // finished() waits for the event loop
    QCOMPARE(settled(), QStringList("finished(true)"_s));
}

void tst_ApplyPatch::finishedComesOnceOnTheCallersThread()
{
    QList<QThread *> finishedOn;
    connect(m_controller.get(), &BinariesController::finished,
        [&finishedOn] { finishedOn.append(QThread::currentThread()); });
    m_tree->write("patch/new"_s, "new");
    writeRules({rule("copy"_s, "/new"_s), rule("delete"_s, "/old"_s)});

    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(finishedOn, QList<QThread *>({QThread::currentThread()}));
}

void tst_ApplyPatch::hostMayLiveOnAThreadOfItsOwn()
{
    m_tree->write("build/old"_s, "old");
    writeRules({rule("delete"_s, "/old"_s)});
    QThread *finishedOn = nullptr;
    const std::unique_ptr<QThread> host(QThread::create([&] {
        BinariesController controller(nullptr);
        QEventLoop loop;
        QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
        connect(&controller, &BinariesController::finished, &loop, [&] {
            finishedOn = QThread::currentThread();
            loop.quit();
        });
        controller.applyPatch(m_tree->path("build"_s), m_tree->path("patch"_s));
        loop.exec();
    }));
    host->start();
    host->wait();

    QCOMPARE(finishedOn, host.get());
    QVERIFY(!m_tree->exists("build/old"_s));
}

void tst_ApplyPatch::runsOnOneObjectEachEndOnTheirOwn()
{
    writeRules({rule("none"_s, "/a"_s)});
    QCOMPARE(apply(), QStringList("finished(false)"_s));
    writeRules({});
    QCOMPARE(apply(), QStringList("finished(true)"_s));
    writeRules({rule("delete"_s, "/b"_s)});
    QCOMPARE(apply(), QStringList("finished(true)"_s));
    QCOMPARE(takeFailedRules().size(), 1);
}

void tst_ApplyPatch::overlappingRunsEachEndOnTheirOwn()
{
    m_tree->write("build/old"_s, "old");
    writeRules({rule("delete"_s, "/old"_s)}, "good"_s);
    writeRules({rule("none"_s, "/old"_s)}, "bad"_s);

    BusyPool pool;
    for (const QString &patch : {"good"_s, "bad"_s, "good"_s})
        QVERIFY(m_controller->applyPatch(m_tree->path("build"_s), m_tree->path(patch)));
    pool.letGo();

    QStringList told = settled();
    told.sort();
    QCOMPARE(told, QStringList({"finished(false)"_s, "finished(true)"_s, "finished(true)"_s}));
    QCOMPARE(takeFailedRules().size(), 1);
}

void tst_ApplyPatch::objectMayBeDeletedWhenFinishedArrives()
{
    writeRules({rule("delete"_s, "/gone"_s)});
    QEventLoop loop;
    QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
    connect(m_controller.get(), &BinariesController::finished, &loop, [&] {
        m_controller.reset();
        loop.quit();
    });

    QVERIFY(m_controller->applyPatch(m_tree->path("build"_s), m_tree->path("patch"_s)));
    loop.exec();
    QVERIFY(!m_controller);
    QCOMPARE(settled(), QStringList("finished(true)"_s));
}

QTEST_GUILESS_MAIN(tst_ApplyPatch)

#include "tst_applypatch.moc"
