// SPDX-License-Identifier: MIT
#include "logcapture.h"

#include <Pellox/utils.h>

#include <QTest>

#include <memory>

using namespace PelloxMor;

namespace {

/// A path of @p size code units that begins with @p start.
QString pathOf(int size, const QString &start = QStringLiteral("/"))
{
    return start + QString(size - start.size(), QLatin1Char('x'));
}

const QString Emoji = QStringLiteral("😀"); // a surrogate pair: two code units

} // namespace

class tst_Utils : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void pathForLongName_data();
    void pathForLongName();
    void pathIsTooLong_data();
    void pathIsTooLong();
    void warning_data();
    void warning();
    void nothingIsLogged();

private:
    std::unique_ptr<LogCapture> m_log;
};

void tst_Utils::init()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_Utils::cleanup()
{
    QCOMPARE(m_log->troubleLeft(), QStringList());
    m_log.reset();
}

void tst_Utils::pathForLongName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("result");

    const QString x1021(1021, QLatin1Char('x'));
    const QString x1022(1022, QLatin1Char('x'));
    const QString x1023(1023, QLatin1Char('x'));

    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("short") << QStringLiteral("C:/games/game") << QStringLiteral("C:/games/game");
    QTest::newRow("short, with backslashes")
        << QStringLiteral("C:\\games\\game") << QStringLiteral("C:\\games\\game");
    QTest::newRow("1022") << QLatin1Char('/') + x1021 << QLatin1Char('/') + x1021;
    QTest::newRow("1023") << QLatin1Char('/') + x1022 << QStringLiteral("\\\\?\\\\") + x1022;
    QTest::newRow("1024") << QLatin1Char('/') + x1023 << QStringLiteral("\\\\?\\\\") + x1023;

    QTest::newRow("every slash") << QStringLiteral("C:/a/b//") + x1022
            + QLatin1Char('/') << QStringLiteral("\\\\?\\C:\\a\\b\\\\") + x1022 + QLatin1Char('\\');
    QTest::newRow("nothing but slashes") << QString(
        1023, QLatin1Char('/')) << QStringLiteral("\\\\?\\") + QString(1023, QLatin1Char('\\'));
    QTest::newRow("no slash") << x1023 << QStringLiteral("\\\\?\\") + x1023;
    QTest::newRow("backslashes stay")
        << QStringLiteral("C:\\a/") + x1022 << QStringLiteral("\\\\?\\C:\\a\\") + x1022;
    QTest::newRow("long, prefix is there already")
        << QStringLiteral("\\\\?\\C:\\") + x1022 << QStringLiteral("\\\\?\\\\\\?\\C:\\") + x1022;
    QTest::newRow("short, prefix is there already")
        << QStringLiteral("\\\\?\\C:\\a/b") << QStringLiteral("\\\\?\\C:\\a/b");

    QTest::newRow("1022 with a surrogate pair")
        << QLatin1Char('/') + Emoji + x1021.mid(2) << QLatin1Char('/') + Emoji + x1021.mid(2);
    QTest::newRow("1023 with a surrogate pair") << QLatin1Char('/') + Emoji
            + x1022.mid(2) << QStringLiteral("\\\\?\\\\") + Emoji + x1022.mid(2);
}

void tst_Utils::pathForLongName()
{
    QFETCH(QString, path);
    QTEST(Utils::getFilePathForLongName(path), "result");
}

void tst_Utils::pathIsTooLong_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("tooLong");

    QTest::newRow("empty") << QString() << false;
    QTest::newRow("short") << QStringLiteral("C:/games/game") << false;
    QTest::newRow("1022") << pathOf(1022) << false;
    QTest::newRow("1023") << pathOf(1023) << false;
    QTest::newRow("1024") << pathOf(1024) << true;
    QTest::newRow("1025") << pathOf(1025) << true;
    QTest::newRow("very long") << pathOf(100000) << true;
    QTest::newRow("1023 in UTF-16, 1025 in UTF-8") << pathOf(1023, Emoji) << false;
    QTest::newRow("1024 in UTF-16, 1023 characters") << pathOf(1024, Emoji) << true;
    QTest::newRow("512 surrogate pairs") << Emoji.repeated(512) << true;
    QTest::newRow("511 surrogate pairs") << Emoji.repeated(511) << false;
    QTest::newRow("1023 umlauts") << QStringLiteral("ü").repeated(1023) << false;
}

void tst_Utils::pathIsTooLong()
{
    QFETCH(QString, path);
    QTEST(Utils::checkFilePathIsTooLong(path), "tooLong");
}

void tst_Utils::warning_data()
{
    QTest::addColumn<QString>("path");

    QTest::newRow("short") << QStringLiteral("C:/games/game");
    QTest::newRow("empty") << QString();
    QTest::newRow("1024") << pathOf(1024);
    QTest::newRow("placeholders") << QStringLiteral("/a/%1/%2/%n");
    QTest::newRow("quotes and backslashes") << QStringLiteral("\\a\\\"b\"");
    QTest::newRow("not ASCII") << QStringLiteral("/grüße/😀");
    QTest::newRow("line break at its end") << QStringLiteral("/a\n");
}

void tst_Utils::warning()
{
    QFETCH(QString, path);
    QCOMPARE(Utils::createTooLongFilePathWarning(path),
        QStringLiteral("\nWarning! File path length exceeds the operating system limit (1023 "
                       "symbols).\nWe recommend moving the game folder and shipwright utility "
                       "closer to the root of the disk.\nPath: ")
            + path);
}

void tst_Utils::nothingIsLogged()
{
    Utils::getFilePathForLongName(pathOf(1024));
    Utils::checkFilePathIsTooLong(pathOf(1024));
    Utils::createTooLongFilePathWarning(pathOf(1024));
    for (const char *category :
        {"default", "BinariesController", "DeltaController", "SignaturesController", "PatchHelper"})
        QCOMPARE(m_log->takeAll(category), QStringList());
}

QTEST_GUILESS_MAIN(tst_Utils)
#include "tst_utils.moc"
