// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "patience.h"
#include "testtree.h"

#include <Pellox/BinariesController>
#include <Pellox/DeltaController>
#include <Pellox/SignaturesController>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>
#include <QThreadPool>

#include <optional>
#include <tuple>

#include <sys/stat.h>

using Pellox::BinariesController;
using Pellox::DeltaController;
using Pellox::SignaturesController;

/// A build as data: content by relative path, without a separator in front.
using Build = QMap<QString, QByteArray>;

Q_DECLARE_METATYPE(Build)

namespace {

QString anyOf(QRandomGenerator &random, const QStringList &texts)
{
    return texts.at(random.bounded(texts.size()));
}

int anySize(QRandomGenerator &random)
{
    constexpr int Odd[] = {0, 1, 2, 3, 7, 15, 2047, 2048, 2049, 4096, 6145, 20000};
    return Odd[random.bounded(static_cast<int>(std::size(Odd)))];
}

QString anyPath(QRandomGenerator &random, int number)
{
    // Few, as folders are what takes the time here.
    const QStringList folders{QString(), "bin/"_s, "größe/two words/"_s, "данные/ blank/100%1/"_s,
        "a/b/c/d/"_s, "🎮/quote\"d/"_s};
    const QStringList names{"game"_s, "level.pak"_s, "größe.txt"_s, "файл"_s, "文件.bin"_s,
        "a b c .d"_s, "no%20 %2"_s, "back\\slash"_s, "-dash"_s, "🎲"_s, "line\nbreak"_s};
    return anyOf(random, folders) + QString::number(number) + anyOf(random, names);
}

QByteArray edited(QRandomGenerator &random, QByteArray content)
{
    const int at = random.bounded(content.size() + 1);
    const int length = random.bounded(3000);
    switch (random.bounded(5)) {
    case 0:
        return content.insert(at, randomBytes(length + 1, random.generate()));
    case 1:
        return content.mid(at) + content.left(at) + "moved";
    case 2:
        return content.remove(at, length) + "cut";
    case 3:
        return content + content;
    default:
        return randomBytes(anySize(random), random.generate());
    }
}

Build anyBuild(QRandomGenerator &random, int firstNumber, int files)
{
    Build build;
    for (int i = 0; i < files; ++i) {
        const QByteArray content = randomBytes(anySize(random), random.generate());
        build.insert(anyPath(random, firstNumber + i), content);
    }
    return build;
}

/// The next release: a third of the files as they were, others edited or gone, some new.
Build successorOf(QRandomGenerator &random, const Build &build)
{
    Build next = anyBuild(random, 1000, 8);
    for (auto file = build.cbegin(); file != build.cend(); ++file) {
        const int fate = random.bounded(6);
        if (fate < 2)
            next.insert(file.key(), file.value());
        else if (fate < 5)
            next.insert(file.key(), edited(random, file.value()));
    }
    return next;
}

/// What tells that a file has been written to or replaced.
std::tuple<ino_t, time_t, long, time_t, long> traceOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        qFatal("cannot look at %s", qPrintable(path));
    return {status.st_ino, status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec,
        status.st_ctim.tv_nsec};
}

QList<QVariantMap> recordsIn(const QByteArray &manifest)
{
    QList<QVariantMap> records;
    for (const QVariant &record : QJsonDocument::fromJson(manifest).toVariant().toList())
        records.append(record.toMap());
    return records;
}

} // namespace

class tst_RoundTrip : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void installedBuildBecomesTheNewOne_data();
    void installedBuildBecomesTheNewOne();
    void andBecomesTheOldOneAgain_data();
    void andBecomesTheOldOneAgain();
    void oneObjectBringsABuildThroughManyReleases();
    void unchangedFilesSeeNoWrite();
    void hiddenFilesStayOutOfIt();
    void linksBecomeFilesWhereTheirContentChanges();
    void buildThatLosesItsLastFileCannotBeVerified();
    void fileMayGiveWayToAFolder();
    void folderDoesNotGiveWayToAFile();
    void unchangedFileNamedLikeATemporaryFileIsLost();
    void patchAppliedTwiceLeavesTheNewBuild();
    void damagedInstallationIsNotMadeWorse();

    void eachControllerHasItsOwnRuleForFolderPaths_data();
    void eachControllerHasItsOwnRuleForFolderPaths();
    void rulesDependOnHowTheOldBuildWasGiven_data();
    void rulesDependOnHowTheOldBuildWasGiven();

private:
    QString path(const QString &relative) const { return m_tree->path(relative); }
    void lay(const QString &folder, const Build &build) const;
    Build filesIn(const QString &folder) const;
    bool publish() const;
    bool apply(const QString &build);
    bool verify(const QString &build);
    bool apply() { return apply(path("installed"_s)); }
    bool verify() { return verify(path("installed"_s)); }
    bool update() { return publish() && apply() && verify(); }

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    std::optional<BinariesController> m_client;
    QString m_currentFolder;
    int m_poolSize = 0;
};

void tst_RoundTrip::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_client.emplace(nullptr);
    m_currentFolder = QDir::currentPath();
    m_poolSize = QThreadPool::globalInstance()->maxThreadCount();
    QThreadPool::globalInstance()->setMaxThreadCount(4);
}

void tst_RoundTrip::cleanup()
{
    QThreadPool::globalInstance()->waitForDone();
    QThreadPool::globalInstance()->setMaxThreadCount(m_poolSize);
    QDir::setCurrent(m_currentFolder);
    m_client.reset();
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_tree.reset();
    m_log.reset();
}

void tst_RoundTrip::lay(const QString &folder, const Build &build) const
{
    m_tree->makeFolder(folder);
    for (auto file = build.cbegin(); file != build.cend(); ++file)
        m_tree->write(folder + QLatin1Char('/') + file.key(), file.value());
}

/// All files that are there, without the folders.
Build tst_RoundTrip::filesIn(const QString &folder) const
{
    Build files;
    const Build entries = TestTree::snapshot(path(folder));
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        if (!entry.key().endsWith(QLatin1Char('/')))
            files.insert(entry.key(), entry.value());
    }
    return files;
}

/// Makes the patch from "old" to "new".
bool tst_RoundTrip::publish() const
{
    SignaturesController().createSignatures(path("old"_s), path("signatures"_s));
    return DeltaController().createPatch(
        path("new"_s), path("signatures"_s), path("patch"_s), QStringList());
}

bool tst_RoundTrip::apply(const QString &build)
{
    QSignalSpy finished(&*m_client, &BinariesController::finished);
    return m_client->applyPatch(build, path("patch"_s)) && finished.wait(Patience)
        && finished.takeFirst().value(0).toBool();
}

bool tst_RoundTrip::verify(const QString &build)
{
    QSignalSpy finished(&*m_client, &BinariesController::verifyFinished);
    return m_client->verifyPatchedFiles(build, path("patch"_s)) && finished.wait(Patience)
        && finished.takeFirst().value(0).toBool();
}

namespace {

void addReleases()
{
    QTest::addColumn<Build>("oldBuild");
    QTest::addColumn<Build>("newBuild");

    const Build some{{"game"_s, "game 1"}, {"data/a"_s, "a"}, {"data/b"_s, QByteArray()}};
    QTest::newRow("no change") << some << some;
    QTest::newRow("all files new") << some << Build{{"other/game"_s, "2"}, {"other/a"_s, "2"}};
    QTest::newRow("all files changed")
        << some << Build{{"game"_s, "game 2"}, {"data/a"_s, QByteArray()}, {"data/b"_s, "full"}};
    QTest::newRow("one file left") << some << Build{{"data/b"_s, QByteArray()}};
    QTest::newRow("names that differ in case") << Build{{"game"_s, "1"}, {"Game"_s, "2"},
        {"GAME"_s, "3"}} << Build{{"game"_s, "2"}, {"GAME"_s, "3"}, {"gamE"_s, "1"}};
    QTest::newRow("content moves between files")
        << Build{{"a"_s, randomBytes(9000, 1)}, {"b"_s, randomBytes(9000, 2)}}
        << Build{{"a"_s, randomBytes(9000, 2)}, {"b"_s, randomBytes(9000, 1)}};
    for (quint32 seed = 1; seed <= 5; ++seed) {
        QRandomGenerator random(seed);
        const Build build = anyBuild(random, 0, 18);
        QTest::addRow("seed %u", seed) << build << successorOf(random, build);
    }
}

} // namespace

void tst_RoundTrip::installedBuildBecomesTheNewOne_data()
{
    addReleases();
}

void tst_RoundTrip::installedBuildBecomesTheNewOne()
{
    QFETCH(Build, oldBuild);
    QFETCH(Build, newBuild);
    lay("old"_s, oldBuild);
    lay("new"_s, newBuild);
    lay("installed"_s, oldBuild);

    QVERIFY(publish());
    const Build patch = filesIn("patch"_s);
    QVERIFY(apply());
    QVERIFY(verify());
    QCOMPARE(filesIn("installed"_s), newBuild);
    QCOMPARE(filesIn("patch"_s), patch);
    QCOMPARE(filesIn("old"_s), oldBuild);
    QCOMPARE(filesIn("new"_s), newBuild);
}

void tst_RoundTrip::andBecomesTheOldOneAgain_data()
{
    addReleases();
}

void tst_RoundTrip::andBecomesTheOldOneAgain()
{
    QFETCH(Build, oldBuild);
    QFETCH(Build, newBuild);
    lay("old"_s, newBuild);
    lay("new"_s, oldBuild);
    lay("installed"_s, newBuild);

    QVERIFY(update());
    QCOMPARE(filesIn("installed"_s), oldBuild);
}

void tst_RoundTrip::oneObjectBringsABuildThroughManyReleases()
{
    QRandomGenerator random(99);
    Build release = anyBuild(random, 0, 14);
    lay("new"_s, release);
    lay("installed"_s, release);
    for (int number = 2; number <= 4; ++number) {
        QVERIFY(QDir().rename(path("new"_s), path("old"_s)));
        release = successorOf(random, release);
        lay("new"_s, release);

        QVERIFY(update());
        QCOMPARE(filesIn("installed"_s), release);
        for (const QString &folder : {"old"_s, "signatures"_s, "patch"_s})
            m_tree->remove(folder);
    }
}

void tst_RoundTrip::unchangedFilesSeeNoWrite()
{
    const Build oldBuild{{"same"_s, "same"}, {"data/same, empty"_s, QByteArray()},
        {"data/same, large"_s, randomBytes(50000, 3)}, {"data/changed"_s, "before"}};
    Build newBuild = oldBuild;
    newBuild["data/changed"_s] = "after";
    newBuild["data/new"_s] = "new";
    lay("old"_s, oldBuild);
    lay("new"_s, newBuild);
    lay("installed"_s, oldBuild);
    const auto traces = [this] {
        return std::tuple(traceOf(path("installed/same"_s)),
            traceOf(path("installed/data/same, empty"_s)),
            traceOf(path("installed/data/same, large"_s)));
    };

    const auto before = traces();
    QVERIFY(update());
    QVERIFY(traces() == before);
    QCOMPARE(filesIn("installed"_s), newBuild);
}

void tst_RoundTrip::hiddenFilesStayOutOfIt()
{
    lay("old"_s, {{"game"_s, "1"}, {".version"_s, "1"}, {".cache/x"_s, "1"}, {"a/.b"_s, "1"}});
    lay("new"_s, {{"game"_s, "2"}, {".version"_s, "2"}, {".new/x"_s, "2"}});
    lay("installed"_s, {{"game"_s, "1"}, {".version"_s, "1"}, {"a/.b"_s, "1"}, {".own"_s, "me"}});

    QVERIFY(update());
    const Build expected{{"game"_s, "2"}, {".version"_s, "1"}, {"a/.b"_s, "1"}, {".own"_s, "me"}};
    QCOMPARE(filesIn("installed"_s), expected);
}

void tst_RoundTrip::linksBecomeFilesWhereTheirContentChanges()
{
    for (const QString &folder : {"old"_s, "new"_s, "installed"_s}) {
        m_tree->write(folder + "/game"_s, folder == "new"_s ? "after" : "before");
        m_tree->write(folder + "/same"_s, "same");
        m_tree->link(folder + "/link to game"_s, "game"_s);
        m_tree->link(folder + "/link to same"_s, "same"_s);
    }

    QVERIFY(update());
    const Build expected{{"game"_s, "after"}, {"same"_s, "same"}, {"link to game"_s, "after"},
        {"link to same"_s, "same"}};
    QCOMPARE(filesIn("installed"_s), expected);
    QVERIFY(!QFileInfo(path("installed/link to game"_s)).isSymLink());
    QVERIFY(QFileInfo(path("installed/link to same"_s)).isSymLink());
}

/// Promised: an empty build folder is refused, whatever made it empty.
void tst_RoundTrip::buildThatLosesItsLastFileCannotBeVerified()
{
    lay("old"_s, {{"game"_s, "1"}});
    lay("new"_s, {});
    lay("installed"_s, {{"game"_s, "1"}});

    QVERIFY(publish());
    QVERIFY(apply());
    QCOMPARE(filesIn("installed"_s), Build());
    QVERIFY(!m_client->verifyPatchedFiles(path("installed"_s), path("patch"_s)));
}

void tst_RoundTrip::fileMayGiveWayToAFolder()
{
    QThreadPool::globalInstance()->setMaxThreadCount(1); // the delete rule is carried out first
    lay("old"_s, {{"x"_s, "file"}});
    lay("new"_s, {{"x/y"_s, "in a folder"}});
    lay("installed"_s, {{"x"_s, "file"}});

    QVERIFY(update());
    QCOMPARE(filesIn("installed"_s), Build({{"x/y"_s, "in a folder"}}));
    QCOMPARE(m_log->take(QtWarningMsg, "BinariesController"),
        QStringList("File "_s + path("installed/x"_s) + " exists but shouldn't"_s));
}

/// Promised: folders are never removed, so the new file finds its place taken.
void tst_RoundTrip::folderDoesNotGiveWayToAFile()
{
    QThreadPool::globalInstance()->setMaxThreadCount(1);
    lay("old"_s, {{"keep"_s, "kept"}, {"x/y"_s, "in a folder"}});
    lay("new"_s, {{"keep"_s, "kept"}, {"x"_s, "file"}});
    lay("installed"_s, {{"keep"_s, "kept"}, {"x/y"_s, "in a folder"}});

    QVERIFY(publish());
    QVERIFY(!apply());
    QCOMPARE(TestTree::snapshot(path("installed"_s)).keys(), QStringList({"keep"_s, "x/"_s}));
    QCOMPARE(m_log->take(QtWarningMsg, "BinariesController").size(), 1);
    QCOMPARE(m_log->take(QtCriticalMsg, "BinariesController").size(), 1);
    QVERIFY(verify()); // copied files are not checked
}

/// Promised: what stands at a patched file's path followed by ".temp" is discarded.
void tst_RoundTrip::unchangedFileNamedLikeATemporaryFileIsLost()
{
    lay("old"_s, {{"x"_s, "before"}, {"x.temp"_s, "same"}});
    lay("new"_s, {{"x"_s, "after"}, {"x.temp"_s, "same"}});
    lay("installed"_s, {{"x"_s, "before"}, {"x.temp"_s, "same"}});

    QVERIFY(update());
    QCOMPARE(filesIn("installed"_s), Build({{"x"_s, "after"}}));
}

void tst_RoundTrip::patchAppliedTwiceLeavesTheNewBuild()
{
    const QByteArray first = randomBytes(20480, 4);
    const QByteArray second = randomBytes(20480, 5);
    const Build newBuild{{"x"_s, second + first}, {"new"_s, "new"}};
    lay("old"_s, {{"x"_s, first + second}, {"old"_s, "old"}});
    lay("new"_s, newBuild);
    lay("installed"_s, {{"x"_s, first + second}, {"old"_s, "old"}});
    QVERIFY(update());
    QCOMPARE(filesIn("installed"_s), newBuild);

    QVERIFY(apply());
    QVERIFY(!verify());
    QCOMPARE(filesIn("installed"_s), newBuild);
    QCOMPARE(m_log->take(QtWarningMsg, "BinariesController").size(), 1);
    QCOMPARE(m_log->take(QtCriticalMsg, "BinariesController").size(), 2);
}

void tst_RoundTrip::damagedInstallationIsNotMadeWorse()
{
    const QByteArray content = randomBytes(20480, 6);
    lay("old"_s, {{"damaged"_s, content}, {"sound"_s, content}, {"short"_s, content}});
    lay("new"_s,
        {{"damaged"_s, content + "new"}, {"sound"_s, content + "new"},
            {"short"_s, content + "new"}});
    QByteArray damaged = content;
    damaged[10000] = static_cast<char>(~damaged.at(10000));
    lay("installed"_s, {{"damaged"_s, damaged}, {"sound"_s, content}, {"short"_s, "short"}});

    QVERIFY(publish());
    QVERIFY(!apply()); // the short file ends before its delta does
    QVERIFY(!verify());
    const Build expected{
        {"damaged"_s, damaged}, {"sound"_s, content + "new"}, {"short"_s, "short"}};
    QCOMPARE(filesIn("installed"_s), expected);
    QCOMPARE(m_log->take(QtCriticalMsg, "BinariesController").size(), 5);
}

void tst_RoundTrip::eachControllerHasItsOwnRuleForFolderPaths_data()
{
    QTest::addColumn<QString>("folder"); // %1: the path of the folder that holds the build
    QTest::addColumn<QString>("signedAs");
    QTest::addColumn<QString>("copiedTo");
    QTest::newRow("absolute") << "/%1/build"_s
                              << "/data/x"_s
                              << "data/x"_s;
    QTest::newRow("absolute, separator") << "/%1/build/"_s
                                         << "data/x"_s
                                         << "data/x"_s;
    QTest::newRow("relative") << "%1/build"_s
                              << "d/data/x"_s
                              << "d/data/x"_s;
    QTest::newRow("relative, separator") << "%1/build/"_s
                                         << "/data/x"_s
                                         << "data/x"_s;
}

void tst_RoundTrip::eachControllerHasItsOwnRuleForFolderPaths()
{
    QFETCH(QString, folder);
    QFETCH(QString, signedAs);
    QFETCH(QString, copiedTo);
    lay("build"_s, {{"data/x"_s, "x"}});
    m_tree->write("no signatures/signatures.json"_s, "[]");
    QDir::setCurrent("/"_s);
    folder.replace("%1"_s, path(QString()).mid(1));

    SignaturesController().createSignatures(folder, path("signatures"_s));
    QCOMPARE(
        recordsIn(m_tree->read("signatures/signatures.json"_s)).value(0).value("relative_path"_s),
        QVariant(signedAs));

    QVERIFY(DeltaController().createPatch(
        folder, path("no signatures"_s), path("patch"_s), QStringList()));
    QCOMPARE(recordsIn(m_tree->read("patch/patchRules.json"_s)).value(0).value("relative_path"_s),
        QVariant("/data/x"_s));

    m_tree->remove("build/data/x"_s);
    QVERIFY(apply(folder));
    QCOMPARE(m_tree->read("build/data/x"_s), QByteArray("x"));

    m_client->copyBinaries(folder, path("copy"_s));
    QCOMPARE(filesIn("copy"_s), Build({{copiedTo, "x"}}));
}

void tst_RoundTrip::rulesDependOnHowTheOldBuildWasGiven_data()
{
    QTest::addColumn<QString>("folder"); // %1: the path of the folder that holds the build
    QTest::addColumn<QStringList>("rules");
    QTest::addColumn<bool>("becomesTheNewBuild");
    const QStringList matching{"delete /old"_s, "patch /data/x"_s};
    QTest::newRow("absolute") << "/%1/old"_s << matching << true;
    QTest::newRow("relative, separator") << "%1/old/"_s << matching << true;

    // Nothing matches, so that all is copied and nothing is deleted where it stands.
    QTest::newRow("absolute, separator") << "/%1/old/"_s
                                         << QStringList({"copy /data/x"_s, "copy /same"_s,
                                                "delete data/x"_s, "delete old"_s, "delete same"_s})
                                         << false;
    QTest::newRow("relative") << "%1/old"_s
                              << QStringList({"copy /data/x"_s, "copy /same"_s, "delete d/data/x"_s,
                                     "delete d/old"_s, "delete d/same"_s})
                              << false;
}

void tst_RoundTrip::rulesDependOnHowTheOldBuildWasGiven()
{
    QFETCH(QString, folder);
    QFETCH(QStringList, rules);
    QFETCH(bool, becomesTheNewBuild);
    const Build oldBuild{{"data/x"_s, "before"}, {"old"_s, "old"}, {"same"_s, "same"}};
    Build newBuild{{"data/x"_s, "after"}, {"same"_s, "same"}};
    lay("old"_s, oldBuild);
    lay("new"_s, newBuild);
    lay("installed"_s, oldBuild);
    QDir::setCurrent("/"_s);

    SignaturesController().createSignatures(
        folder.replace("%1"_s, path(QString()).mid(1)), path("signatures"_s));
    QVERIFY(DeltaController().createPatch(
        path("new"_s), path("signatures"_s), path("patch"_s), QStringList()));
    QStringList written;
    for (const QVariantMap &rule : recordsIn(m_tree->read("patch/patchRules.json"_s)))
        written.append(rule.value("rule"_s).toString() + QLatin1Char(' ')
            + rule.value("relative_path"_s).toString());
    written.sort();
    QCOMPARE(written, rules);

    QVERIFY(apply());
    QVERIFY(verify());
    m_log->take(QtWarningMsg, "BinariesController"); // of copies over existing files
    if (!becomesTheNewBuild)
        newBuild.insert("old"_s, "old");
    QCOMPARE(filesIn("installed"_s), newBuild);
}

QTEST_GUILESS_MAIN(tst_RoundTrip)

#include "tst_roundtrip.moc"
