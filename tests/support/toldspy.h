// SPDX-License-Identifier: MIT
#pragma once

#include "patience.h"

#include <QList>
#include <QObject>
#include <QTest>
#include <QVariant>

/**
 * What a signal has told, noted on the thread that this object lives on once that handles events,
 * whichever thread emits it. A QSignalSpy notes it on the emitting thread, so in the midst of
 * whatever this one does.
 */
class ToldSpy
{
public:
    template <typename Sender, typename... Arguments>
    ToldSpy(const Sender *sender, void (Sender::*signal)(Arguments...))
    {
        QObject::connect(sender, signal, &m_context, [this](const Arguments &...told) {
            m_told.append(QVariantList{QVariant::fromValue(told)...});
        });
    }
    ToldSpy(const ToldSpy &) = delete;
    ToldSpy &operator=(const ToldSpy &) = delete;

    int size() const { return static_cast<int>(m_told.size()); }
    QVariantList at(int index) const { return m_told.at(index); }

    /// Waits until it has been told @p times in all.
    bool comes(int times = 1) const
    {
        return QTest::qWaitFor([this, times] { return size() >= times; }, Patience);
    }

private:
    QList<QVariantList> m_told;
    QObject m_context; // goes first, so that nothing is noted in what has gone
};
