// SPDX-License-Identifier: MIT
#include "literals.h"
#include "logcapture.h"
#include "patience.h"

#include <Pellox/RulesExecutorFunctor>

#include <QException>
#include <QMutex>
#include <QSemaphore>
#include <QSet>
#include <QtConcurrent>
#include <QTest>
#include <QThread>
#include <QThreadPool>

#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>

namespace {

using RuleFunction = std::function<bool(const QVariant &)>;

QVariantList numbers(int count)
{
    QVariantList rules;
    for (int i = 0; i < count; ++i)
        rules.append(QVariantMap{{"number"_s, i}});
    return rules;
}

int numberOf(const QVariant &rule)
{
    return rule.toMap().value("number"_s).toInt();
}

class RuleException : public QException
{
public:
    explicit RuleException(int number)
        : m_number(number)
    {
    }
    int number() const { return m_number; }
    void raise() const override { throw *this; }
    RuleException *clone() const override { return new RuleException(*this); }

private:
    int m_number;
};

} // namespace

class tst_RulesExecutorFunctor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();

    void resultTypeIsBool();
    void aRuleThatSucceedsIsNotLogged();
    void functionGetsTheRuleAsItIs();
    void aRuleThatFailsIsLoggedAsCompactJson_data();
    void aRuleThatFailsIsLoggedAsCompactJson();
    void withoutFunctionTheRuleIsLoggedAsCompactJson_data();
    void withoutFunctionTheRuleIsLoggedAsCompactJson();
    void withoutFunctionEveryRuleFails();
    void copiesWorkOnTheirOwn();

    void everyFormKeepsTheOrderOfTheRules_data();
    void everyFormKeepsTheOrderOfTheRules();
    void everyFormRunsEachRuleOnce_data();
    void everyFormRunsEachRuleOnce();
    void everyFormEndsAtOnceWithoutRules_data();
    void everyFormEndsAtOnceWithoutRules();
    void everyFormPassesOnExceptions_data();
    void everyFormPassesOnExceptions();
    void orderDoesNotDependOnWhichRuleEndsFirst_data();
    void orderDoesNotDependOnWhichRuleEndsFirst();
    void mappedReturnsBeforeTheRulesHaveRun();
    void mappedRunsOnPoolThreads();

    void oneFunctorServesSeveralThreadsAtOnce();
    void aDirectCallPassesOnAnyException();

private:
    std::optional<LogCapture> m_log;
    int m_poolSize = 0;
};

namespace {

/// The three ways in which a rule list is run.
enum Form { Mapped, BlockingMapped, BlockingMappedReduced };

void addForms()
{
    QTest::addColumn<int>("form");
    QTest::newRow("mapped") << static_cast<int>(Mapped);
    QTest::newRow("blockingMapped") << static_cast<int>(BlockingMapped);
    QTest::newRow("blockingMappedReduced") << static_cast<int>(BlockingMappedReduced);
}

QList<bool> run(int form, const QVariantList &rules, const RuleFunction &function)
{
    const RulesExecutorFunctor functor(function);
    if (form == Mapped) {
        QFuture<bool> future = QtConcurrent::mapped(rules, functor);
        future.waitForFinished();
        return future.results();
    }
    if (form == BlockingMapped)
        return QtConcurrent::blockingMapped(rules, functor);
    return QtConcurrent::blockingMappedReduced<QList<bool>>(
        rules, functor, QtPrivate::PushBackWrapper(), QtConcurrent::OrderedReduce);
}

/// Records and how each is printed: JSON in double quotes, with a backslash before each
/// quote and backslash in it.
void addRecords()
{
    QTest::addColumn<QVariant>("rule");
    QTest::addColumn<QString>("printed");

    QTest::newRow("one member") << QVariant(QVariantMap{{"rule"_s, "copy"_s}})
                                << R"("{\"rule\":\"copy\"}")"_s;
    QTest::newRow("patch rule")
        << QVariant(QVariantMap{{"rule"_s, "patch"_s}, {"relative_path"_s, "/data/x.pak"_s},
               {"sha512"_s, "00ff"_s}, {"file_size"_s, Q_INT64_C(5000000000)}})
        << R"("{\"file_size\":5000000000,\"relative_path\":\"/data/x.pak\",)"_s
            + R"(\"rule\":\"patch\",\"sha512\":\"00ff\"}")"_s;
    QTest::newRow("quotes") << QVariant(QVariantMap{{"relative_path"_s, R"(/a "b")"_s}})
                            << R"("{\"relative_path\":\"/a \\\"b\\\"\"}")"_s;
    QTest::newRow("backslash") << QVariant(QVariantMap{{"relative_path"_s, R"(\a)"_s}})
                               << R"("{\"relative_path\":\"\\\\a\"}")"_s;
    QTest::newRow("line break") << QVariant(QVariantMap{{"relative_path"_s, "/a\nb"_s}})
                                << R"("{\"relative_path\":\"/a\\nb\"}")"_s;
    QTest::newRow("non-ASCII") << QVariant(QVariantMap{{"relative_path"_s, "/Größe"_s}})
                               << R"("{\"relative_path\":\"/Gr\xC3\xB6\xC3\x9F""e\"}")"_s;
    QTest::newRow("no members") << QVariant(QVariantMap()) << R"("{}")"_s;
    QTest::newRow("a list") << QVariant(QVariantList{1, "two"_s, true})
                            << R"("[1,\"two\",true]")"_s;
    QTest::newRow("plain text") << QVariant("delete"_s) << R"("")"_s;
    QTest::newRow("invalid") << QVariant() << R"("")"_s;
}

} // namespace

void tst_RulesExecutorFunctor::init()
{
    m_log.emplace();
    m_poolSize = QThreadPool::globalInstance()->maxThreadCount();
    QThreadPool::globalInstance()->setMaxThreadCount(4);
}

void tst_RulesExecutorFunctor::cleanup()
{
    QThreadPool::globalInstance()->waitForDone();
    QThreadPool::globalInstance()->setMaxThreadCount(m_poolSize);
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_RulesExecutorFunctor::resultTypeIsBool()
{
    QVERIFY((std::is_same_v<RulesExecutorFunctor::result_type, bool>));
}

void tst_RulesExecutorFunctor::aRuleThatSucceedsIsNotLogged()
{
    RulesExecutorFunctor functor([](const QVariant &) { return true; });
    QCOMPARE(functor(QVariantMap{{"rule"_s, "copy"_s}}), true);
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());
}

void tst_RulesExecutorFunctor::functionGetsTheRuleAsItIs()
{
    const QVariant rule = QVariantMap{{"rule"_s, "patch"_s}, {"file_size"_s, 12}};
    QVariant got;
    RulesExecutorFunctor functor([&got](const QVariant &given) {
        got = given;
        return true;
    });
    functor(rule);
    QCOMPARE(got, rule);
    QCOMPARE(got.userType(), static_cast<int>(QMetaType::QVariantMap));
}

void tst_RulesExecutorFunctor::aRuleThatFailsIsLoggedAsCompactJson_data()
{
    addRecords();
}

void tst_RulesExecutorFunctor::aRuleThatFailsIsLoggedAsCompactJson()
{
    QFETCH(QVariant, rule);
    QFETCH(QString, printed);

    RulesExecutorFunctor functor([](const QVariant &) { return false; });
    QCOMPARE(functor(rule), false);
    QCOMPARE(m_log->takeAll("BinariesController"),
        QStringList("critical: Failed apply rule "_s + printed));
}

void tst_RulesExecutorFunctor::withoutFunctionTheRuleIsLoggedAsCompactJson_data()
{
    addRecords();
}

void tst_RulesExecutorFunctor::withoutFunctionTheRuleIsLoggedAsCompactJson()
{
    QFETCH(QVariant, rule);
    QFETCH(QString, printed);

    RulesExecutorFunctor functor{RuleFunction()};
    QCOMPARE(functor(rule), false);
    QCOMPARE(m_log->takeAll("BinariesController"),
        QStringList("critical: Can't found rule execute function "_s + printed));
}

void tst_RulesExecutorFunctor::withoutFunctionEveryRuleFails()
{
    QCOMPARE(run(BlockingMapped, numbers(3), RuleFunction()), QList<bool>({false, false, false}));

    QStringList lines = m_log->takeAll("BinariesController");
    lines.sort();
    const QStringList expected{
        R"(critical: Can't found rule execute function "{\"number\":0}")"_s,
        R"(critical: Can't found rule execute function "{\"number\":1}")"_s,
        R"(critical: Can't found rule execute function "{\"number\":2}")"_s,
    };
    QCOMPARE(lines, expected);
}

void tst_RulesExecutorFunctor::copiesWorkOnTheirOwn()
{
    std::optional<RulesExecutorFunctor> original(
        std::in_place, [kept = "kept"_s](const QVariant &rule) { return rule == kept; });
    RulesExecutorFunctor copy(*original);
    RulesExecutorFunctor assigned{RuleFunction()};
    assigned = *original;
    original.reset();

    QCOMPARE(copy("kept"_s), true);
    QCOMPARE(assigned("kept"_s), true);
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());
}

void tst_RulesExecutorFunctor::everyFormKeepsTheOrderOfTheRules_data()
{
    addForms();
}

void tst_RulesExecutorFunctor::everyFormKeepsTheOrderOfTheRules()
{
    QFETCH(int, form);

    const auto isNotThird = [](const QVariant &rule) { return numberOf(rule) % 3 != 2; };
    const QList<bool> results = run(form, numbers(300), isNotThird);
    QCOMPARE(results.size(), 300);
    for (int i = 0; i < results.size(); ++i)
        QCOMPARE(results.at(i), i % 3 != 2);
    QCOMPARE(m_log->take(QtCriticalMsg, "BinariesController").size(), 100);
}

void tst_RulesExecutorFunctor::everyFormRunsEachRuleOnce_data()
{
    addForms();
}

void tst_RulesExecutorFunctor::everyFormRunsEachRuleOnce()
{
    QFETCH(int, form);

    QMutex mutex;
    QList<int> ran;
    run(form, numbers(200), [&](const QVariant &rule) {
        const QMutexLocker lock(&mutex);
        ran.append(numberOf(rule));
        return true;
    });

    std::sort(ran.begin(), ran.end());
    QCOMPARE(ran.size(), 200);
    for (int i = 0; i < ran.size(); ++i)
        QCOMPARE(ran.at(i), i);
}

void tst_RulesExecutorFunctor::everyFormEndsAtOnceWithoutRules_data()
{
    addForms();
}

void tst_RulesExecutorFunctor::everyFormEndsAtOnceWithoutRules()
{
    QFETCH(int, form);

    bool called = false;
    const QList<bool> results
        = run(form, {}, [&called](const QVariant &) { return called = true; });
    QCOMPARE(results, QList<bool>());
    QVERIFY(!called);
}

void tst_RulesExecutorFunctor::everyFormPassesOnExceptions_data()
{
    addForms();
}

void tst_RulesExecutorFunctor::everyFormPassesOnExceptions()
{
    QFETCH(int, form);

    int caught = 0;
    try {
        run(form, numbers(8), [](const QVariant &rule) -> bool {
            if (numberOf(rule) == 5)
                throw RuleException(5);
            return true;
        });
    } catch (const RuleException &exception) {
        caught = exception.number();
    }
    QCOMPARE(caught, 5);
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());
}

void tst_RulesExecutorFunctor::orderDoesNotDependOnWhichRuleEndsFirst_data()
{
    addForms();
}

void tst_RulesExecutorFunctor::orderDoesNotDependOnWhichRuleEndsFirst()
{
    QFETCH(int, form);

    QSemaphore lastHasEnded;
    const QList<bool> results = run(form, numbers(3), [&](const QVariant &rule) {
        if (numberOf(rule) == 0)
            return lastHasEnded.tryAcquire(1, Patience);
        if (numberOf(rule) == 2)
            lastHasEnded.release();
        return numberOf(rule) != 1;
    });
    QCOMPARE(results, QList<bool>({true, false, true}));
    const QStringList lines{R"(Failed apply rule "{\"number\":1}")"_s};
    QCOMPARE(m_log->take(QtCriticalMsg, "BinariesController"), lines);
}

void tst_RulesExecutorFunctor::mappedReturnsBeforeTheRulesHaveRun()
{
    QSemaphore go;
    const RuleFunction waitForGo = [&go](const QVariant &) { return go.tryAcquire(1, Patience); };
    QFuture<bool> future = QtConcurrent::mapped(numbers(2), RulesExecutorFunctor(waitForGo));
    QVERIFY(!future.isFinished());
    QCOMPARE(future.resultCount(), 0);

    go.release(2);
    future.waitForFinished();
    QCOMPARE(future.results(), QList<bool>({true, true}));
}

void tst_RulesExecutorFunctor::mappedRunsOnPoolThreads()
{
    QMutex mutex;
    QSet<QThread *> threads;
    run(Mapped, numbers(50), [&](const QVariant &) {
        const QMutexLocker lock(&mutex);
        threads.insert(QThread::currentThread());
        return true;
    });
    QVERIFY(!threads.isEmpty());
    QVERIFY(!threads.contains(QThread::currentThread()));
    QVERIFY(threads.size() <= 4);
}

void tst_RulesExecutorFunctor::oneFunctorServesSeveralThreadsAtOnce()
{
    // Each rule waits until the other one runs too, so both must be inside at the same time.
    QSemaphore inside[2];
    const QList<bool> results = run(BlockingMapped, numbers(2), [&inside](const QVariant &rule) {
        const int number = numberOf(rule);
        inside[number].release();
        return inside[1 - number].tryAcquire(1, Patience);
    });
    QCOMPARE(results, QList<bool>({true, true}));
}

void tst_RulesExecutorFunctor::aDirectCallPassesOnAnyException()
{
    RulesExecutorFunctor functor(
        [](const QVariant &) -> bool { throw std::runtime_error("no such rule"); });
    QVERIFY_EXCEPTION_THROWN(functor(QVariantMap()), std::runtime_error);
    QCOMPARE(m_log->takeAll("BinariesController"), QStringList());
}

QTEST_GUILESS_MAIN(tst_RulesExecutorFunctor)

#include "tst_rulesexecutorfunctor.moc"
