// SPDX-License-Identifier: MIT
#include "sizeoption.h"

#include <QRegularExpression>
#include <QString>

#include <optional>

namespace {

constexpr qint64 Largest = 1LL << 60;

std::optional<qint64> parsedSize(const QString &text)
{
    static const QRegularExpression Form(QStringLiteral("^\\s*(\\d+)\\s*([kmgtpe]?)(?:i?b)?\\s*$"),
        QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = Form.match(text);
    bool fits = false;
    const qint64 number = match.captured(1).toLongLong(&fits);
    if (!match.hasMatch() || !fits)
        return {};
    const QString unit = match.captured(2).toLower();
    const auto exponent = unit.isEmpty() ? 0 : 1 + QStringLiteral("kmgtpe").indexOf(unit);
    const qint64 factor = 1LL << (10 * exponent);
    if (number < 1 || number > Largest / factor)
        return {};
    return number * factor;
}

/// The size as one would write it.
std::string shortForm(qint64 size)
{
    constexpr qint64 Step = 1024;
    const char *unit = " KMGTPE";
    for (; size % Step == 0 && unit[1] != '\0'; ++unit)
        size /= Step;
    return std::to_string(size) + (*unit == ' ' ? std::string() : std::string(1, *unit));
}

std::string replaceByBytes(std::string &text, const std::string &example)
{
    const std::optional<qint64> size = parsedSize(QString::fromStdString(text));
    if (!size)
        return text + " is no size: a whole number from 1 byte to 1 EiB, such as " + example;
    text = std::to_string(*size);
    return {};
}

} // namespace

CLI::Option *addSizeOption(
    CLI::App &command, const std::string &name, qint64 &size, const std::string &description)
{
    return command.add_option(name, size, description)
        ->transform(CLI::Validator([example = shortForm(size)](
                                       std::string &text) { return replaceByBytes(text, example); },
            std::string()))
        ->type_name("SIZE");
}
