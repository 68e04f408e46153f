// SPDX-License-Identifier: MIT
#include "events.h"

#include <QFile>
#include <QJsonDocument>
#include <QRegularExpression>

namespace {

constexpr char Validation[] = "import json, jsonschema, sys\n"
                              "schema = json.load(open(sys.argv[1]))\n"
                              "jsonschema.Draft202012Validator.check_schema(schema)\n"
                              "validator = jsonschema.Draft202012Validator(schema)\n"
                              "for line in sys.stdin.buffer.read().decode().splitlines():\n"
                              "    if any(validator.iter_errors(json.loads(line))):\n"
                              "        print(line)\n";

QString runPython(const QString &python, const QStringList &arguments, const QString &input)
{
    QProcess process;
    process.start(python, arguments);
    process.write(input.toUtf8());
    process.closeWriteChannel();
    const Outcome outcome = outcomeOf(process);
    if (outcome.status != 0)
        qFatal("%s: %s", qPrintable(python), qPrintable(outcome.err));
    return outcome.out;
}

QString replaced(QString text, const char *pattern, const char *with)
{
    return text.replace(
        QRegularExpression(QString::fromLatin1(pattern)), QString::fromLatin1(with));
}

/// @p lines without progress that more progress of the same phase follows.
QStringList withLastProgress(const QStringList &lines)
{
    const QRegularExpression progress(
        QStringLiteral("\"event\":\"progress\".*\"phase\":\"(\\w+)\"|^(\\w+): +\\d+ %"));
    QStringList kept;
    for (const QString &line : lines) {
        const auto match = progress.match(line);
        const auto before = progress.match(kept.isEmpty() ? QString() : kept.last());
        if (match.hasMatch() && before.hasMatch()
            && match.capturedTexts().mid(1) == before.capturedTexts().mid(1))
            kept.removeLast();
        kept.append(line);
    }
    return kept;
}

QString normalised(const QString &text, const QString &root)
{
    QString result = text;
    result.replace(root, QLatin1String("ROOT"));
    result = withLastProgress(result.split(QLatin1Char('\n'))).join(QLatin1Char('\n'));
    result = replaced(result, "\"(rate|left)\":\\d+", "\"\\1\":N");
    result = replaced(result, "(\"peak_extra_disk\":)\\d+", "\\1N"); // counts whole blocks
    result = replaced(result, "(\"event\":\"progress\",\"file\":)\"[^\"]*\"", "\\1\"FILE\"");
    result = replaced(result, "  [\\d.]+ \\w+/s(  [\\d:]+ left)?", "");
    return result;
}

} // namespace

QString pythonWithJsonSchema()
{
    for (const QString &python : {QStringLiteral("python3"), QStringLiteral("/usr/bin/python3")}) {
        QProcess process;
        process.start(python,
            {QStringLiteral("-c"),
                QStringLiteral("import jsonschema; jsonschema.Draft202012Validator")});
        if (outcomeOf(process).status == 0)
            return python;
    }
    return {};
}

QStringList schemaViolations(const QString &python, const QString &lines)
{
    const QString out = runPython(python,
        {QStringLiteral("-c"), QString::fromLatin1(Validation),
            QStringLiteral(PELLOX_DOCS "/events.schema.json")},
        lines);
    return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString transcript(const QStringList &arguments, const Outcome &outcome, const QString &root)
{
    return QStringLiteral("$ pellox %1\n%2--- standard error\n%3--- status %4\n")
        .arg(arguments.join(QLatin1Char(' ')), normalised(outcome.out, root),
            normalised(outcome.err, root), QString::number(outcome.status));
}

QString differenceToGolden(const QString &name, const QString &found)
{
    QFile file(QStringLiteral(GOLDEN_FOLDER "/") + name);
    if (qEnvironmentVariableIsSet("PELLOX_WRITE_GOLDEN")) {
        if (!file.open(QIODevice::WriteOnly) || file.write(found.toUtf8()) < 0)
            return file.fileName() + QLatin1String(": cannot be written");
        return {};
    }
    if (!file.open(QIODevice::ReadOnly))
        return file.fileName() + QLatin1String(": cannot be read");
    const QStringList expected = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    const QStringList lines = found.split(QLatin1Char('\n'));
    for (int i = 0; i < qMax(lines.size(), expected.size()); ++i) {
        if (lines.value(i) != expected.value(i) || i == lines.size() || i == expected.size())
            return QStringLiteral("%1, line %2\n  expected: %3\n  found:    %4")
                .arg(file.fileName(), QString::number(i + 1), expected.value(i), lines.value(i));
    }
    return {};
}
