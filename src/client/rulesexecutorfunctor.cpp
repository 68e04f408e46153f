// SPDX-License-Identifier: MIT
#include "rulesexecutorfunctor.h"

#include "logcategories.h"

#include <QJsonDocument>

namespace {

QByteArray compactJson(const QVariant &rule)
{
    return QJsonDocument::fromVariant(rule).toJson(QJsonDocument::Compact);
}

} // namespace

RulesExecutorFunctor::RulesExecutorFunctor(std::function<bool(const QVariant &)> executeRule)
    : m_executeRule(std::move(executeRule))
{
}

bool RulesExecutorFunctor::operator()(const QVariant &rule)
{
    if (!m_executeRule) {
        qCCritical(logCatBC) << "Can't found rule execute function" << compactJson(rule);
        return false;
    }
    if (m_executeRule(rule))
        return true;
    qCCritical(logCatBC) << "Failed apply rule" << compactJson(rule);
    return false;
}
