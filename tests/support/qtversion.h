// SPDX-License-Identifier: MIT
#pragma once

#include <QMetaType>
#include <QProcess>

#include <functional>
#include <utility>

/*
 * What is not the same to tests with Qt 5 and with Qt 6.
 */

/// Whether the local 8-bit encoding is UTF-8 whatever the codec of the locale.
constexpr bool LocalEncodingIsUtf8 = QT_VERSION >= QT_VERSION_CHECK(6, 0, 0);

/// The id of the meta-type that is registered as @p name; QMetaType::UnknownType where none is.
inline int metaTypeNamed(const char *name)
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    return QMetaType::type(name);
#else
    return QMetaType::fromName(name).id();
#endif
}

/// A process whose child calls @p setUp before it becomes the program.
class PreparedProcess : public QProcess
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
public:
    explicit PreparedProcess(std::function<void()> setUp)
        : m_setUp(std::move(setUp))
    {
    }

protected:
    void setupChildProcess() override
    {
        m_setUp();
    }

private:
    std::function<void()> m_setUp;
#else
public:
    explicit PreparedProcess(const std::function<void()> &setUp)
    {
        setChildProcessModifier(setUp);
    }
#endif
};
