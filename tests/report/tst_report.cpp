// SPDX-License-Identifier: MIT
#include "browser.h"
#include "madeuppatch.h"
#include "patience.h"
#include "testtree.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QRectF>
#include <QTest>
#include <QUrl>
#include <QVector>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

/// A rectangle of the map.
struct Tile
{
    QString path; ///< empty of small files drawn as one
    QString text;
    QString kind; ///< its classes
    QRectF box;
};

double areaOf(const QRectF &box)
{
    return box.width() * box.height();
}

double areaOf(const QVector<Tile> &tiles)
{
    double sum = 0;
    for (const Tile &tile : tiles)
        sum += areaOf(tile.box);
    return sum;
}

} // namespace

/// The report of "pellox inspect" as a person meets it: in a browser.
class tst_Report : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void needsNothingButItself();
    void rectanglesAreInProportion();
    void rectanglesFillTheirFolders();
    void smallFilesAreDrawnAsOne();
    void coloursTellTheRules();
    void sumsAreThoseOfThePatch();

    void addressOpensAFolder_data();
    void addressOpensAFolder();
    void clickGoesIntoAFolder();
    void breadcrumbLeadsBack();
    void tapTellsFirst();
    void pointerShowsDetails();
    void keyboardWalksTheMap();
    void everyControlIsInReachOfTheKeyboard();

    void tableIsSorted_data();
    void tableIsSorted();
    void tableIsFiltered();
    void longTablesGrow();

    void littlePatches_data();
    void littlePatches();
    void manyFiles_data();
    void manyFiles();
    void hostileNamesAreText();
    void brokenNamesHaveAddresses();
    void foreignScriptsAreNotRun();

    void legible_data();
    void legible();
    void narrowWindows();

private:
    QString report(const MadeUpPatch &patch, const QString &folder = QStringLiteral("patch"));
    /// A patch of everything, opened.
    void openExample(const QString &fragment = QString());
    QVector<Tile> tiles();
    Tile tile(const QString &path);
    QRectF box(const QString &selector);
    QString text(const QString &selector);
    QStringList texts(const QString &selector);
    void waitFor(const QString &condition);

    std::unique_ptr<TestTree> m_tree;
    std::unique_ptr<Browser> m_browser;
    bool m_complaintsExpected = false;
};

void tst_Report::initTestCase()
{
    m_browser = std::make_unique<Browser>();
}

void tst_Report::cleanupTestCase()
{
    m_browser.reset();
}

void tst_Report::init()
{
    m_tree = std::make_unique<TestTree>();
    m_browser->resize({1280, 900});
    m_browser->setDark(false);
    m_complaintsExpected = false;
}

void tst_Report::cleanup()
{
    if (!m_complaintsExpected)
        QCOMPARE(m_browser->complaints(), QStringList());
    m_tree.reset();
}

QString tst_Report::report(const MadeUpPatch &patch, const QString &folder)
{
    patch.finish();
    const QString page = m_tree->path(QStringLiteral("report.html"));
    QProcess program;
    program.start(QStringLiteral(PELLOX_PROGRAM),
        {QStringLiteral("inspect"), m_tree->path(folder), QStringLiteral("--html"), page});
    if (!program.waitForFinished(Patience) || program.exitCode() != 0)
        qFatal("no report: %s", program.readAllStandardError().constData());
    return page;
}

void tst_Report::openExample(const QString &fragment)
{
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    patch.patch(QStringLiteral("/game.exe"), 900000, 100000);
    patch.patch(QStringLiteral("/data/world.pak"), 100000, 400000);
    patch.patch(QStringLiteral("/data/levels/caves.map"), 100000, 100000);
    patch.copy(QStringLiteral("/data/levels/tower.map"), 300000);
    patch.copy(QStringLiteral("/data/grüße & co/100%.txt"), 50000);
    patch.copy(QStringLiteral("/readme.txt"), 60000);
    patch.remove(QStringLiteral("/data/levels/old.map"));
    m_browser->open(report(patch), fragment);
}

QVector<Tile> tst_Report::tiles()
{
    QVector<Tile> found;
    const QJsonArray drawn
        = m_browser
              ->evaluate(QStringLiteral(
                  "[...document.querySelectorAll('#map .tile')].map(tile => {"
                  "  const box = tile.getBoundingClientRect();"
                  "  return [tile.dataset.path || '', tile.textContent, tile.className,"
                  "    box.x, box.y, box.width, box.height]; })"))
              .toArray();
    for (const QJsonValue &value : drawn) {
        const QJsonArray tile = value.toArray();
        found.append({tile.at(0).toString(), tile.at(1).toString(), tile.at(2).toString(),
            QRectF(tile.at(3).toDouble(), tile.at(4).toDouble(), tile.at(5).toDouble(),
                tile.at(6).toDouble())});
    }
    return found;
}

Tile tst_Report::tile(const QString &path)
{
    for (const Tile &tile : tiles()) {
        if (tile.path == path)
            return tile;
    }
    return {};
}

QRectF tst_Report::box(const QString &selector)
{
    const QJsonArray edges
        = m_browser
              ->evaluate(QStringLiteral("(() => { const box = document.querySelector(`%1`)"
                                        ".getBoundingClientRect();"
                                        "return [box.x, box.y, box.width, box.height]; })()")
                             .arg(selector))
              .toArray();
    return {edges.at(0).toDouble(), edges.at(1).toDouble(), edges.at(2).toDouble(),
        edges.at(3).toDouble()};
}

QString tst_Report::text(const QString &selector)
{
    return texts(selector).value(0);
}

QStringList tst_Report::texts(const QString &selector)
{
    QStringList found;
    const QJsonValue list = m_browser->evaluate(
        QStringLiteral("[...document.querySelectorAll(`%1`)].map(element => element.textContent)")
            .arg(selector));
    for (const QJsonValue &value : list.toArray())
        found.append(value.toString());
    return found;
}

/// Events such as a change of the address come after the call that causes them.
void tst_Report::waitFor(const QString &condition)
{
    QTRY_VERIFY2_WITH_TIMEOUT(
        m_browser->evaluate(condition).toBool(), qPrintable(condition), Patience);
}

void tst_Report::needsNothingButItself()
{
    openExample();
    const QString url = QString::fromLatin1(
        QUrl::fromLocalFile(m_tree->path(QStringLiteral("report.html"))).toEncoded());
    QCOMPARE(m_browser->requests(), QStringList{url});
    QCOMPARE(m_browser->evaluate(QStringLiteral("document.title")).toString(),
        QStringLiteral("patch – patch report"));
    QCOMPARE(m_browser->evaluate(QStringLiteral("document.compatMode")).toString(),
        QStringLiteral("CSS1Compat"));
}

void tst_Report::rectanglesAreInProportion()
{
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    qint64 bytes = 0;
    for (int i = 1; i <= 20; ++i) {
        patch.copy(QStringLiteral("/file%1").arg(i), 1000 * i * i);
        bytes += 1000 * i * i;
    }
    m_browser->open(report(patch));
    const QVector<Tile> drawn = tiles();
    const QRectF map = box(QStringLiteral("#map"));
    QCOMPARE(drawn.size(), 20);
    QCOMPARE(areaOf(drawn), areaOf(map)); // no gap, no overlap
    for (const Tile &tile : drawn) {
        const int number = tile.path.mid(5).toInt();
        const double expected = 1000.0 * number * number / static_cast<double>(bytes);
        const double share = areaOf(tile.box) / areaOf(map);
        // Edges are on whole pixels.
        const double border = 2 * (tile.box.width() + tile.box.height()) / areaOf(map);
        QVERIFY2(std::abs(share - expected) < border,
            qPrintable(QStringLiteral("%1: %2, not %3").arg(tile.path).arg(share).arg(expected)));
        QVERIFY(map.contains(tile.box));
        const double ratio = tile.box.width() / tile.box.height();
        QVERIFY2(ratio < 4 && ratio > 0.25, qPrintable(tile.path));
    }
}

void tst_Report::rectanglesFillTheirFolders()
{
    openExample();
    const QVector<Tile> drawn = tiles();
    QCOMPARE(drawn.size(), 6);
    for (int i = 0; i < drawn.size(); ++i) {
        for (int j = 0; j < i; ++j)
            QVERIFY(!drawn.at(i).box.intersects(drawn.at(j).box));
    }
    const QRectF levels = box(QStringLiteral("[data-folder=\"/data/levels\"]"));
    const QRectF data = box(QStringLiteral("[data-folder=\"/data\"]"));
    QVERIFY(data.contains(levels));
    QVERIFY(levels.contains(tile(QStringLiteral("/data/levels/tower.map")).box));
    QVERIFY(data.contains(tile(QStringLiteral("/data/world.pak")).box));
    QVERIFY(!data.intersects(tile(QStringLiteral("/game.exe")).box));
    // Within a folder the proportions hold.
    const double ratio = areaOf(tile(QStringLiteral("/data/levels/tower.map")).box)
        / areaOf(tile(QStringLiteral("/data/levels/caves.map")).box);
    QVERIFY2(std::abs(ratio - 3) < 0.1, qPrintable(QString::number(ratio)));
    QVERIFY(text(QStringLiteral("[data-folder=\"/data/levels\"] .label"))
                .startsWith(QLatin1String("levels390.7 KiB")));
}

void tst_Report::smallFilesAreDrawnAsOne()
{
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    patch.copy(QStringLiteral("/huge"), 1000000000);
    for (int i = 0; i < 50; ++i)
        patch.copy(QStringLiteral("/small%1").arg(i), 1000);
    patch.patch(QStringLiteral("/inner/delta"), 1, 100);
    m_browser->open(report(patch));
    QVector<Tile> drawn = tiles();
    const QRectF map = box(QStringLiteral("#map"));
    QCOMPARE(areaOf(drawn), areaOf(map));
    QVERIFY(drawn.size() <= 2);
    QCOMPARE(drawn.first().path, QStringLiteral("/huge"));

    // Where they are more than a speck they are told to be many.
    patch.copy(QStringLiteral("/medium"), 40000000);
    for (int i = 0; i < 3000; ++i)
        patch.copy(QStringLiteral("/dust%1").arg(i), 8000);
    m_browser->open(report(patch));
    drawn = tiles();
    QCOMPARE(areaOf(drawn), areaOf(map));
    QCOMPARE(drawn.size(), 3);
    const auto merged = std::find_if(
        drawn.cbegin(), drawn.cend(), [](const Tile &tile) { return tile.path.isEmpty(); });
    QVERIFY(merged != drawn.cend());
    QVERIFY2(merged->text.startsWith(QLatin1String("3,051 small files")), qPrintable(merged->text));
    QVERIFY(merged->kind.contains(QLatin1String("merged")));
    QVERIFY(merged->kind.contains(QLatin1String("copy-fill")));
}

void tst_Report::coloursTellTheRules()
{
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    const int literals[] = {0, 199, 200, 399, 400, 600, 800, 999, 1000};
    const char *const steps[] = {"p0", "p0", "p1", "p1", "p2", "p3", "p4", "p4", "p4"};
    for (const int literal : literals)
        patch.patch(QStringLiteral("/delta%1").arg(literal), 1000 - literal, literal);
    patch.copy(QStringLiteral("/new"), 1000);
    patch.remove(QStringLiteral("/gone"));
    m_browser->open(report(patch));
    QStringList colours;
    for (int i = 0; i < 9; ++i) {
        const Tile delta = tile(QStringLiteral("/delta%1").arg(literals[i]));
        QVERIFY2(delta.kind.split(QLatin1Char(' ')).contains(QLatin1String(steps[i])),
            qPrintable(delta.kind));
    }
    QVERIFY(tile(QStringLiteral("/new")).kind.contains(QLatin1String("copy-fill")));
    for (const char *kind : {"p0", "p1", "p2", "p3", "p4", "copy-fill"}) {
        colours.append(m_browser
                           ->evaluate(QStringLiteral("getComputedStyle(document.querySelector("
                                                     "'.tile.%1')).backgroundColor")
                                          .arg(QLatin1String(kind)))
                           .toString());
    }
    colours.removeDuplicates();
    QCOMPARE(colours.size(), 6);
    // What is deleted has no bytes, so it is in the table alone.
    QCOMPARE(tile(QStringLiteral("/gone")).path, QString());
    QVERIFY(texts(QStringLiteral("#rows td:first-child")).contains(QStringLiteral("/gone")));
}

void tst_Report::sumsAreThoseOfThePatch()
{
    openExample();
    QCOMPARE(texts(QStringLiteral(".card .much")),
        (QStringList{QStringLiteral("986.4 KiB"), QStringLiteral("586.0 KiB"),
            QStringLiteral("400.4 KiB"), QStringLiteral("1 file")}));
    QCOMPARE(text(QStringLiteral("#lead")),
        QStringLiteral(
            "A patch of 986.4 KiB for 6 new or changed files of 2.0 MiB; 1 file is deleted."));
    QCOMPARE(texts(QStringLiteral("#bar-keys b")),
        (QStringList{
            QStringLiteral("1.0 MiB"), QStringLiteral("585.9 KiB"), QStringLiteral("400.4 KiB")}));
    const QRectF bar = box(QStringLiteral("#bar"));
    QVERIFY(
        std::abs(box(QStringLiteral("#bar .old")).width() / bar.width() - 1100.0 / 2110) < 0.01);
    QCOMPARE(text(QStringLiteral("#count")), QStringLiteral("7 files, 986.4 KiB in the patch"));
}

void tst_Report::addressOpensAFolder_data()
{
    QTest::addColumn<QString>("fragment");
    QTest::addColumn<QString>("folder");
    QTest::addColumn<int>("tiles");
    QTest::addColumn<int>("rows");

    QTest::newRow("none") << QString() << QStringLiteral("/") << 6 << 7;
    QTest::newRow("all") << QStringLiteral("#/") << QStringLiteral("/") << 6 << 7;
    QTest::newRow("folder") << QStringLiteral("#/data") << QStringLiteral("/data") << 4 << 5;
    QTest::newRow("folder in a folder")
        << QStringLiteral("#/data/levels") << QStringLiteral("/data/levels") << 2 << 3;
    QTest::newRow("separator at the end")
        << QStringLiteral("#/data/levels/") << QStringLiteral("/data/levels") << 2 << 3;
    QTest::newRow("odd characters") << QStringLiteral("#/data/gr%C3%BC%C3%9Fe%20%26%20co")
                                    << QStringLiteral("/data/grüße & co") << 1 << 1;
    QTest::newRow("a file") << QStringLiteral("#/data/world.pak") << QStringLiteral("/data") << 4
                            << 5;
    QTest::newRow("nothing there")
        << QStringLiteral("#/nowhere/at/all") << QStringLiteral("/") << 6 << 7;
    QTest::newRow("no address") << QStringLiteral("#%") << QStringLiteral("/") << 6 << 7;
    QTest::newRow("name of an object's member")
        << QStringLiteral("#/__proto__/constructor") << QStringLiteral("/") << 6 << 7;
    QTest::newRow("markup") << QStringLiteral("#/<img src=x onerror=alert(1)>")
                            << QStringLiteral("/") << 6 << 7;
}

void tst_Report::addressOpensAFolder()
{
    QFETCH(QString, fragment);
    QFETCH(QString, folder);
    openExample(fragment);
    const bool isWhole = folder == QLatin1String("/");
    const QVector<Tile> drawn = tiles();
    QTEST(static_cast<int>(drawn.size()), "tiles");
    for (const Tile &tile : drawn)
        QVERIFY(isWhole || tile.path.startsWith(folder + QLatin1Char('/')));
    QTEST(static_cast<int>(texts(QStringLiteral("#rows tr")).size()), "rows");
    QCOMPARE(text(QStringLiteral("#table-title")),
        isWhole ? QStringLiteral("Files") : QStringLiteral("Files in ") + folder);
    const QStringList expected
        = (QStringLiteral("patch") + (isWhole ? QString() : folder)).split(QLatin1Char('/'));
    QCOMPARE(texts(QStringLiteral("#crumbs .part")), expected);
}

void tst_Report::clickGoesIntoAFolder()
{
    openExample();
    // A file of a folder within the folder: one step at a time.
    const QRectF inner = tile(QStringLiteral("/data/levels/tower.map")).box;
    m_browser->click(inner.center().x(), inner.center().y());
    waitFor(QStringLiteral("location.hash === '#/data'"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 4"));
    const QRectF deeper = tile(QStringLiteral("/data/levels/tower.map")).box;
    QVERIFY(areaOf(deeper) > areaOf(inner));
    m_browser->click(deeper.center().x(), deeper.center().y());
    waitFor(QStringLiteral("location.hash === '#/data/levels'"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 2"));

    // A file of the folder itself is told of.
    const QRectF file = tile(QStringLiteral("/data/levels/tower.map")).box;
    m_browser->click(file.center().x(), file.center().y());
    QCOMPARE(text(QStringLiteral("#facts")),
        QStringLiteral("/data/levels/tower.map (new, whole): in the patch 293.0 KiB · share of "
                       "the patch 29.7 % · new file 293.0 KiB"));
    QCOMPARE(m_browser->evaluate(QStringLiteral("location.hash")).toString(),
        QStringLiteral("#/data/levels"));

    m_browser->evaluate(QStringLiteral("history.back()"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 4"));

    // The label of a folder leads to that folder, at any depth.
    openExample();
    const QRectF label = box(QStringLiteral("[data-folder=\"/data/levels\"] .label"));
    m_browser->click(label.center().x(), label.center().y());
    waitFor(QStringLiteral("location.hash === '#/data/levels'"));
}

void tst_Report::breadcrumbLeadsBack()
{
    openExample(QStringLiteral("#/data/levels"));
    const QRectF crumb = box(QStringLiteral("#crumbs .part:nth-child(2) a"));
    m_browser->click(crumb.center().x(), crumb.center().y());
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 4"));
    m_browser->evaluate(QStringLiteral("document.querySelector('#crumbs a').click()"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 6"));
}

void tst_Report::tapTellsFirst()
{
    openExample();
    const QRectF world = tile(QStringLiteral("/data/world.pak")).box;
    m_browser->tap(world.center().x(), world.center().y());
    waitFor(QStringLiteral(
        "document.querySelector('#facts').textContent.startsWith('/data/world.pak')"));
    QCOMPARE(m_browser->evaluate(QStringLiteral("location.hash")).toString(), QString());
    m_browser->tap(world.center().x(), world.center().y());
    waitFor(QStringLiteral("location.hash === '#/data'"));
}

void tst_Report::pointerShowsDetails()
{
    openExample();
    QVERIFY(m_browser->evaluate(QStringLiteral("document.querySelector('#tip').hidden")).toBool());
    const QRectF game = tile(QStringLiteral("/game.exe")).box;
    m_browser->moveTo(game.center().x(), game.center().y());
    waitFor(QStringLiteral("!document.querySelector('#tip').hidden"));
    QCOMPARE(
        text(QStringLiteral("#tip .title")), QStringLiteral("/game.exe (changed, as a delta)"));
    QCOMPARE(texts(QStringLiteral("#tip dt, #tip dd")),
        (QStringList{QStringLiteral("In the patch"), QStringLiteral("97.7 KiB"),
            QStringLiteral("Share of the patch"), QStringLiteral("9.9 %"),
            QStringLiteral("New file"), QStringLiteral("976.6 KiB"), QStringLiteral("New bytes"),
            QStringLiteral("97.7 KiB, 10.0 %"), QStringLiteral("From the old file"),
            QStringLiteral("878.9 KiB, 90.0 %"), QStringLiteral("Commands"), QStringLiteral("2")}));
    const QRectF tip = box(QStringLiteral("#tip"));
    QVERIFY(QRectF(0, 0, 1280, 900).contains(tip));
    m_browser->moveTo(2, 2);
    waitFor(QStringLiteral("document.querySelector('#tip').hidden"));
}

void tst_Report::keyboardWalksTheMap()
{
    openExample();
    m_browser->evaluate(QStringLiteral("document.querySelector('#map').focus()"));
    const auto current = [this] {
        return m_browser
            ->evaluate(QStringLiteral("(document.querySelector('.at') || {dataset: {}})"
                                      ".dataset.path || ''"))
            .toString();
    };
    QCOMPARE(current(), QString());
    m_browser->press(QStringLiteral("ArrowRight"));
    const QString first = current();
    QVERIFY(!first.isEmpty());
    QVERIFY(text(QStringLiteral("#facts")).startsWith(first));

    // Arrows lead to every tile, each in its direction.
    QStringList reached{first};
    const QStringList arrows{QStringLiteral("ArrowDown"), QStringLiteral("ArrowRight"),
        QStringLiteral("ArrowUp"), QStringLiteral("ArrowLeft")};
    QRandomGenerator random(1);
    for (int step = 0; step < 200 && reached.size() < 6; ++step) {
        const QPointF before = tile(current()).box.center();
        const int direction = random.bounded(4);
        m_browser->press(arrows.at(direction));
        const QPointF way = tile(current()).box.center() - before;
        if (!way.isNull()) {
            const double ahead = direction % 2 == 0 ? way.y() : way.x();
            QVERIFY(direction < 2 ? ahead > 0 : ahead < 0);
        }
        if (!reached.contains(current()))
            reached.append(current());
    }
    QCOMPARE(reached.size(), 6);

    for (int step = 0; step < 20 && !current().startsWith(QLatin1String("/data/")); ++step)
        m_browser->press(arrows.at(step % 4));
    QVERIFY(current().startsWith(QLatin1String("/data/")));
    m_browser->press(QStringLiteral("Enter"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 4"));
    QCOMPARE(
        m_browser->evaluate(QStringLiteral("location.hash")).toString(), QStringLiteral("#/data"));
    QCOMPARE(m_browser->evaluate(QStringLiteral("document.activeElement.id")).toString(),
        QStringLiteral("map"));
    m_browser->press(QStringLiteral("Home"));
    QCOMPARE(current(), tiles().first().path);
    m_browser->press(QStringLiteral("Escape"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 6"));
    m_browser->press(QStringLiteral("Escape")); // nowhere to go
    QCOMPARE(tiles().size(), 6);
}

void tst_Report::everyControlIsInReachOfTheKeyboard()
{
    openExample(QStringLiteral("#/data"));
    QStringList reached;
    for (int i = 0; i < 30; ++i) {
        m_browser->press(QStringLiteral("Tab"));
        const QString name = m_browser
                                 ->evaluate(QStringLiteral(
                                     "(element => element.id || element.textContent.trim() ||"
                                     " element.parentNode.textContent)(document.activeElement)"))
                                 .toString();
        if (!reached.contains(name))
            reached.append(name);
    }
    for (const char *name : {"patch", "map", "filter", "copy", "delete", "File", "Rule",
             "In the patch", "New file", "New bytes", "From the old", "Share new", "Commands"})
        QVERIFY2(reached.contains(QLatin1String(name)), qPrintable(reached.join(QLatin1Char('|'))));
}

void tst_Report::tableIsSorted_data()
{
    QTest::addColumn<int>("column");
    QTest::addColumn<QString>("first");
    QTest::addColumn<QString>("last");
    QTest::addColumn<bool>("ascending");

    const QString gone = QStringLiteral("/data/levels/old.map");
    QTest::newRow("file") << 1 << QStringLiteral("/data/grüße & co/100%.txt")
                          << QStringLiteral("/readme.txt") << true;
    QTest::newRow("rule") << 2 << QStringLiteral("/data/levels/caves.map") << gone << true;
    QTest::newRow("new file") << 4 << QStringLiteral("/game.exe") << gone << false;
    QTest::newRow("new bytes") << 5 << QStringLiteral("/data/world.pak") << gone << false;
    QTest::newRow("from the old") << 6 << QStringLiteral("/game.exe") << QString() << false;
    QTest::newRow("share new") << 7 << QString() << gone << false;
}

void tst_Report::tableIsSorted()
{
    QFETCH(int, column);
    QFETCH(QString, first);
    QFETCH(QString, last);
    QFETCH(bool, ascending);
    openExample();
    const QString firstColumn = QStringLiteral("#rows td:first-child");
    const auto order = [this](int at) {
        return m_browser
            ->evaluate(QStringLiteral("document.querySelectorAll('#heads th')[%1]"
                                      ".getAttribute('aria-sort')")
                           .arg(at - 1))
            .toString();
    };
    QCOMPARE(order(3), QStringLiteral("descending"));
    QCOMPARE(texts(firstColumn).first(), QStringLiteral("/data/world.pak"));

    const QString button = QStringLiteral("#heads th:nth-child(%1) button").arg(column);
    m_browser->evaluate(QStringLiteral("document.querySelector('%1').click()").arg(button));
    QCOMPARE(order(column), ascending ? QStringLiteral("ascending") : QStringLiteral("descending"));
    QCOMPARE(order(3), QString());
    QStringList files = texts(firstColumn);
    if (!first.isEmpty())
        QCOMPARE(files.first(), first);
    if (!last.isEmpty())
        QCOMPARE(files.last(), last);

    m_browser->evaluate(QStringLiteral("document.querySelector('%1').click()").arg(button));
    QCOMPARE(order(column), ascending ? QStringLiteral("descending") : QStringLiteral("ascending"));
    files = texts(firstColumn);
    if (!last.isEmpty() && column != 5)
        QCOMPARE(files.first(), last);
}

void tst_Report::tableIsFiltered()
{
    openExample();
    m_browser->evaluate(QStringLiteral("document.querySelector('#filter').focus()"));
    for (const char letter : {'M', 'a', 'P'})
        m_browser->press(QString(QLatin1Char(letter)));
    QCOMPARE(texts(QStringLiteral("#rows td:first-child")),
        (QStringList{QStringLiteral("/data/levels/tower.map"),
            QStringLiteral("/data/levels/caves.map"), QStringLiteral("/data/levels/old.map")}));
    QCOMPARE(text(QStringLiteral("#count")), QStringLiteral("3 files, 390.7 KiB in the patch"));
    int dim = 0;
    for (const Tile &tile : tiles())
        dim += tile.kind.contains(QLatin1String("dim")) ? 1 : 0;
    QCOMPARE(dim, 4);

    const QString boxes = QStringLiteral("document.querySelectorAll('#rules input')[%1].click()");
    m_browser->evaluate(boxes.arg(1)); // copy
    m_browser->evaluate(boxes.arg(2)); // delete
    QCOMPARE(texts(QStringLiteral("#rows td:first-child")),
        QStringList{QStringLiteral("/data/levels/caves.map")});
    m_browser->evaluate(boxes.arg(2));
    QCOMPARE(texts(QStringLiteral("#rows tr")).size(), 2);

    // It stays as it is in another folder.
    m_browser->evaluate(QStringLiteral("location.hash = '#/data'"));
    waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 4"));
    QCOMPARE(texts(QStringLiteral("#rows tr")).size(), 2);
}

void tst_Report::longTablesGrow()
{
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    for (int i = 0; i < 1500; ++i)
        patch.copy(QStringLiteral("/file%1").arg(i), 1000 + i);
    m_browser->open(report(patch));
    const QString rows = QStringLiteral("#rows tr");
    QCOMPARE(texts(rows).size(), 200);
    QVERIFY(text(QStringLiteral("#count")).endsWith(QLatin1String("; the first 200 are shown")));
    QCOMPARE(text(QStringLiteral("#more")), QStringLiteral("Show 1,000 more"));
    const QString more = QStringLiteral("document.querySelector('#more').click()");
    m_browser->evaluate(more);
    QCOMPARE(texts(rows).size(), 1200);
    QCOMPARE(text(QStringLiteral("#more")), QStringLiteral("Show 300 more"));
    m_browser->evaluate(more);
    QCOMPARE(texts(rows).size(), 1500);
    QVERIFY(m_browser->evaluate(QStringLiteral("document.querySelector('#more').hidden")).toBool());
    QStringList files = texts(rows);
    QCOMPARE(files.removeDuplicates(), 0);
}

void tst_Report::littlePatches_data()
{
    QTest::addColumn<QString>("content");
    QTest::addColumn<QString>("lead");
    QTest::addColumn<int>("tiles");
    QTest::addColumn<int>("rows");

    QTest::newRow("nothing") << QString()
                             << QStringLiteral("This patch has no rules: it changes nothing.") << 0
                             << 0;
    QTest::newRow("one delta") << QStringLiteral(
        "patch") << QStringLiteral("A patch of 131 bytes for 1 new or changed file of 200 bytes.")
                               << 1 << 1;
    QTest::newRow("one new file") << QStringLiteral(
        "copy") << QStringLiteral("A patch of 1 byte for 1 new or changed file of 1 byte.")
                                  << 1 << 1;
    QTest::newRow("one empty file")
        << QStringLiteral("empty")
        << QStringLiteral("A patch of 0 bytes for 1 new or changed file of 0 bytes.") << 0 << 1;
    QTest::newRow("one deleted file")
        << QStringLiteral("delete") << QStringLiteral("This patch deletes 1 file and brings none.")
        << 0 << 1;
    QTest::newRow("one file, deep down")
        << QStringLiteral("deep")
        << QStringLiteral("A patch of 9 bytes for 1 new or changed file of 9 bytes.") << 1 << 1;
}

void tst_Report::littlePatches()
{
    QFETCH(QString, content);
    QFETCH(QString, lead);
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    if (content == QLatin1String("patch"))
        patch.patch(QStringLiteral("/file"), 100, 100);
    else if (content == QLatin1String("copy"))
        patch.copy(QStringLiteral("/file"), 1);
    else if (content == QLatin1String("empty"))
        patch.copy(QStringLiteral("/file"), 0);
    else if (content == QLatin1String("delete"))
        patch.remove(QStringLiteral("/file"));
    else if (content == QLatin1String("deep"))
        patch.copy(QStringLiteral("/a/b/c/file"), 9);
    m_browser->open(report(patch));
    QCOMPARE(text(QStringLiteral("#lead")), lead);
    QTEST(static_cast<int>(tiles().size()), "tiles");
    QTEST(static_cast<int>(texts(QStringLiteral("#rows tr")).size()), "rows");
    QCOMPARE(text(QStringLiteral("#map .nothing")).isEmpty(), tiles().size() == 1);
    if (content == QLatin1String("deep"))
        QCOMPARE(text(QStringLiteral(".folder .label bdi")), QStringLiteral("a/b/c"));

    // Keys do no harm where there is little to move to.
    m_browser->evaluate(QStringLiteral("document.querySelector('#map').focus()"));
    for (const char *key : {"ArrowDown", "ArrowUp", "Home", "Enter", "Escape"})
        m_browser->press(QLatin1String(key));
}

void tst_Report::manyFiles_data()
{
    QTest::addColumn<bool>("alike");
    QTest::newRow("all of one size in one folder") << true;
    QTest::newRow("of all sizes in many folders") << false;
}

void tst_Report::manyFiles()
{
    QFETCH(bool, alike);
    constexpr int Count = 20000;
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    for (int i = 0; i < Count; ++i) {
        if (alike)
            patch.copy(QStringLiteral("/data/file%1").arg(i), 4096);
        else
            patch.copy(QStringLiteral("/data/d%1/e%2/file%3").arg(i % 40).arg(i % 7).arg(i),
                100 + (i % 1000) * (i % 1000));
    }
    m_browser->open(report(patch));
    const QVector<Tile> drawn = tiles();
    QVERIFY2(
        drawn.size() > 1500 && drawn.size() <= Count, qPrintable(QString::number(drawn.size())));
    const double covered = areaOf(drawn) / areaOf(box(QStringLiteral("#map")));
    QVERIFY2(covered > 0.6 && covered <= 1, qPrintable(QString::number(covered)));
    QVERIFY(text(QStringLiteral("#count")).startsWith(QLatin1String("20,000 files")));
    QCOMPARE(texts(QStringLiteral("#rows tr")).size(), 200);
}

void tst_Report::hostileNamesAreText()
{
    const QStringList names{
        QStringLiteral("/</script><script>window.hacked = 1</script>"),
        QStringLiteral("/</script><img src=x onerror=\"window.hacked = 1\">"),
        QStringLiteral("/<svg onload=window.hacked=1>.pak"),
        QStringLiteral("/\"><iframe srcdoc='<script>parent.hacked=1<"),
        QStringLiteral("/<!--<script>"),
        QStringLiteral("/'); window.hacked = 1; ('"),
        QStringLiteral("/${window.hacked = 1}"),
        QStringLiteral("/`; window.hacked = 1; `"),
        QStringLiteral("/javascript:window.hacked=1"),
        QStringLiteral("/__proto__/constructor"),
        QStringLiteral("/constructor/__proto__"),
        QStringLiteral("/@DATA@ @SCRIPT@ @STYLE_HASH@"),
        QStringLiteral("/line\nbreak\tand \\u003cb>"),
        QStringLiteral("/\u2028\u202efdp.exe"),
        QStringLiteral("/&lt;b&gt;&amp;"),
    };
    const QString folder = QStringLiteral("<img src=x onerror=window.hacked=1>");
    MadeUpPatch patch(m_tree->path(folder));
    for (const QString &name : names)
        patch.copy(name, 1000);
    m_browser->open(report(patch, folder));

    QStringList rows = texts(QStringLiteral("#rows td:first-child"));
    QStringList drawn;
    for (const Tile &tile : tiles())
        drawn.append(tile.path);
    QStringList expected = names;
    for (QStringList *list : {&rows, &drawn, &expected})
        list->sort();
    QCOMPARE(rows, expected);
    QCOMPARE(drawn, expected);
    QCOMPARE(text(QStringLiteral("#name")), folder);

    // Every one of them is pointed at, and gone into where it is a folder.
    m_browser->evaluate(QStringLiteral("document.querySelector('#map').focus()"));
    for (const Tile &tile : tiles()) {
        m_browser->moveTo(tile.box.center().x(), tile.box.center().y());
        QVERIFY(text(QStringLiteral("#tip .title")).startsWith(tile.path));
    }
    for (const QString &label : texts(QStringLiteral("[data-folder]")))
        QVERIFY(!label.isEmpty());
    const QJsonArray folders
        = m_browser
              ->evaluate(QStringLiteral(
                  "[...document.querySelectorAll('[data-folder]')].map(e => e.dataset.folder)"))
              .toArray();
    QVERIFY(folders.size() > 3);
    for (const QJsonValue &path : folders) {
        m_browser->evaluate(QStringLiteral("location.hash = '#/'"));
        waitFor(QStringLiteral("document.querySelectorAll('#map .tile').length === 15"));
        m_browser->evaluate(
            QStringLiteral("[...document.querySelectorAll('[data-folder]')]"
                           ".find(e => e.dataset.folder === decodeURIComponent('%1')).click()")
                .arg(QString::fromLatin1(QUrl::toPercentEncoding(path.toString()))));
        waitFor(QStringLiteral("document.querySelector('#table-title').textContent "
                               "=== 'Files in ' + decodeURIComponent('%1')")
                    .arg(QString::fromLatin1(
                        QUrl::toPercentEncoding(path.toString(), QByteArray(), "'"))));
    }

    QVERIFY(m_browser->evaluate(QStringLiteral("window.hacked === undefined")).toBool());
    QCOMPARE(m_browser
                 ->evaluate(QStringLiteral("document.querySelectorAll('img, svg, iframe, b b')"
                                           ".length"))
                 .toInt(),
        0);
    QCOMPARE(
        m_browser->evaluate(QStringLiteral("document.querySelectorAll('script').length")).toInt(),
        2);
    QCOMPARE(m_browser->requests().size(), 1);
}

/// Half of a pair of surrogates is no character, but JSON can hold it and so can a name.
void tst_Report::brokenNamesHaveAddresses()
{
    const QChar half(0xd800);
    const QChar otherHalf(0xdc0a);
    const QStringList folders{QString(half) + QLatin1Char('a'), QString(otherHalf) + half,
        QStringLiteral("~d800"), QStringLiteral("~~d800a"), QStringLiteral("whole \U0001f3ae")};
    // The program that makes patches refuses such names, so the page is given its data as it is.
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    for (int i = 0; i < folders.size(); ++i)
        patch.copy(QStringLiteral("/%1%1%1%1/file").arg(i), 1000 * (i + 1));
    const QString page = report(patch, QStringLiteral("patch"));
    QFile file(page);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QByteArray html = file.readAll();
    for (int i = 0; i < folders.size(); ++i) {
        QByteArray name;
        for (const QChar character : folders.at(i))
            name += "\\u" + QByteArray::number(character.unicode(), 16).rightJustified(4, '0');
        html.replace(QByteArray(4, static_cast<char>('0' + i)) + "/file", name + "/file");
    }
    QVERIFY(file.seek(0) && file.resize(0) && file.write(html) == html.size());
    file.close();
    m_browser->open(page);

    QCOMPARE(texts(QStringLiteral("#rows tr")).size(), folders.size());
    const QString count = QStringLiteral("document.querySelectorAll('#rows tr').length");
    for (int i = 0; i < folders.size(); ++i) {
        m_browser->evaluate(QStringLiteral("location.hash = '#/'"));
        waitFor(count + QStringLiteral(" === %1").arg(folders.size()));
        // The largest comes first.
        m_browser->evaluate(QStringLiteral("document.querySelectorAll('#rows a')[%1].click()")
                                .arg(folders.size() - 1 - i));
        waitFor(count + QLatin1String(" === 1"));
        QStringList codes;
        for (const QChar character : folders.at(i))
            codes.append(QString::number(character.unicode()));
        waitFor(QStringLiteral("[...document.querySelector('#table-title').textContent.slice("
                               "'Files in /'.length).split('')].map(c => c.charCodeAt(0)).join()"
                               " === '%1'")
                    .arg(codes.join(QLatin1Char(','))));
    }
}

void tst_Report::foreignScriptsAreNotRun()
{
    openExample();
    m_complaintsExpected = true; // the browser tells what it has refused
    m_browser->evaluate(QStringLiteral(
        "document.body.insertAdjacentHTML('beforeend', '<img src=x onerror=\"window.hacked=1\">"
        "<iframe src=\"javascript:parent.hacked=1\"></iframe>');"
        "const script = document.createElement('script'); script.textContent = 'hacked = 1';"
        "document.body.append(script);"
        "fetch('file:///etc/hostname').then(() => { window.hacked = 1; }, () => {})"));
    m_browser->evaluate(QStringLiteral("new Promise(done => setTimeout(done, 300))"));
    // These come when they may; each answer brings those that are there.
    const auto hasComplained = [&] {
        m_browser->evaluate(QStringLiteral("0"));
        return !m_browser->complaints().isEmpty();
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasComplained(), Patience);
    QVERIFY(m_browser->evaluate(QStringLiteral("window.hacked === undefined")).toBool());
    for (const QString &complaint : m_browser->complaints())
        QVERIFY2(
            complaint.contains(QLatin1String("Content Security Policy")), qPrintable(complaint));
}

void tst_Report::legible_data()
{
    QTest::addColumn<bool>("dark");
    QTest::newRow("light") << false;
    QTest::newRow("dark") << true;
}

void tst_Report::legible()
{
    QFETCH(bool, dark);
    m_browser->setDark(dark);
    MadeUpPatch patch(m_tree->path(QStringLiteral("patch")));
    for (int i = 0; i < 5; ++i)
        patch.patch(QStringLiteral("/delta%1.pak").arg(i), 10000 - 1900 * i, 10000 * i + 1500);
    patch.copy(QStringLiteral("/data/new.pak"), 40000);
    patch.remove(QStringLiteral("/gone"));
    m_browser->open(report(patch));
    // All text against what is behind it, by the formula of WCAG 2: at least 4.5 to 1.
    const QJsonArray poor
        = m_browser
              ->evaluate(QStringLiteral(
                  "(() => {"
                  "  const numbers = colour => colour.match(/[0-9.]+/g).map(Number);"
                  "  const over = (top, below) => { const a = top.length > 3 ? top[3] : 1;"
                  "    return [0, 1, 2].map(i => top[i] * a + below[i] * (1 - a)); };"
                  "  const luminance = rgb => { const [r, g, b] = rgb.map(v => v / 255)"
                  "    .map(v => v <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);"
                  "    return 0.2126 * r + 0.7152 * g + 0.0722 * b; };"
                  "  const behind = element => { if (!element) return [255, 255, 255];"
                  "    const own = numbers(getComputedStyle(element).backgroundColor);"
                  "    return own[3] === 0 ? behind(element.parentElement)"
                  "      : over(own, behind(element.parentElement)); };"
                  "  const poor = []; let checked = 0;"
                  "  const walk = document.createTreeWalker(document.querySelector('main'), 4);"
                  "  while (walk.nextNode()) {"
                  "    const element = walk.currentNode.parentElement;"
                  "    if (!walk.currentNode.textContent.trim() || !element.checkVisibility()) "
                  "      continue;"
                  "    const below = behind(element);"
                  "    const ink = numbers(getComputedStyle(element).color);"
                  "    const opacity = Number(getComputedStyle(element).opacity);"
                  "    const [x, y] = [over([...ink.slice(0, 3), opacity], below), below]"
                  "      .map(luminance);"
                  "    const contrast = (Math.max(x, y) + 0.05) / (Math.min(x, y) + 0.05);"
                  "    ++checked;"
                  "    if (contrast < 4.5) poor.push(element.className + ' '"
                  "      + walk.currentNode.textContent + ': ' + contrast.toFixed(2)); }"
                  "  return [checked, ...poor]; })()"))
              .toArray();
    QVERIFY2(poor.at(0).toInt() > 60, qPrintable(QString::number(poor.at(0).toInt())));
    QStringList texts;
    for (const QJsonValue &value : poor)
        texts.append(value.toString());
    QCOMPARE(texts.mid(1).join(QLatin1Char('\n')), QString());
    const QJsonValue page = m_browser->evaluate(
        QStringLiteral("Number(getComputedStyle(document.body).backgroundColor.match(/\\d+/)[0])"));
    QCOMPARE(page.toInt() < 128, dark);
}

void tst_Report::narrowWindows()
{
    openExample();
    const double wide = box(QStringLiteral("#map")).width();
    m_browser->resize({400, 800});
    waitFor(QStringLiteral("document.querySelector('#map').clientWidth < 400"));
    // The map is drawn anew to fit.
    QTRY_COMPARE_WITH_TIMEOUT(tiles().size(), 6, Patience);
    waitFor(QStringLiteral("[...document.querySelectorAll('.tile')].every(tile => "
                           "tile.offsetLeft + tile.offsetWidth <= "
                           "document.querySelector('#map').clientWidth)"));
    QVERIFY(box(QStringLiteral("#map")).width() < wide);
    // Nothing but the table scrolls sideways.
    QVERIFY(
        m_browser->evaluate(QStringLiteral("document.documentElement.scrollWidth <= innerWidth"))
            .toBool());
}

QTEST_GUILESS_MAIN(tst_Report)
#include "tst_report.moc"
