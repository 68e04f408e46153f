// SPDX-License-Identifier: MIT
#include "failedrules.h"

#include "console.h"
#include "log.h"

#include <Pellox/rules.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <utility>

namespace {

/// What the current thread's rule has signalled; its log line is still to come.
thread_local QString t_signalled;

QString plainReason(const QString &rule)
{
    if (rule == Pellox::DELETE_RULE)
        return QStringLiteral("cannot be deleted");
    if (rule == Pellox::COPY_RULE)
        return QStringLiteral("cannot be copied");
    if (rule == Pellox::PATCH_RULE)
        return QStringLiteral("the delta cannot be made (is its signature there and whole?)");
    return QStringLiteral("the rule \"%1\" is not known").arg(rule);
}

} // namespace

FailedRules::FailedRules(Console &console, QString root, Explanation explain)
    : m_console(console)
    , m_root(std::move(root))
    , m_explain(std::move(explain))
{
    Log::setCriticalListener([this](const QString &line) { criticalLogged(line); });
}

FailedRules::~FailedRules()
{
    Log::setCriticalListener({});
}

void FailedRules::signalled(const QString &text)
{
    const bool isAboutRule = QThread::currentThread() != QCoreApplication::instance()->thread();
    if (isAboutRule)
        t_signalled = text;
    else
        m_console.error(QString(), text);
}

void FailedRules::criticalLogged(const QString &line)
{
    const QString announcement = QStringLiteral("Failed apply rule ");
    if (!line.startsWith(announcement))
        return;
    const QByteArray json = unquoted(line.mid(announcement.size()));
    const QJsonObject rule = QJsonDocument::fromJson(json).object();
    const QString file = m_root + rule.value(QLatin1String("relative_path")).toString();
    QString reason = m_explain ? m_explain(rule) : QString();
    if (reason.isEmpty())
        reason = t_signalled;
    if (reason.isEmpty())
        reason = plainReason(rule.value(QLatin1String("rule")).toString());
    t_signalled.clear();
    m_console.error(file, reason);
}

QByteArray unquoted(const QString &quoted)
{
    const QByteArray text = quoted.toUtf8();
    QByteArray bytes;
    for (int i = 1; i < text.size() - 1; ++i) {
        if (text.at(i) == '"') { // a pair of quotes ends a number before a hex digit
            ++i;
            continue;
        }
        if (text.at(i) != '\\') {
            bytes.append(text.at(i));
            continue;
        }
        ++i;
        switch (text.at(i)) {
        case 'b':
            bytes.append('\b');
            break;
        case 'f':
            bytes.append('\f');
            break;
        case 'n':
            bytes.append('\n');
            break;
        case 'r':
            bytes.append('\r');
            break;
        case 't':
            bytes.append('\t');
            break;
        case 'x':
            bytes.append(QByteArray::fromHex(text.mid(i + 1, 2)));
            i += 2;
            break;
        default:
            bytes.append(text.at(i));
        }
    }
    return bytes;
}
