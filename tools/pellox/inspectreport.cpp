// SPDX-License-Identifier: MIT
#include "inspectreport.h"

#include "patchsums.h"

#include <Pellox/rules.h>

#include <QCryptographicHash>
#include <QDate>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using Pellox::InspectedFile;

namespace {

QByteArray resource(const char *name)
{
    QFile file(QLatin1String(":/report/") + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("report: cannot read %s", name);
    return file.readAll();
}

/// In the order in which the page numbers them.
int ruleNumber(const QString &rule)
{
    return rule == Pellox::PATCH_RULE ? 0 : rule == Pellox::COPY_RULE ? 1 : 2;
}

QByteArray reportData(const QString &name, const QVector<InspectedFile> &files)
{
    QJsonArray rows;
    for (const InspectedFile &file : files) {
        QJsonArray row{ruleNumber(file.rule), file.relativePath, file.newSize, file.patchBytes,
            file.copiedBytes, file.literalBytes, file.commands};
        if (isMoved(file)) {
            const int kind = file.isMoved ? 0 : file.isOldEstimated ? 2 : 1;
            row.append(shownPath(file.oldPath));
            row.append(file.oldBytes);
            row.append(kind);
        }
        rows.append(row);
    }
    const QJsonObject data{{QStringLiteral("name"), name},
        {QStringLiteral("date"), QDate::currentDate().toString(Qt::ISODate)},
        {QStringLiteral("program"), QStringLiteral("pellox inspect " PELLOX_VERSION)},
        {QStringLiteral("files"), rows}};
    // In HTML a "<" could end the script element that holds this; in JSON it is within a text.
    return QJsonDocument(data).toJson(QJsonDocument::Compact).replace('<', "\\u003c");
}

/// What the page's own policy admits a script or style by.
QByteArray hashOf(const QByteArray &text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Sha256).toBase64();
}

/// The page up to the first variable part: what reports are known by.
QByteArray beginning()
{
    const QByteArray page = resource("report.html");
    return page.left(page.indexOf('@'));
}

} // namespace

QByteArray inspectReport(const QString &name, const QVector<InspectedFile> &files)
{
    const QByteArray style = resource("report.css");
    const QByteArray script = resource("report.js");
    QByteArray page = resource("report.html");
    page.replace("@STYLE_HASH@", hashOf(style));
    page.replace("@SCRIPT_HASH@", hashOf(script));
    page.replace("@STYLE@", style);
    page.replace("@SCRIPT@", script);
    page.replace("@DATA@", reportData(name, files)); // last: names may look like the places above
    return page;
}

bool isInspectReport(const QString &path)
{
    QFile file(path);
    const QByteArray expected = beginning();
    return file.open(QIODevice::ReadOnly) && file.read(expected.size()) == expected;
}
