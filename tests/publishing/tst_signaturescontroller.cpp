// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "testtree.h"

#include <Pellox/patchhelp.h>
#include <Pellox/progresscallback.h>
#include <Pellox/signaturescontroller.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>
#include <QVector>

#include <optional>
#include <thread>
#include <type_traits>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using Pellox::SignaturesController;

static_assert(std::is_base_of_v<QObject, SignaturesController>);
static_assert(std::is_same_v<PROGRESS_CALLBACK, std::function<void(double)>>);

namespace {

const char Category[] = "SignaturesController";

const char Sha512OfNothing[] = "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
                               "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e";
const char Sha512OfAbc[] = "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                           "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f";
const char Sha512OfNew[] = "aa54def9e0bb11c1ebbfc97a9ee63af9e95c4fdf1d032b1ddcc0f21661f74865"
                           "1d2b2b8fb94e9ae041780554db29815daa1c0fe991ddae54eff0c4c28cd9d20c";

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

/// Absolute paths of the files under @p folder, in the order of the directory.
QStringList walk(const QString &folder)
{
    QStringList paths;
    QDirIterator iterator(folder, QStringList(), QDir::Files, QDirIterator::Subdirectories);
    while (iterator.hasNext())
        paths.append(iterator.next());
    return paths;
}

QStringList relativeTo(const QString &folder, const QStringList &paths)
{
    QStringList relativePaths;
    for (const QString &path : paths)
        relativePaths.append(path.mid(folder.size()));
    return relativePaths;
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

bool makePipe(const QString &path)
{
    return ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0;
}

/// A socket file of that name in the current folder, as socket addresses are short.
bool makeSocket(const char *name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, name, sizeof address.sun_path);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    const bool bound = descriptor >= 0 && ::bind(descriptor, generic, sizeof address) == 0;
    ::close(descriptor);
    return bound;
}

} // namespace

/// Each test has a folder of its own with "build", and signs it to "signatures" beside it.
class tst_SignaturesController : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void metaObjectHoldsWhatIsPromisedAndNoMore();
    void slotsCanBeCalledByName();
    void belongsToItsParent();

    void manifestOfOneFileIsExact();
    void manifestOfSeveralFilesIsExact();
    void recordsStandInTheOrderOfTheWalk();
    void suffixIsTheTextAfterTheLastDot_data();
    void suffixIsTheTextAfterTheLastDot();
    void buildWithoutFilesGivesAnEmptyArray_data();
    void buildWithoutFilesGivesAnEmptyArray();
    void caseAndUnicodeFormMakeDifferentFiles_data();
    void caseAndUnicodeFormMakeDifferentFiles();
    void unusualNamesAreTakenAsTheyAre_data();
    void unusualNamesAreTakenAsTheyAre();

    void progressValuesAreExact_data();
    void progressValuesAreExact();
    void progressIsReportedAfterTheFileIsDone();
    void lastProgressComesAfterTheManifest();
    void progressIsCalledInTheCallersThread();
    void emptyCallbackReportsNothing();

    void relativePathIsCutByThePathAsPassed_data();
    void relativePathIsCutByThePathAsPassed();
    void relativeBuildFolderIsCutByItsOwnLength();
    void cutBeyondTheEndGivesAnEmptyRelativePath();

    void signaturesFolderIsCreatedWithParents();
    void signaturesFolderMayBeRelative();
    void signaturesFolderMayEndInASeparator();
    void signaturesLieInTheSameNestedFolders();
    void signatureIsThatOfThePrimitive();

    void listedAreFilesAndLinksToFiles();
    void linkToSomethingSpecialIsRecordedWithoutContent();
    void filesAreCollectedBeforeAnyWork();
    void signaturesInsideTheBuildAreNotSignedInTheSameCall();
    void fileThatGoesAwayKeepsItsRecord();
    void unreadableFileIsRecordedWithAnEmptyChecksum();
    void failedSignatureStillGetsItsRecord_data();
    void failedSignatureStillGetsItsRecord();

    void checksumIsTheRawDigest_data();
    void checksumIsTheRawDigest();
    void checksumOfALargeFileIsThatOfAllBlocks();
    void checksumFollowsALinkToAFile();
    void checksumOfWhatCannotBeReadIsEmpty_data();
    void checksumOfWhatCannotBeReadIsEmpty();

    void manifestThatCannotBeCreatedIsReportedOnce_data();
    void manifestThatCannotBeCreatedIsReportedOnce();
    void pipeInPlaceOfTheManifestIsNotWaitedFor();
    void signaturesFolderThatCannotBeCreatedIsReportedOnce();
    void errorIsSignalledInTheCallersThread();
    void failureAfterOpeningTheManifestIsNotNoticed();

    void tooLongPathsAreWarnedOfAndWorkGoesOn_data();
    void tooLongPathsAreWarnedOfAndWorkGoesOn();
    void lengthIsCountedInCodeUnits_data();
    void lengthIsCountedInCodeUnits();

    void secondRunOverwritesFileByFileAndRemovesNothing();
    void manyFiles();

private:
    QString build() const { return m_tree->path(QStringLiteral("build")); }
    QString signatures() const { return m_tree->path(QStringLiteral("signatures")); }
    void sign() { sign(build(), signatures()); }
    void sign(const QString &buildFolder, const QString &signaturesFolder);
    QByteArray manifest() const
    {
        return m_tree->read(QStringLiteral("signatures/signatures.json"));
    }
    QList<QJsonObject> records() const;
    QStringList members(const char *name) const;
    QString memberOf(const QString &relativePath, const char *name) const;
    QByteArray ownSignatureOf(const QString &path) const;

    std::optional<LogCapture> m_log;
    std::optional<TestTree> m_tree;
    SignaturesController m_controller;
    std::optional<QSignalSpy> m_errors;
    std::optional<QSignalSpy> m_finished;
    QVector<double> m_progress; ///< of the last sign()
};

void tst_SignaturesController::initTestCase()
{
    // Else librsync tells on the standard error what the tests provoke.
    Pellox::setRsyncLogOutput([](Pellox::loglevel, const char *) {});
}

void tst_SignaturesController::init()
{
    m_log.emplace();
    m_tree.emplace();
    m_tree->makeFolder(QStringLiteral("build"));
    m_errors.emplace(&m_controller, &SignaturesController::createSignError);
    m_finished.emplace(&m_controller, &SignaturesController::finished);
}

void tst_SignaturesController::cleanup()
{
    QDir::setCurrent(QDir::rootPath());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    QCOMPARE(m_log->take(QtDebugMsg, Category), QStringList());
    QCOMPARE(m_errors->count(), 0);
    QCOMPARE(m_finished->count(), 0);
    m_tree.reset();
    m_log.reset();
}

void tst_SignaturesController::sign(const QString &buildFolder, const QString &signaturesFolder)
{
    m_progress.clear();
    m_controller.createSignatures(
        buildFolder, signaturesFolder, [this](double percent) { m_progress.append(percent); });
}

QList<QJsonObject> tst_SignaturesController::records() const
{
    QList<QJsonObject> objects;
    const QJsonArray array = QJsonDocument::fromJson(manifest()).array();
    for (const QJsonValue &value : array)
        objects.append(value.toObject());
    return objects;
}

QStringList tst_SignaturesController::members(const char *name) const
{
    QStringList values;
    for (const QJsonObject &record : records())
        values.append(record.value(QLatin1String(name)).toString());
    return values;
}

QString tst_SignaturesController::memberOf(const QString &relativePath, const char *name) const
{
    for (const QJsonObject &record : records()) {
        if (record.value(QLatin1String("relative_path")).toString() == relativePath)
            return record.value(QLatin1String(name)).toString();
    }
    return QStringLiteral("no record of ") + relativePath;
}

QByteArray tst_SignaturesController::ownSignatureOf(const QString &path) const
{
    if (!Pellox::createSignature(path, m_tree->path(QStringLiteral("own.signature"))))
        return QByteArrayLiteral("not made");
    return m_tree->read(QStringLiteral("own.signature"));
}

void tst_SignaturesController::metaObjectHoldsWhatIsPromisedAndNoMore()
{
    const QMetaObject &meta = SignaturesController::staticMetaObject;
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
            "signal void finished()",
            "signal void createSignError(QString)",
            "slot void createSignatures(QString,QString,PROGRESS_CALLBACK)",
            "cloned slot void createSignatures(QString,QString)",
        }));
    QCOMPARE(meta.className(), "Pellox::SignaturesController");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.propertyCount(), meta.propertyOffset());
    QCOMPARE(meta.enumeratorCount(), meta.enumeratorOffset());
    QCOMPARE(meta.classInfoCount(), meta.classInfoOffset());
    QCOMPARE(meta.constructorCount(), 0);
}

void tst_SignaturesController::slotsCanBeCalledByName()
{
    m_tree->write(QStringLiteral("build/a.txt"), "abc");
    QVERIFY(QMetaObject::invokeMethod(
        &m_controller, "createSignatures", Q_ARG(QString, build()), Q_ARG(QString, signatures())));
    QCOMPARE(members("sha512"), QStringList(text(Sha512OfAbc)));

    QVector<double> progress;
    const PROGRESS_CALLBACK callback = [&](double percent) { progress.append(percent); };
    QVERIFY(QMetaObject::invokeMethod(&m_controller, "createSignatures", Q_ARG(QString, build()),
        Q_ARG(QString, signatures()), Q_ARG(PROGRESS_CALLBACK, callback)));
    QCOMPARE(progress, QVector<double>({0, 100}));
}

void tst_SignaturesController::belongsToItsParent()
{
    QObject parent;
    const QPointer<SignaturesController> child = new SignaturesController(&parent);
    QCOMPARE(child->parent(), &parent);
    QVERIFY(!m_controller.parent());
}

void tst_SignaturesController::manifestOfOneFileIsExact()
{
    m_tree->write(QStringLiteral("build/data/x.pak"), "abc");
    sign();

    QCOMPARE(manifest(),
        QByteArray(
            "[\n"
            "    {\n"
            "        \"relative_path\": \"/data/x.pak\",\n"
            "        \"sha512\": \"ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b"
            "55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f\",\n"
            "        \"suffix\": \"pak\"\n"
            "    }\n"
            "]\n"));
}

void tst_SignaturesController::manifestOfSeveralFilesIsExact()
{
    m_tree->write(QStringLiteral("build/one"), "abc");
    m_tree->write(QStringLiteral("build/two"), "abc");
    m_tree->write(QStringLiteral("build/three"), "abc");
    sign();

    QByteArrayList objects;
    for (const QString &relativePath : relativeTo(build(), walk(build()))) {
        objects.append("    {\n        \"relative_path\": \"" + relativePath.toUtf8()
            + "\",\n        \"sha512\": \"" + Sha512OfAbc + "\",\n        \"suffix\": \"\"\n    }");
    }
    QCOMPARE(objects.size(), 3);
    QCOMPARE(manifest(), "[\n" + objects.join(",\n") + "\n]\n");
}

void tst_SignaturesController::recordsStandInTheOrderOfTheWalk()
{
    for (int i = 0; i < 40; ++i)
        m_tree->write(QStringLiteral("build/%1/%2/%3.bin").arg(i % 3).arg(i % 5).arg(i), "x");
    sign();

    QCOMPARE(members("relative_path").size(), 40);
    QCOMPARE(members("relative_path"), relativeTo(build(), walk(build())));
}

void tst_SignaturesController::suffixIsTheTextAfterTheLastDot_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("suffix");

    QTest::newRow("one dot") << text("game.exe") << text("exe");
    QTest::newRow("no dot") << text("game") << text("");
    QTest::newRow("several dots") << text("game.tar.gz") << text("gz");
    QTest::newRow("dot at the end") << text("game.") << text("");
    QTest::newRow("two dots in a row") << text("game..exe") << text("exe");
    QTest::newRow("capitals stay") << text("GAME.EXE") << text("EXE");
    QTest::newRow("blank") << text("game.old exe") << text("old exe");
    QTest::newRow("not ASCII") << text("game.größe") << text("größe");
    QTest::newRow("dot in the folder alone") << text("v1.2/game") << text("");
    QTest::newRow("dots in folder and file") << text("v1.2/game.exe") << text("exe");
}

void tst_SignaturesController::suffixIsTheTextAfterTheLastDot()
{
    QFETCH(QString, name);
    QFETCH(QString, suffix);

    m_tree->write(QStringLiteral("build/") + name, "abc");
    sign();

    QCOMPARE(members("relative_path"), QStringList(QLatin1Char('/') + name));
    QCOMPARE(members("suffix"), QStringList(suffix));
}

void tst_SignaturesController::buildWithoutFilesGivesAnEmptyArray_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("buildFolder");

    QTest::newRow("empty folder") << QString() << text("build");
    QTest::newRow("hidden file alone") << text("build/.hidden.txt") << text("build");
    QTest::newRow("hidden folder alone") << text("build/.git/config") << text("build");
    QTest::newRow("folder that is not there") << QString() << text("nowhere");
    QTest::newRow("file in the folder's place") << text("file") << text("file");
}

void tst_SignaturesController::buildWithoutFilesGivesAnEmptyArray()
{
    QFETCH(QString, file);
    QFETCH(QString, buildFolder);

    if (!file.isEmpty())
        m_tree->write(file, "abc");
    m_tree->makeFolder(QStringLiteral("build/empty/folders"));
    sign(m_tree->path(buildFolder), signatures());

    QCOMPARE(manifest(), QByteArray("[\n]\n"));
    QCOMPARE(m_progress, QVector<double>({100}));
    QCOMPARE(TestTree::snapshot(signatures()).keys(), QStringList(text("signatures.json")));
}

void tst_SignaturesController::caseAndUnicodeFormMakeDifferentFiles_data()
{
    QTest::addColumn<QString>("one");
    QTest::addColumn<QString>("other");

    QTest::newRow("letter case") << text("data.pak") << text("Data.pak");
    QTest::newRow("case of the suffix") << text("data.pak") << text("data.PAK");
    QTest::newRow("composed and decomposed") << text("caf\u00e9.txt") << text("cafe\u0301.txt");
}

void tst_SignaturesController::caseAndUnicodeFormMakeDifferentFiles()
{
    QFETCH(QString, one);
    QFETCH(QString, other);

    m_tree->write(QStringLiteral("build/") + one, "abc");
    m_tree->write(QStringLiteral("build/") + other, "new");
    sign();

    QCOMPARE(records().size(), 2);
    QCOMPARE(memberOf(QLatin1Char('/') + one, "sha512"), text(Sha512OfAbc));
    QCOMPARE(memberOf(QLatin1Char('/') + other, "sha512"), text(Sha512OfNew));
    QVERIFY(m_tree->exists(QStringLiteral("signatures/") + one));
    QVERIFY(m_tree->exists(QStringLiteral("signatures/") + other));
}

void tst_SignaturesController::unusualNamesAreTakenAsTheyAre_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("blank inside") << text("my game.exe");
    QTest::newRow("blanks around") << text(" game ");
    QTest::newRow("umlauts") << text("Größe/Übung.txt");
    QTest::newRow("beyond the basic plane") << text("\U0001F3AE.pak");
    QTest::newRow("place holder") << text("%1.pak");
    QTest::newRow("quotes") << text("\"game\" 'x'.pak");
    QTest::newRow("line feed") << text("two\nlines.pak");
    QTest::newRow("backslash") << text("back\\slash.pak");
    QTest::newRow("wildcards") << text("*[a]?.pak");
    QTest::newRow("dash") << text("-");
    QTest::newRow("two dots inside") << text("a..b");
    QTest::newRow("longest name") << QString(255, QLatin1Char('n'));
}

void tst_SignaturesController::unusualNamesAreTakenAsTheyAre()
{
    QFETCH(QString, name);

    m_tree->write(QStringLiteral("build/") + name, "abc");
    sign();

    QCOMPARE(members("relative_path"), QStringList(QLatin1Char('/') + name));
    QCOMPARE(members("sha512"), QStringList(text(Sha512OfAbc)));
    QCOMPARE(m_tree->read(QStringLiteral("signatures/") + name),
        ownSignatureOf(build() + QLatin1Char('/') + name));
}

void tst_SignaturesController::progressValuesAreExact_data()
{
    QTest::addColumn<int>("files");
    QTest::addColumn<QVector<double>>("values");

    QTest::newRow("one file") << 1 << QVector<double>{0, 100};
    QTest::newRow("two files") << 2 << QVector<double>{0, 50, 100};
    QTest::newRow("three files") << 3 << QVector<double>{0, 1.0 / 3 * 100, 2.0 / 3 * 100, 100};
    QTest::newRow("four files") << 4 << QVector<double>{0, 25, 50, 75, 100};
}

void tst_SignaturesController::progressValuesAreExact()
{
    QFETCH(int, files);
    QFETCH(QVector<double>, values);

    for (int i = 0; i < files; ++i)
        m_tree->write(QStringLiteral("build/%1").arg(i), "abc");
    sign();

    QCOMPARE(m_progress, values);
}

void tst_SignaturesController::progressIsReportedAfterTheFileIsDone()
{
    for (int i = 0; i < 3; ++i)
        m_tree->write(QStringLiteral("build/%1").arg(i), "abc");
    const QStringList order = relativeTo(build(), walk(build()));

    QVector<QStringList> found;
    m_controller.createSignatures(build(), signatures(),
        [&](double) { found.append(sorted(TestTree::snapshot(signatures()).keys())); });

    QCOMPARE(found.size(), 4);
    for (int done = 1; done <= 3; ++done) {
        QStringList expected;
        for (const QString &relativePath : order.mid(0, done))
            expected.append(relativePath.mid(1));
        QCOMPARE(found.at(done - 1), sorted(expected));
    }
}

void tst_SignaturesController::lastProgressComesAfterTheManifest()
{
    m_tree->write(QStringLiteral("build/a"), "abc");
    QByteArrayList found;
    m_controller.createSignatures(build(), signatures(), [&](double) {
        found.append(
            m_tree->exists(QStringLiteral("signatures/signatures.json")) ? manifest() : "");
    });

    QCOMPARE(found.size(), 2);
    QCOMPARE(found.first(), QByteArray());
    QCOMPARE(found.last(), manifest());
}

void tst_SignaturesController::progressIsCalledInTheCallersThread()
{
    m_tree->write(QStringLiteral("build/a"), "abc");
    QVector<QThread *> seen;
    QThread *caller = nullptr;
    std::thread thread([&] {
        caller = QThread::currentThread();
        m_controller.createSignatures(
            build(), signatures(), [&](double) { seen.append(QThread::currentThread()); });
    });
    thread.join();

    QCOMPARE(seen, QVector<QThread *>({caller, caller}));
}

void tst_SignaturesController::emptyCallbackReportsNothing()
{
    m_tree->write(QStringLiteral("build/a"), "abc");
    m_controller.createSignatures(build(), signatures(), PROGRESS_CALLBACK());
    QCOMPARE(members("relative_path"), QStringList(text("/a")));

    m_tree->write(QStringLiteral("build/a"), "new");
    m_controller.createSignatures(build(), signatures());
    QCOMPARE(members("sha512"), QStringList(text(Sha512OfNew)));
}

void tst_SignaturesController::relativePathIsCutByThePathAsPassed_data()
{
    QTest::addColumn<QString>("buildFolder");  // behind the path of the tree
    QTest::addColumn<QString>("relativePath"); // of tree/build/data/x.pak

    QTest::newRow("plain") << text("/build") << text("/data/x.pak");
    QTest::newRow("separator at the end") << text("/build/") << text("data/x.pak");
    QTest::newRow("two separators at the end") << text("/build//") << text("ata/x.pak");
    QTest::newRow("doubled separator inside") << text("//build") << text("data/x.pak");
    QTest::newRow("doubled separator and one at the end") << text("//build/") << text("ata/x.pak");
    QTest::newRow("dot at the end") << text("/build/.") << text("ata/x.pak");
    QTest::newRow("up and down") << text("/build/../build") << text("ak");
}

void tst_SignaturesController::relativePathIsCutByThePathAsPassed()
{
    QFETCH(QString, buildFolder);
    QFETCH(QString, relativePath);

    m_tree->write(QStringLiteral("build/data/x.pak"), "abc");
    sign(m_tree->path() + buildFolder, signatures());

    QCOMPARE(members("relative_path"), QStringList(relativePath));
    QCOMPARE(members("sha512"), QStringList(text(Sha512OfAbc)));
    const QString signature = QDir::cleanPath(QStringLiteral("signatures/") + relativePath);
    QCOMPARE(m_tree->read(signature), ownSignatureOf(build() + QStringLiteral("/data/x.pak")));
}

void tst_SignaturesController::relativeBuildFolderIsCutByItsOwnLength()
{
    m_tree->write(QStringLiteral("build/x.pak"), "abc");
    QVERIFY(QDir::setCurrent(m_tree->path()));
    sign(QStringLiteral("build"), signatures());

    const QString relativePath = (build() + QStringLiteral("/x.pak")).mid(5);
    QCOMPARE(members("relative_path"), QStringList(relativePath));
    QVERIFY(QFile::exists(signatures() + QLatin1Char('/') + relativePath));
}

void tst_SignaturesController::cutBeyondTheEndGivesAnEmptyRelativePath()
{
    m_tree->write(QStringLiteral("build/x"), "abc");
    sign(build() + QStringLiteral("/././."), signatures());

    QCOMPARE(manifest(),
        QByteArray("[\n    {\n        \"relative_path\": \"\",\n        \"sha512\": \"")
            + Sha512OfAbc + "\",\n        \"suffix\": \"\"\n    }\n]\n");
    QCOMPARE(TestTree::snapshot(signatures()).keys(), QStringList(text("signatures.json")));
}

void tst_SignaturesController::signaturesFolderIsCreatedWithParents()
{
    const QString folder = m_tree->path(QStringLiteral("one/two/three"));
    sign(build(), folder);

    QCOMPARE(TestTree::snapshot(folder).keys(), QStringList(text("signatures.json")));
}

void tst_SignaturesController::signaturesFolderMayBeRelative()
{
    m_tree->write(QStringLiteral("build/data/x"), "abc");
    QVERIFY(QDir::setCurrent(m_tree->path()));
    sign(build(), QStringLiteral("signatures"));

    QCOMPARE(TestTree::snapshot(signatures()).keys(),
        QStringList({text("data/"), text("data/x"), text("signatures.json")}));
}

void tst_SignaturesController::signaturesFolderMayEndInASeparator()
{
    m_tree->write(QStringLiteral("build/data/x"), "abc");
    sign(build(), signatures() + QLatin1Char('/'));

    QCOMPARE(TestTree::snapshot(signatures()).keys(),
        QStringList({text("data/"), text("data/x"), text("signatures.json")}));
}

void tst_SignaturesController::signaturesLieInTheSameNestedFolders()
{
    m_tree->write(QStringLiteral("build/a.txt"), "abc");
    m_tree->write(QStringLiteral("build/data/a.txt"), "abc");
    m_tree->write(QStringLiteral("build/data/deep/er/b"), "abc");
    m_tree->makeFolder(QStringLiteral("build/data/empty"));
    sign();

    QCOMPARE(TestTree::snapshot(signatures()).keys(),
        QStringList({text("a.txt"), text("data/"), text("data/a.txt"), text("data/deep/"),
            text("data/deep/er/"), text("data/deep/er/b"), text("signatures.json")}));
}

void tst_SignaturesController::signatureIsThatOfThePrimitive()
{
    m_tree->write(QStringLiteral("build/a"), randomBytes(10000, 1));
    sign();

    const QByteArray signature = m_tree->read(QStringLiteral("signatures/a"));
    QCOMPARE(signature, ownSignatureOf(build() + QStringLiteral("/a")));
    // BLAKE2, blocks of 2048 bytes, strong sums of 32 bytes.
    QCOMPARE(signature.left(12).toHex(), QByteArray("727301370000080000000020"));
    QCOMPARE(signature.size(), 12 + 5 * (4 + 32));
}

void tst_SignaturesController::listedAreFilesAndLinksToFiles()
{
    m_tree->write(QStringLiteral("build/file"), "abc");
    m_tree->write(QStringLiteral("build/folder/file"), "abc");
    m_tree->write(QStringLiteral("build/empty file"), "");
    m_tree->write(QStringLiteral("build/.hidden"), "abc");
    m_tree->write(QStringLiteral("build/folder/.hidden"), "abc");
    m_tree->write(QStringLiteral("build/.hidden folder/file"), "abc");
    m_tree->makeFolder(QStringLiteral("build/empty folder"));
    m_tree->write(QStringLiteral("outside/file"), "abc");
    m_tree->link(
        QStringLiteral("build/link to file"), m_tree->path(QStringLiteral("outside/file")));
    m_tree->link(QStringLiteral("build/relative link"), QStringLiteral("file"));
    m_tree->link(QStringLiteral("build/link to folder"), m_tree->path(QStringLiteral("outside")));
    m_tree->link(QStringLiteral("build/link to itself"), build());
    m_tree->link(QStringLiteral("build/dangling link"), m_tree->path(QStringLiteral("nowhere")));
    QVERIFY(makePipe(m_tree->path(QStringLiteral("build/pipe"))));
    QVERIFY(QDir::setCurrent(build()) && makeSocket("socket"));
    sign();

    QCOMPARE(sorted(members("relative_path")),
        QStringList({text("/empty file"), text("/file"), text("/folder/file"),
            text("/link to file"), text("/relative link")}));
    QCOMPARE(memberOf(text("/link to file"), "sha512"), text(Sha512OfAbc));
    QCOMPARE(memberOf(text("/empty file"), "sha512"), text(Sha512OfNothing));
    QCOMPARE(TestTree::snapshot(signatures()).keys(),
        QStringList({text("empty file"), text("file"), text("folder/"), text("folder/file"),
            text("link to file"), text("relative link"), text("signatures.json")}));
}

void tst_SignaturesController::linkToSomethingSpecialIsRecordedWithoutContent()
{
    QVERIFY(makePipe(m_tree->path(QStringLiteral("pipe"))));
    m_tree->link(QStringLiteral("build/link"), m_tree->path(QStringLiteral("pipe")));
    QCOMPARE(walk(build()).size(), 1);
    sign();

    QCOMPARE(members("relative_path"), QStringList(text("/link")));
    QCOMPARE(members("sha512"), QStringList(QString()));
}

void tst_SignaturesController::filesAreCollectedBeforeAnyWork()
{
    m_tree->write(QStringLiteral("build/a"), "abc");
    m_tree->write(QStringLiteral("build/folder/b"), "abc");
    m_controller.createSignatures(build(), signatures(), [&](double percent) {
        m_tree->write(QStringLiteral("build/late %1").arg(percent), "abc");
        m_tree->write(QStringLiteral("build/folder/late %1").arg(percent), "abc");
    });

    QCOMPARE(sorted(members("relative_path")), QStringList({text("/a"), text("/folder/b")}));
}

void tst_SignaturesController::signaturesInsideTheBuildAreNotSignedInTheSameCall()
{
    m_tree->write(QStringLiteral("build/a"), "abc");
    m_controller.createSignatures(build(), build() + QStringLiteral("/signatures"));

    QCOMPARE(sorted(relativeTo(build(), walk(build()))),
        QStringList({text("/a"), text("/signatures/a"), text("/signatures/signatures.json")}));
}

void tst_SignaturesController::fileThatGoesAwayKeepsItsRecord()
{
    m_tree->write(QStringLiteral("build/a"), "abc");
    m_tree->write(QStringLiteral("build/b"), "abc");
    const QString second = relativeTo(build(), walk(build())).last();
    m_controller.createSignatures(build(), signatures(), [&](double percent) {
        if (percent == 0.0)
            m_tree->remove(QStringLiteral("build") + second);
    });

    QCOMPARE(members("relative_path").last(), second);
    QCOMPARE(members("sha512"), QStringList({text(Sha512OfAbc), QString()}));
}

void tst_SignaturesController::unreadableFileIsRecordedWithAnEmptyChecksum()
{
    // Opens, but the first page of a process cannot be read.
    m_tree->link(QStringLiteral("build/memory.bin"), QStringLiteral("/proc/self/mem"));
    m_tree->write(QStringLiteral("build/a"), "abc");
    QCOMPARE(walk(build()).size(), 2);
    sign();

    QCOMPARE(memberOf(text("/memory.bin"), "sha512"), QString());
    QCOMPARE(memberOf(text("/memory.bin"), "suffix"), text("bin"));
    QCOMPARE(memberOf(text("/a"), "sha512"), text(Sha512OfAbc));
    QCOMPARE(m_progress, QVector<double>({0, 50, 100}));
}

void tst_SignaturesController::failedSignatureStillGetsItsRecord_data()
{
    QTest::addColumn<QString>("folder");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("link");

    QTest::newRow("folder in the signature's place")
        << text("signatures/data/x.pak") << QString() << QString();
    QTest::newRow("file in the place of its folder")
        << QString() << text("signatures/data") << QString();
    QTest::newRow("full device") << QString() << QString() << text("signatures/data/x.pak");
}

void tst_SignaturesController::failedSignatureStillGetsItsRecord()
{
    QFETCH(QString, folder);
    QFETCH(QString, file);
    QFETCH(QString, link);

    if (!folder.isEmpty())
        m_tree->makeFolder(folder);
    if (!file.isEmpty())
        m_tree->write(file, "in the way");
    if (!link.isEmpty())
        m_tree->link(link, QStringLiteral("/dev/full"));
    m_tree->write(QStringLiteral("build/data/x.pak"), "abc");
    m_tree->write(QStringLiteral("build/y.pak"), "new");
    sign();

    QCOMPARE(records().size(), 2);
    QCOMPARE(memberOf(text("/data/x.pak"), "sha512"), text(Sha512OfAbc));
    QCOMPARE(memberOf(text("/data/x.pak"), "suffix"), text("pak"));
    QCOMPARE(memberOf(text("/y.pak"), "sha512"), text(Sha512OfNew));
    QCOMPARE(m_tree->read(QStringLiteral("signatures/y.pak")),
        ownSignatureOf(build() + QStringLiteral("/y.pak")));
    QCOMPARE(m_progress, QVector<double>({0, 50, 100}));
    QVERIFY(!m_log->take(QtDebugMsg, "PatchHelper").isEmpty());
}

void tst_SignaturesController::checksumIsTheRawDigest_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("algorithm");
    QTest::addColumn<QByteArray>("hex");

    QTest::newRow("SHA-512") << QByteArray("abc") << int(QCryptographicHash::Sha512)
                             << QByteArray(Sha512OfAbc);
    QTest::newRow("SHA-512 of nothing")
        << QByteArray() << int(QCryptographicHash::Sha512) << QByteArray(Sha512OfNothing);
    QTest::newRow("MD4") << QByteArray("abc") << int(QCryptographicHash::Md4)
                         << QByteArray("a448017aaf21d8525fc10ae87aa6729d");
    QTest::newRow("MD5") << QByteArray("abc") << int(QCryptographicHash::Md5)
                         << QByteArray("900150983cd24fb0d6963f7d28e17f72");
    QTest::newRow("SHA-1") << QByteArray("abc") << int(QCryptographicHash::Sha1)
                           << QByteArray("a9993e364706816aba3e25717850c26c9cd0d89d");
    QTest::newRow("SHA-224") << QByteArray("abc") << int(QCryptographicHash::Sha224)
                             << QByteArray(
                                    "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7");
    QTest::newRow("SHA-256")
        << QByteArray("abc") << int(QCryptographicHash::Sha256)
        << QByteArray("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    QTest::newRow("SHA-384") << QByteArray("abc") << int(QCryptographicHash::Sha384)
                             << QByteArray("cb00753f45a35e8bb5a03d699ac65007272c32ab0eded163"
                                           "1a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7");
    QTest::newRow("SHA3-256")
        << QByteArray("abc") << int(QCryptographicHash::RealSha3_256)
        << QByteArray("3a985da74fe225b2045c172d6bd390bd855f086e3e9d525b46bfe24511431532");
    QTest::newRow("Keccak-256")
        << QByteArray("abc") << int(QCryptographicHash::Keccak_256)
        << QByteArray("4e03657aea45a94fc7d47ba826c8d667c0d1e6e33a64a036ec44f58fa12d6c45");
}

void tst_SignaturesController::checksumIsTheRawDigest()
{
    QFETCH(QByteArray, content);
    QFETCH(int, algorithm);
    QFETCH(QByteArray, hex);

    m_tree->write(QStringLiteral("file"), content);
    QCOMPARE(SignaturesController::calculateCheckSum(m_tree->path(QStringLiteral("file")),
                 static_cast<QCryptographicHash::Algorithm>(algorithm)),
        QByteArray::fromHex(hex));
}

void tst_SignaturesController::checksumOfALargeFileIsThatOfAllBlocks()
{
    m_tree->write(QStringLiteral("file"), QByteArray(1000000, 'a'));
    const QByteArray digest = SignaturesController::calculateCheckSum(
        m_tree->path(QStringLiteral("file")), QCryptographicHash::Sha512);

    QCOMPARE(digest.toHex(),
        QByteArray("e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
                   "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b"));
}

void tst_SignaturesController::checksumFollowsALinkToAFile()
{
    m_tree->write(QStringLiteral("file"), "abc");
    m_tree->link(QStringLiteral("link"), QStringLiteral("file"));

    QCOMPARE(SignaturesController::calculateCheckSum(
                 m_tree->path(QStringLiteral("link")), QCryptographicHash::Sha512)
                 .toHex(),
        QByteArray(Sha512OfAbc));
}

void tst_SignaturesController::checksumOfWhatCannotBeReadIsEmpty_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("missing file") << text("missing");
    QTest::newRow("file below a file") << text("file/below");
    QTest::newRow("folder") << text("build");
    QTest::newRow("named pipe") << text("pipe");
    QTest::newRow("link to a named pipe") << text("link to pipe");
    QTest::newRow("socket") << text("socket");
    QTest::newRow("dangling link") << text("dangling");
    QTest::newRow("opens but does not read") << text("memory");
    QTest::newRow("name too long for a file") << QString(256, QLatin1Char('n'));
    QTest::newRow("empty path") << QString();
}

void tst_SignaturesController::checksumOfWhatCannotBeReadIsEmpty()
{
    QFETCH(QString, name);

    m_tree->write(QStringLiteral("file"), "abc");
    QVERIFY(makePipe(m_tree->path(QStringLiteral("pipe"))));
    QVERIFY(QDir::setCurrent(m_tree->path()) && makeSocket("socket"));
    m_tree->link(QStringLiteral("link to pipe"), QStringLiteral("pipe"));
    m_tree->link(QStringLiteral("dangling"), QStringLiteral("nowhere"));
    m_tree->link(QStringLiteral("memory"), QStringLiteral("/proc/self/mem"));

    QVERIFY(SignaturesController::calculateCheckSum(name, QCryptographicHash::Sha512).isEmpty());
    QVERIFY(
        SignaturesController::calculateCheckSum(name, QCryptographicHash::Keccak_256).isEmpty());
    m_log->take(QtWarningMsg, "default"); // Qt's own, about an empty file name
}

void tst_SignaturesController::manifestThatCannotBeCreatedIsReportedOnce_data()
{
    QTest::addColumn<QString>("signaturesFolder"); // from the tree, the current folder
    QTest::addColumn<bool>("absolute");

    QTest::newRow("absolute") << text("signatures") << true;
    QTest::newRow("separator at the end") << text("signatures/") << true;
    QTest::newRow("doubled separator") << text("/signatures") << true;
    QTest::newRow("relative") << text("signatures") << false;
    QTest::newRow("relative with dots") << text("./build/../signatures") << false;
    QTest::newRow("odd name") << text("signatures \"%1\" größe\nend") << false;
}

void tst_SignaturesController::manifestThatCannotBeCreatedIsReportedOnce()
{
    QFETCH(QString, signaturesFolder);
    QFETCH(bool, absolute);

    QVERIFY(QDir::setCurrent(m_tree->path()));
    if (absolute)
        signaturesFolder.prepend(m_tree->path() + QLatin1Char('/'));
    QVERIFY(QDir().mkpath(signaturesFolder + QStringLiteral("/signatures.json")));
    m_tree->write(QStringLiteral("build/a"), "abc");
    m_tree->write(QStringLiteral("build/b"), "abc");
    sign(build(), signaturesFolder);

    const QString message = QStringLiteral("Can't create signatures file in ") + signaturesFolder;
    QCOMPARE(m_log->takeAll(Category), QStringList(QStringLiteral("debug: ") + message));
    QCOMPARE(m_errors->count(), 1);
    QCOMPARE(m_errors->takeFirst(), QVariantList({message}));
    QCOMPARE(m_progress, QVector<double>({0, 50, 100}));
    QCOMPARE(TestTree::snapshot(QDir(signaturesFolder).absolutePath()).keys(),
        QStringList({text("a"), text("b"), text("signatures.json/")}));
}

void tst_SignaturesController::pipeInPlaceOfTheManifestIsNotWaitedFor()
{
    m_tree->makeFolder(QStringLiteral("signatures"));
    const QString pipe = signatures() + QStringLiteral("/signatures.json");
    QCOMPARE(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    sign();

    const QString message = QStringLiteral("Can't create signatures file in ") + signatures();
    QCOMPARE(m_log->takeAll(Category), QStringList(QStringLiteral("debug: ") + message));
    QCOMPARE(m_errors->count(), 1);
    QCOMPARE(m_errors->takeFirst(), QVariantList({message}));
}

void tst_SignaturesController::signaturesFolderThatCannotBeCreatedIsReportedOnce()
{
    m_tree->write(QStringLiteral("file"), "in the way");
    m_tree->write(QStringLiteral("build/a"), "abc");
    const QString folder = m_tree->path(QStringLiteral("file/signatures"));
    sign(build(), folder);

    const QString message = QStringLiteral("Can't create signatures file in ") + folder;
    QCOMPARE(m_log->takeAll(Category), QStringList(QStringLiteral("debug: ") + message));
    QCOMPARE(m_errors->count(), 1);
    QCOMPARE(m_errors->takeFirst(), QVariantList({message}));
    QCOMPARE(m_progress, QVector<double>({0, 100}));
    QCOMPARE(m_tree->read(QStringLiteral("file")), QByteArray("in the way"));
}

void tst_SignaturesController::errorIsSignalledInTheCallersThread()
{
    m_tree->makeFolder(QStringLiteral("signatures/signatures.json"));
    QVector<QThread *> seen;
    SignaturesController controller;
    connect(
        &controller, &SignaturesController::createSignError, &controller,
        [&] { seen.append(QThread::currentThread()); }, Qt::DirectConnection);
    QThread *caller = nullptr;
    std::thread thread([&] {
        caller = QThread::currentThread();
        controller.createSignatures(build(), signatures());
    });
    thread.join();

    QCOMPARE(seen, QVector<QThread *>({caller}));
    QCOMPARE(m_log->take(QtDebugMsg, Category).size(), 1);
}

void tst_SignaturesController::failureAfterOpeningTheManifestIsNotNoticed()
{
    m_tree->link(QStringLiteral("signatures/signatures.json"), QStringLiteral("/dev/full"));
    m_tree->write(QStringLiteral("build/a"), "abc");
    sign();

    QCOMPARE(m_errors->count(), 0);
    QCOMPARE(m_progress, QVector<double>({0, 100}));
}

void tst_SignaturesController::tooLongPathsAreWarnedOfAndWorkGoesOn_data()
{
    QTest::addColumn<int>("buildSize");
    QTest::addColumn<int>("signatureSize");
    QTest::addColumn<bool>("buildWarns");
    QTest::addColumn<bool>("signatureWarns");

    QTest::newRow("both as long as allowed") << 1023 << 1023 << false << false;
    QTest::newRow("build file one too long") << 1024 << 1023 << true << false;
    QTest::newRow("signature one too long") << 1023 << 1024 << false << true;
    QTest::newRow("both one too long") << 1024 << 1024 << true << true;
    QTest::newRow("both far too long") << 2500 << 2510 << true << true;
}

void tst_SignaturesController::tooLongPathsAreWarnedOfAndWorkGoesOn()
{
    QFETCH(int, buildSize);
    QFETCH(int, signatureSize);
    QFETCH(bool, buildWarns);
    QFETCH(bool, signatureWarns);

    // Both have the relative path in common, so the names of the folders differ in length.
    const int treeSize = m_tree->path().size() + 1;
    const QString relativePath = longRelativePath(1000 - treeSize + qMax(0, buildSize - 1024));
    const QString buildName(buildSize - treeSize - relativePath.size(), QLatin1Char('b'));
    const QString signaturesName(signatureSize - treeSize - relativePath.size(), QLatin1Char('s'));
    const QString buildFile = m_tree->path(buildName) + relativePath;
    const QString signatureFile = m_tree->path(signaturesName) + relativePath;
    QCOMPARE(buildFile.size(), buildSize);
    QCOMPARE(signatureFile.size(), signatureSize);

    m_tree->write(buildName + relativePath, "abc");
    sign(m_tree->path(buildName), m_tree->path(signaturesName));

    QStringList warnings;
    if (buildWarns)
        warnings.append(QStringLiteral("warning: ") + tooLongWarning(buildFile));
    if (signatureWarns)
        warnings.append(QStringLiteral("warning: ") + tooLongWarning(signatureFile));
    QCOMPARE(m_log->takeAll(Category), warnings);
    QCOMPARE(m_tree->read(signaturesName + relativePath), ownSignatureOf(buildFile));
    const QByteArray json = m_tree->read(signaturesName + QStringLiteral("/signatures.json"));
    QVERIFY(json.contains('"' + relativePath.toUtf8() + '"'));
    QVERIFY(json.contains(Sha512OfAbc));
}

void tst_SignaturesController::lengthIsCountedInCodeUnits_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("warns");

    QTest::newRow("more bytes than code units") << text("üüüü") << 1023 << false;
    QTest::newRow("fewer characters than code units")
        << text("\U0001F3AE\U0001F3AE") << 1024 << true;
}

void tst_SignaturesController::lengthIsCountedInCodeUnits()
{
    QFETCH(QString, name);
    QFETCH(int, size);
    QFETCH(bool, warns);

    const QString relativePath = longRelativePath(size - build().size() - name.size()) + name;
    const QString file = build() + relativePath;
    QCOMPARE(file.size(), size);
    m_tree->write(QStringLiteral("build") + relativePath, "abc");
    sign(build(), m_tree->path(QStringLiteral("s")));

    const QStringList warnings = warns ? QStringList(tooLongWarning(file)) : QStringList();
    QCOMPARE(m_log->take(QtWarningMsg, Category), warnings);
}

void tst_SignaturesController::secondRunOverwritesFileByFileAndRemovesNothing()
{
    m_tree->write(QStringLiteral("build/changes"), randomBytes(9000, 2));
    m_tree->write(QStringLiteral("build/folder/goes"), "abc");
    sign();
    const QByteArray stale = m_tree->read(QStringLiteral("signatures/folder/goes"));

    m_tree->write(QStringLiteral("build/changes"), "new");
    m_tree->remove(QStringLiteral("build/folder"));
    sign();

    QCOMPARE(members("relative_path"), QStringList(text("/changes")));
    QCOMPARE(members("sha512"), QStringList(text(Sha512OfNew)));
    QVERIFY(manifest().endsWith("    }\n]\n"));
    QCOMPARE(m_tree->read(QStringLiteral("signatures/changes")),
        ownSignatureOf(build() + QStringLiteral("/changes")));
    QCOMPARE(m_tree->read(QStringLiteral("signatures/folder/goes")), stale);
}

void tst_SignaturesController::manyFiles()
{
    constexpr int Count = 300;
    for (int i = 0; i < Count; ++i)
        m_tree->write(QStringLiteral("build/%1/%2.dat").arg(i % 7).arg(i), QByteArray::number(i));
    sign();

    QCOMPARE(records().size(), Count);
    QCOMPARE(m_progress.size(), Count + 1);
    for (const QJsonObject &record : records()) {
        const QString relativePath = record.value(QLatin1String("relative_path")).toString();
        const QByteArray content = m_tree->read(QStringLiteral("build") + relativePath);
        QCOMPARE(record.value(QLatin1String("sha512")).toString().toLatin1(),
            QCryptographicHash::hash(content, QCryptographicHash::Sha512).toHex());
        QVERIFY2(
            m_tree->exists(QStringLiteral("signatures") + relativePath), qPrintable(relativePath));
    }
}

QTEST_GUILESS_MAIN(tst_SignaturesController)
#include "tst_signaturescontroller.moc"
