// SPDX-License-Identifier: MIT
#include "sevenzip.h"

#include "outputparsers.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QTextCodec>

QString SevenZip::programPath()
{
    return QCoreApplication::applicationDirPath() + QLatin1String("/7zr");
}

QString SevenZip::startFailure()
{
    return QStringLiteral("Failed to start. Check is 7z exist");
}

QString SevenZip::decode(const QByteArray &chunk)
{
    const QTextCodec *codec = QTextCodec::codecForName("IBM 866");
    const QByteArray latin1
        = (codec ? codec->toUnicode(chunk) : QString::fromLatin1(chunk)).toLatin1();
    return QString::fromUtf8(latin1.constData());
}

QList<int> SevenZip::percentages(const QString &chunk)
{
    QList<int> percentages;
    for (const QString &line : strip(chunk).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        percentages.append(line.section(QLatin1Char('%'), 0, 0).trimmed().toInt());
    return percentages;
}

QString SevenZip::passwordSwitch(const QString &password)
{
    return QStringLiteral("-p'%1'").arg(password);
}
