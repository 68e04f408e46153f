// SPDX-License-Identifier: MIT
#include "logcapture.h"
#include "testtree.h"

#include <Pellox/BinariesController>
#include <Pellox/DeltaController>
#include <Pellox/loglevel.h>
#include <Pellox/patchhelp.h>
#include <Pellox/SignaturesController>
#include <Pellox/trace.h>

#include <QLoggingCategory>
#include <QtConcurrent>
#include <QTest>

#include <librsync.h>

#include <climits>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <dlfcn.h>

static_assert(std::is_convertible_v<Pellox::loglevel, int>, "the enumeration is unscoped");
static_assert(std::is_same_v<decltype(&Pellox::trace), void (*)(Pellox::loglevel, const char *)>);
static_assert(std::is_same_v<decltype(&Pellox::setRsyncLogLevel), void (*)(Pellox::loglevel)>);
static_assert(std::is_same_v<decltype(&Pellox::setRsyncLogOutput),
    void (*)(void (*)(Pellox::loglevel, const char *))>);

namespace {

std::vector<int> s_levelsSet;
std::vector<rs_trace_fn_t *> s_sinksSet;

template <typename Function> Function *librsyncs(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The program's own definitions come before librsync's: they note what the library hands over.

extern "C" void rs_trace_set_level(rs_loglevel level)
{
    s_levelsSet.push_back(static_cast<int>(level));
    librsyncs<void(rs_loglevel)>("rs_trace_set_level")(level);
}

extern "C" void rs_trace_to(rs_trace_fn_t *sink)
{
    s_sinksSet.push_back(sink);
    librsyncs<void(rs_trace_fn_t *)>("rs_trace_to")(sink);
}

namespace {

const QString BinariesCategory = QStringLiteral("BinariesController");

struct Message
{
    int level;
    QByteArray text;
};
QList<Message> s_messages;

void keepMessage(Pellox::loglevel level, const char *text)
{
    s_messages.append({static_cast<int>(level), QByteArray(text)});
}

QList<int> levelsOf(const QList<Message> &messages)
{
    QList<int> levels;
    for (const Message &message : messages)
        levels.append(message.level);
    return levels;
}

rs_trace_fn_t *asRsyncSink(void (*sink)(Pellox::loglevel, const char *))
{
    return reinterpret_cast<rs_trace_fn_t *>(sink);
}

struct SeenCategory
{
    int count = 0;
    bool debug = false;
    bool info = false;
    bool warning = false;
    bool critical = false;
};
QMap<QString, SeenCategory> s_categories;
QLoggingCategory::CategoryFilter s_previousFilter = nullptr;

void noteCategory(QLoggingCategory *category)
{
    s_previousFilter(category);
    SeenCategory &seen = s_categories[QString::fromLatin1(category->categoryName())];
    ++seen.count;
    seen.debug = category->isDebugEnabled();
    seen.info = category->isInfoEnabled();
    seen.warning = category->isWarningEnabled();
    seen.critical = category->isCriticalEnabled();
}

/// What Qt knows of each logging category that exists by now.
QMap<QString, SeenCategory> registeredCategories()
{
    s_categories.clear();
    // The filter is run on every registered category as it is installed, but the one that was
    // there must come first, and its address is known only then.
    s_previousFilter = [](QLoggingCategory *) {};
    s_previousFilter = QLoggingCategory::installFilter(noteCategory);
    s_categories.clear();
    QLoggingCategory::installFilter(noteCategory);
    const QMap<QString, SeenCategory> seen = s_categories;
    QLoggingCategory::installFilter(s_previousFilter);
    return seen;
}

} // namespace

class tst_Trace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void levelsAreNumberedLikeSyslog_data();
    void levelsAreNumberedLikeSyslog();

    void writesOneDebugLine_data();
    void writesOneDebugLine();
    void levelOutOfRangeIsPrintedAsItIs_data();
    void levelOutOfRangeIsPrintedAsItIs();
    void obeysTheLoggingRules_data();
    void obeysTheLoggingRules();
    void mayBeCalledFromManyThreads();

    void outputIsHandedToLibrsyncUnchanged();
    void noOutputSilencesLibrsync();
    void levelIsHandedToLibrsyncUnchanged_data();
    void levelIsHandedToLibrsyncUnchanged();
    void onlyMessagesOfTheLevelOrMoreSevereAreReported_data();
    void onlyMessagesOfTheLevelOrMoreSevereAreReported();

    void deltaPrimitivesLeaveLibrsyncsOutputAlone();
    void controllerInstallsTrace();
    void secondControllerInstallsTraceAgain();
    void destroyedControllerLeavesTraceInstalled();
    void libraryNeverSetsTheLevel();

    void everyCategoryExistsWithAllLevelsOn_data();
    void everyCategoryExistsWithAllLevelsOn();
    void categoryAnswersToItsName_data();
    void categoryAnswersToItsName();

private:
    QString path(const char *relative) const { return m_tree->path(QLatin1String(relative)); }
    /// Makes librsync report at error level: the signature has no magic number.
    void provokeDiagnostic() const;
    void provokeDebugLineOf(const QString &category) const;

    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<LogCapture> m_log;
};

void tst_Trace::init()
{
    m_tree = std::make_unique<TestTree>();
    m_tree->write(QStringLiteral("not a signature"), "This is no librsync signature.");
    m_tree->write(QStringLiteral("new"), "new content");
    m_log = std::make_unique<LogCapture>();
    s_messages.clear();
    s_levelsSet.clear();
    s_sinksSet.clear();
}

void tst_Trace::cleanup()
{
    librsyncs<void(rs_trace_fn_t *)>("rs_trace_to")(rs_trace_stderr);
    librsyncs<void(rs_loglevel)>("rs_trace_set_level")(RS_LOG_INFO);
    QLoggingCategory::setFilterRules(QString());
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
    m_tree.reset();
}

void tst_Trace::provokeDiagnostic() const
{
    QVERIFY(!Pellox::createDelta(path("not a signature"), path("new"), path("delta")));
}

void tst_Trace::levelsAreNumberedLikeSyslog_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("number");

    QTest::newRow("emergency") << int(Pellox::LOGLEVEL_EMERG) << 0;
    QTest::newRow("alert") << int(Pellox::LOGLEVEL_ALERT) << 1;
    QTest::newRow("critical") << int(Pellox::LOGLEVEL_CRIT) << 2;
    QTest::newRow("error") << int(Pellox::LOGLEVEL_ERR) << 3;
    QTest::newRow("warning") << int(Pellox::LOGLEVEL_WARNING) << 4;
    QTest::newRow("notice") << int(Pellox::LOGLEVEL_NOTICE) << 5;
    QTest::newRow("info") << int(Pellox::LOGLEVEL_INFO) << 6;
    QTest::newRow("debug") << int(Pellox::LOGLEVEL_DEBUG) << 7;
}

void tst_Trace::levelsAreNumberedLikeSyslog()
{
    QFETCH(int, level);
    QTEST(level, "number");
}

void tst_Trace::writesOneDebugLine_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QByteArray>("message"); // null: a null pointer
    QTest::addColumn<QString>("line");

    QTest::newRow("plain text") << 7 << QByteArray("abc") << QStringLiteral("level:  7  msg:  abc");
    QTest::newRow("lowest level") << 0 << QByteArray("abc")
                                  << QStringLiteral("level:  0  msg:  abc");
    QTest::newRow("null text") << 6 << QByteArray() << QStringLiteral("level:  6  msg:  ");
    QTest::newRow("empty text") << 6 << QByteArray("") << QStringLiteral("level:  6  msg:  ");
    QTest::newRow("UTF-8") << 4
                           << QByteArray("gr\xc3\xbc\xc3\x9f"
                                         "e \xe2\x82\xac \xf0\x9f\x98\x80")
                           << QStringLiteral("level:  4  msg:  grüße € 😀");
    QTest::newRow("not UTF-8") << 4
                               << QByteArray("gr\xfc\xdf"
                                             "e")
                               << QStringLiteral("level:  4  msg:  gr\uFFFD\uFFFDe");
    QTest::newRow("quotes and backslash")
        << 3 << QByteArray("\"a\\b\"") << QStringLiteral("level:  3  msg:  \"a\\b\"");
    QTest::newRow("blanks at both ends")
        << 3 << QByteArray(" a ") << QStringLiteral("level:  3  msg:   a ");
    QTest::newRow("line break") << 3 << QByteArray("a\nb\n")
                                << QStringLiteral("level:  3  msg:  a\nb\n");
    QTest::newRow("percent signs")
        << 3 << QByteArray("%1 %s %n") << QStringLiteral("level:  3  msg:  %1 %s %n");
}

void tst_Trace::writesOneDebugLine()
{
    QFETCH(int, level);
    QFETCH(QByteArray, message);
    QFETCH(QString, line);
    const char *text = message.isNull() ? nullptr : message.constData();
    Pellox::trace(static_cast<Pellox::loglevel>(level), text);
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList(QLatin1String("debug: ") + line));
}

void tst_Trace::levelOutOfRangeIsPrintedAsItIs_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("line");

    QTest::newRow("one above") << 8 << QStringLiteral("level:  8  msg:  abc");
    QTest::newRow("one below") << -1 << QStringLiteral("level:  -1  msg:  abc");
    QTest::newRow("highest") << INT_MAX << QStringLiteral("level:  2147483647  msg:  abc");
    QTest::newRow("lowest") << INT_MIN << QStringLiteral("level:  -2147483648  msg:  abc");
}

void tst_Trace::levelOutOfRangeIsPrintedAsItIs()
{
    QFETCH(int, level);
    QFETCH(QString, line);
    Pellox::trace(static_cast<Pellox::loglevel>(level), "abc");
    QCOMPARE(m_log->take(QtDebugMsg, "BinariesController"), QStringList(line));
}

void tst_Trace::obeysTheLoggingRules_data()
{
    QTest::addColumn<QString>("rules");
    QTest::addColumn<bool>("emitted");

    QTest::newRow("no rules") << QString() << true;
    QTest::newRow("debug of the category off")
        << QStringLiteral("BinariesController.debug=false") << false;
    QTest::newRow("the category off") << QStringLiteral("BinariesController=false") << false;
    QTest::newRow("all debug off") << QStringLiteral("*.debug=false") << false;
    QTest::newRow("all debug off but the category's")
        << QStringLiteral("*.debug=false\nBinariesController.debug=true") << true;
    QTest::newRow("info of the category off")
        << QStringLiteral("BinariesController.info=false") << true;
    QTest::newRow("warning and critical of the category off")
        << QStringLiteral("BinariesController.warning=false\nBinariesController.critical=false")
        << true;
    QTest::newRow("the other categories off")
        << QStringLiteral("DeltaController=false\nSignaturesController=false\nPatchHelper=false")
        << true;
}

void tst_Trace::obeysTheLoggingRules()
{
    QFETCH(QString, rules);
    QFETCH(bool, emitted);
    QLoggingCategory::setFilterRules(rules);
    Pellox::trace(Pellox::LOGLEVEL_EMERG, "abc");
    QCOMPARE(m_log->takeAll("BinariesController"),
        emitted ? QStringList(QStringLiteral("debug: level:  0  msg:  abc")) : QStringList());
}

void tst_Trace::mayBeCalledFromManyThreads()
{
    QList<int> numbers;
    QStringList expected;
    for (int number = 0; number < 500; ++number) {
        numbers.append(number);
        expected.append(QStringLiteral("level:  7  msg:  line %1").arg(number));
    }
    QtConcurrent::blockingMap(numbers, [](const int &number) {
        Pellox::trace(Pellox::LOGLEVEL_DEBUG, ("line " + QByteArray::number(number)).constData());
    });
    QStringList lines = m_log->take(QtDebugMsg, "BinariesController");
    lines.sort();
    expected.sort();
    QCOMPARE(lines, expected);
}

void tst_Trace::outputIsHandedToLibrsyncUnchanged()
{
    Pellox::setRsyncLogOutput(keepMessage);
    Pellox::setRsyncLogOutput(Pellox::trace);
    Pellox::setRsyncLogOutput(nullptr);
    Pellox::setRsyncLogOutput(keepMessage);
    QCOMPARE(s_sinksSet,
        (std::vector<rs_trace_fn_t *>{asRsyncSink(keepMessage), asRsyncSink(Pellox::trace), nullptr,
            asRsyncSink(keepMessage)}));

    provokeDiagnostic();
    QVERIFY(!s_messages.isEmpty());
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());
}

void tst_Trace::noOutputSilencesLibrsync()
{
    Pellox::setRsyncLogOutput(keepMessage);
    Pellox::setRsyncLogOutput(nullptr);
    provokeDiagnostic();
    QVERIFY(s_messages.isEmpty());
}

void tst_Trace::levelIsHandedToLibrsyncUnchanged_data()
{
    QTest::addColumn<int>("level");

    for (int level = 0; level <= 7; ++level)
        QTest::addRow("level %d", level) << level;
    QTest::newRow("one above") << 8;
    QTest::newRow("one below") << -1;
}

void tst_Trace::levelIsHandedToLibrsyncUnchanged()
{
    QFETCH(int, level);
    Pellox::setRsyncLogLevel(static_cast<Pellox::loglevel>(level));
    QCOMPARE(s_levelsSet, std::vector<int>{level});
}

void tst_Trace::onlyMessagesOfTheLevelOrMoreSevereAreReported_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<bool>("errors");
    QTest::addColumn<bool>("infos");

    QTest::newRow("emergency") << int(Pellox::LOGLEVEL_EMERG) << false << false;
    QTest::newRow("alert") << int(Pellox::LOGLEVEL_ALERT) << false << false;
    QTest::newRow("critical") << int(Pellox::LOGLEVEL_CRIT) << false << false;
    QTest::newRow("error") << int(Pellox::LOGLEVEL_ERR) << true << false;
    QTest::newRow("warning") << int(Pellox::LOGLEVEL_WARNING) << true << false;
    QTest::newRow("notice") << int(Pellox::LOGLEVEL_NOTICE) << true << false;
    QTest::newRow("info") << int(Pellox::LOGLEVEL_INFO) << true << true;
    QTest::newRow("debug") << int(Pellox::LOGLEVEL_DEBUG) << true << true;
}

void tst_Trace::onlyMessagesOfTheLevelOrMoreSevereAreReported()
{
    QFETCH(int, level);
    Pellox::setRsyncLogOutput(keepMessage);
    Pellox::setRsyncLogLevel(static_cast<Pellox::loglevel>(level));

    provokeDiagnostic();
    const rs_stats_t statistics{};
    rs_log_stats(&statistics); // librsync's report at level info

    const QList<int> levels = levelsOf(s_messages);
    QTEST(levels.contains(3), "errors");
    QTEST(levels.contains(6), "infos");
    for (const int reported : levels)
        QVERIFY(reported <= level);
}

void tst_Trace::deltaPrimitivesLeaveLibrsyncsOutputAlone()
{
    librsyncs<void(rs_trace_fn_t *)>("rs_trace_to")(asRsyncSink(keepMessage));
    QVERIFY(Pellox::createSignature(path("new"), path("signature")));
    QVERIFY(Pellox::createDelta(path("signature"), path("new"), path("delta")));
    QVERIFY(Pellox::applyPatch(path("new"), path("delta"), path("patched"), 11, nullptr));
    Pellox::trace(Pellox::LOGLEVEL_ERR, "abc");
    provokeDiagnostic();

    QVERIFY(s_sinksSet.empty());
    QVERIFY(!s_messages.isEmpty());
    QCOMPARE(m_log->takeAll("BinariesController"),
        QStringList(QStringLiteral("debug: level:  3  msg:  abc")));
}

void tst_Trace::controllerInstallsTrace()
{
    Pellox::setRsyncLogOutput(keepMessage);
    provokeDiagnostic();
    QStringList expected;
    for (const Message &message : std::as_const(s_messages)) {
        QCOMPARE(message.level, 3);
        expected.append(
            QStringLiteral("debug: level:  3  msg:  ") + QString::fromUtf8(message.text));
    }
    QVERIFY(!expected.isEmpty());

    s_sinksSet.clear();
    const Pellox::BinariesController controller;
    QCOMPARE(s_sinksSet, std::vector<rs_trace_fn_t *>{asRsyncSink(Pellox::trace)});
    provokeDiagnostic();
    QCOMPARE(m_log->takeAll("BinariesController"), expected);
}

void tst_Trace::secondControllerInstallsTraceAgain()
{
    const Pellox::BinariesController first;
    Pellox::setRsyncLogOutput(keepMessage);
    Pellox::setRsyncLogLevel(Pellox::LOGLEVEL_ERR);
    provokeDiagnostic();
    QVERIFY(!s_messages.isEmpty());
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());

    s_messages.clear();
    s_sinksSet.clear();
    s_levelsSet.clear();
    const Pellox::BinariesController second;
    QCOMPARE(s_sinksSet, std::vector<rs_trace_fn_t *>{asRsyncSink(Pellox::trace)});
    QVERIFY(s_levelsSet.empty());
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());

    provokeDiagnostic();
    QVERIFY(s_messages.isEmpty());
    QVERIFY(!m_log->take(QtDebugMsg, "BinariesController").isEmpty());
}

void tst_Trace::destroyedControllerLeavesTraceInstalled()
{
    std::make_unique<Pellox::BinariesController>().reset();
    QCOMPARE(s_sinksSet, std::vector<rs_trace_fn_t *>{asRsyncSink(Pellox::trace)});
    provokeDiagnostic();
    QVERIFY(!m_log->take(QtDebugMsg, "BinariesController").isEmpty());
}

void tst_Trace::libraryNeverSetsTheLevel()
{
    m_tree->write(QStringLiteral("build/file"), "old content");
    const Pellox::BinariesController client;
    Pellox::SignaturesController signatures;
    signatures.createSignatures(path("build"), path("signatures"));
    m_tree->write(QStringLiteral("build/file"), "new content");
    Pellox::DeltaController delta;
    QVERIFY(delta.createPatch(path("build"), path("signatures"), path("patch"), QStringList()));
    provokeDiagnostic();
    QVERIFY(s_levelsSet.empty());
}

void tst_Trace::provokeDebugLineOf(const QString &category) const
{
    const QString missing = path("missing/file");
    if (category == BinariesCategory)
        Pellox::trace(Pellox::LOGLEVEL_ERR, "abc");
    else if (category == QLatin1String("DeltaController"))
        Pellox::DeltaController().createPatch(
            path("missing"), path("missing"), path("patch"), QStringList());
    else if (category == QLatin1String("SignaturesController"))
        Pellox::SignaturesController().createSignatures(path("missing"), path("new/folder"));
    else
        Pellox::createSignature(missing, missing);
}

void tst_Trace::everyCategoryExistsWithAllLevelsOn_data()
{
    QTest::addColumn<QString>("category");

    QTest::newRow("client") << BinariesCategory;
    QTest::newRow("patch creation") << QStringLiteral("DeltaController");
    QTest::newRow("signatures") << QStringLiteral("SignaturesController");
    QTest::newRow("delta primitives") << QStringLiteral("PatchHelper");
}

void tst_Trace::everyCategoryExistsWithAllLevelsOn()
{
    QFETCH(QString, category);
    const SeenCategory seen = registeredCategories().value(category);
    QCOMPARE(seen.count, 1);
    QVERIFY(seen.debug);
    QVERIFY(seen.info);
    QVERIFY(seen.warning);
    QVERIFY(seen.critical);
}

void tst_Trace::categoryAnswersToItsName_data()
{
    everyCategoryExistsWithAllLevelsOn_data();
}

void tst_Trace::categoryAnswersToItsName()
{
    QFETCH(QString, category);
    const QByteArray name = category.toLatin1();
    const QString off = category + QLatin1String(".debug=false");

    provokeDebugLineOf(category);
    QVERIFY(!m_log->take(QtDebugMsg, name.constData()).isEmpty());

    QLoggingCategory::setFilterRules(off);
    provokeDebugLineOf(category);
    QCOMPARE(m_log->takeAll(name.constData()), QStringList());

    QLoggingCategory::setFilterRules(off.toLower());
    provokeDebugLineOf(category);
    QVERIFY(!m_log->take(QtDebugMsg, name.constData()).isEmpty());
}

QTEST_GUILESS_MAIN(tst_Trace)
#include "tst_trace.moc"
