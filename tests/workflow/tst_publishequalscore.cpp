// SPDX-License-Identifier: MIT
#include "foldercompare.h"
#include "logcapture.h"
#include "randombuild.h"
#include "testtree.h"

#include <Pellox/deltacontroller.h>
#include <Pellox/patchhelp.h>
#include <Pellox/publishcontroller.h>
#include <Pellox/signaturescontroller.h>

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QtTest>

#include <optional>

using Pellox::DeltaController;
using Pellox::PublishController;
using Pellox::SignaturesController;

namespace {

QString text(const char *utf8)
{
    return QString::fromUtf8(utf8);
}

int numberFromEnvironment(const char *name, int otherwise)
{
    bool isNumber = false;
    const int number = qEnvironmentVariableIntValue(name, &isNumber);
    return isNumber ? number : otherwise;
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be read");
}

/// What the program rdiff makes of an old file and a delta.
QByteArray rebuiltByRdiff(const QString &oldFile, const QString &delta, const QString &output)
{
    QFile::remove(output);
    const QStringList arguments{text("patch"), oldFile, delta, output};
    return QProcess::execute(text(RDIFF_PROGRAM), arguments) == 0 ? contentOf(output)
                                                                  : QByteArray("rdiff failed");
}

/// One step from a build to the next, through the core and through PublishController. The
/// functions return what went wrong, or nothing.
class Comparison
{
public:
    /// Paths relative to @p tree; the core has written @p oldSignatures and @p newSignatures.
    struct Folders
    {
        QString oldBuild;
        QString newBuild;
        QString oldSignatures;
        QString newSignatures;
        QString output; ///< holds all that this step writes
    };

    Comparison(const TestTree &tree, const Folders &folders, const RandomBuild &newFiles,
        const QStringList &ignored)
        : m_tree(tree)
        , m_folders(folders)
        , m_newFiles(newFiles)
    {
        for (const QString &path : ignored)
            m_ignored.append(tree.path(folders.newBuild) + QLatin1Char('/') + path);
        QObject::connect(&m_publisher, &PublishController::publishError, &m_publisher,
            [this](const QString &message) { m_error += message; });
    }

    /// @p step of a series: the numbers of threads change with it. The folders @p reused may hold
    /// an older release.
    QString run(int step, const QString &reused)
    {
        DeltaController core;
        if (!core.createPatch(path(m_folders.newBuild), path(m_folders.oldSignatures), out("core"),
                m_ignored, PROGRESS_CALLBACK()))
            return text("the core fails");
        QString difference = rebuildsTheNewBuild(step % 4 == 0);
        if (difference.isEmpty())
            difference = compareCreateSignatures(step % 3 + 1);
        if (difference.isEmpty())
            difference = compareCreatePatch((step / 3) % 3 + 1);
        if (difference.isEmpty())
            difference = comparePublish(1, out("one"));
        if (difference.isEmpty())
            difference = comparePublish(2, out("two"));
        if (difference.isEmpty())
            difference = comparePublish(3, m_tree.path(reused));
        return difference;
    }

private:
    QString path(const QString &relative) const { return m_tree.path(relative); }
    QString out(const char *name) const
    {
        return m_tree.path(m_folders.output + QLatin1Char('/') + text(name));
    }

    QString compareCreateSignatures(int threads)
    {
        m_publisher.setThreadCount(threads);
        if (!m_publisher.createSignatures(path(m_folders.newBuild), out("signatures")))
            return text("createSignatures fails: ") + m_error;
        return differenceBetween(path(m_folders.newSignatures), out("signatures"));
    }

    QString compareCreatePatch(int threads)
    {
        m_publisher.setThreadCount(threads);
        if (!m_publisher.createPatch(
                path(m_folders.newBuild), path(m_folders.oldSignatures), out("patch"), m_ignored))
            return text("createPatch fails: ") + m_error;
        return differenceBetween(out("core"), out("patch"));
    }

    QString comparePublish(int threads, const QString &output)
    {
        m_publisher.setThreadCount(threads);
        const QString patch = output + text("/patch");
        const QString signatures = output + text("/signatures");
        if (!m_publisher.publish(path(m_folders.newBuild), path(m_folders.oldSignatures), patch,
                signatures, m_ignored))
            return text("publish fails: ") + m_error;
        const QString difference = differenceBetween(out("core"), patch);
        return difference.isEmpty() ? differenceBetween(path(m_folders.newSignatures), signatures)
                                    : difference;
    }

    /// Carries out the rules, so that no equality is one of two wrong results.
    QString rebuildsTheNewBuild(bool alsoByRdiff) const
    {
        RandomBuild visible;
        for (auto file = m_newFiles.cbegin(); file != m_newFiles.cend(); ++file) {
            if (!isHidden(file.key()))
                visible.insert(file.key(), file.value());
        }
        const QJsonArray rules
            = QJsonDocument::fromJson(contentOf(out("core") + text("/patchRules.json"))).array();
        for (const QJsonValue &rule : rules) {
            const QString relative = rule[text("relative_path")].toString();
            const QString name = rule[text("rule")].toString();
            const auto file = visible.constFind(relative.mid(1));
            if ((file == visible.cend()) != (name == text("delete")))
                return text("the rule is wrong for ") + relative;
            if (name == text("copy") && contentOf(out("core") + relative) != file->content)
                return text("the copy is wrong: ") + relative;
            if (name == text("patch") && !rebuilds(relative, file->content, alsoByRdiff))
                return text("the delta is wrong: ") + relative;
        }
        return QString();
    }

    bool rebuilds(const QString &relative, const QByteArray &content, bool alsoByRdiff) const
    {
        const QString oldFile = path(m_folders.oldBuild) + relative;
        const QString delta = out("core") + relative;
        const QString rebuilt = out("rebuilt");
        return Pellox::applyPatch(oldFile, delta, rebuilt, content.size(), nullptr)
            && contentOf(rebuilt) == content
            && (!alsoByRdiff || rebuiltByRdiff(oldFile, delta, rebuilt) == content);
    }

    const TestTree &m_tree;
    const Folders m_folders;
    const RandomBuild m_newFiles;
    QStringList m_ignored; ///< absolute paths
    PublishController m_publisher;
    QString m_error;
};

/// A release of @p seed, forward and back. The way back writes into the folders of the way
/// forward, so that an older release is replaced by one that differs a lot.
QString compareRelease(int seed, RandomSizes sizes)
{
    const RandomRelease release = randomRelease(static_cast<quint64>(seed), sizes);
    const TestTree tree;
    layBuild(release.before, tree.path(text("1.0")));
    layBuild(release.after, tree.path(text("1.1")));
    SignaturesController core;
    core.createSignatures(tree.path(text("1.0")), tree.path(text("signatures of 1.0")));
    core.createSignatures(tree.path(text("1.1")), tree.path(text("signatures of 1.1")));

    Comparison forward(tree,
        {text("1.0"), text("1.1"), text("signatures of 1.0"), text("signatures of 1.1"),
            text("forward")},
        release.after, release.ignored);
    const QString difference = forward.run(seed, text("reused"));
    if (!difference.isEmpty())
        return difference;
    Comparison back(tree,
        {text("1.1"), text("1.0"), text("signatures of 1.1"), text("signatures of 1.0"),
            text("back")},
        release.before, release.ignored);
    return back.run(seed + 1, text("reused"));
}

constexpr int DefaultTrees = 300;

} // namespace

/// Runs over generated releases; PELLOX_TREES says how many (of those with large files a fifth of
/// it) and PELLOX_SEED which is the first.
class tst_PublishEqualsCore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_log.emplace(); }
    void cleanup();

    void releasesOfSmallFiles();
    void releasesWithLargeFiles();

private:
    static void compareReleases(int count, RandomSizes sizes);

    std::optional<LogCapture> m_log;
};

void tst_PublishEqualsCore::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_PublishEqualsCore::compareReleases(int count, RandomSizes sizes)
{
    const int first = numberFromEnvironment("PELLOX_SEED", 1);
    for (int seed = first; seed < first + count; ++seed) {
        const QString difference = compareRelease(seed, sizes);
        const QString message = text("seed %1 (PELLOX_SEED=%1 PELLOX_TREES=1 runs it alone): %2")
                                    .arg(QString::number(seed), difference);
        QVERIFY2(difference.isEmpty(), qPrintable(message));
    }
}

void tst_PublishEqualsCore::releasesOfSmallFiles()
{
    compareReleases(numberFromEnvironment("PELLOX_TREES", DefaultTrees), RandomSizes::Small);
}

void tst_PublishEqualsCore::releasesWithLargeFiles()
{
    compareReleases(
        (numberFromEnvironment("PELLOX_TREES", DefaultTrees) + 4) / 5, RandomSizes::Large);
}

int main(int argc, char **argv)
{
    // QtTest ends a function after five minutes, which is not enough for very many releases.
    if (!qEnvironmentVariableIsSet("QTEST_FUNCTION_TIMEOUT"))
        qputenv("QTEST_FUNCTION_TIMEOUT", QByteArray::number(24 * 60 * 60 * 1000));
    const QCoreApplication application(argc, argv);
    useMemoryForFiles();
    tst_PublishEqualsCore test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_publishequalscore.moc"
