// SPDX-License-Identifier: MIT
#include <Pellox/rules.h>

#include <QtTest>

#include <type_traits>

static_assert(std::is_same_v<decltype(Pellox::PATCH_RULE), const QString>);

class tst_Rules : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void constantHasItsValue_data();
    void constantHasItsValue();
};

void tst_Rules::constantHasItsValue_data()
{
    QTest::addColumn<QString>("constant");
    QTest::addColumn<QByteArray>("value");

    QTest::newRow("patch") << Pellox::PATCH_RULE << QByteArray("patch");
    QTest::newRow("copy") << Pellox::COPY_RULE << QByteArray("copy");
    QTest::newRow("delete") << Pellox::DELETE_RULE << QByteArray("delete");
    QTest::newRow("none") << Pellox::NONE_RULE << QByteArray("none");
    QTest::newRow("signatures") << Pellox::SIGNATURES_FILE << QByteArray("signatures.json");
    QTest::newRow("patch rules") << Pellox::PATCH_RULES_FILE << QByteArray("patchRules.json");
}

void tst_Rules::constantHasItsValue()
{
    QFETCH(QString, constant);
    QFETCH(QByteArray, value);

    QCOMPARE(constant.toUtf8(), value);
}

QTEST_GUILESS_MAIN(tst_Rules)
#include "tst_rules.moc"
