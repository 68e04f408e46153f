// SPDX-License-Identifier: MIT
#pragma once

#include "deltareader.h"
#include "diskfile.h"
#include "pagedview.h"

#include <functional>
#include <optional>

namespace Pellox {

/**
 * What a delta makes of an old file, read from one end to the other. It never makes more than the
 * size that is expected of it.
 */
class PatchedContent : public Content
{
public:
    /// Asked now and then while a delta of very many commands is read.
    using IsStopped = std::function<bool()>;

    /// False with error() when either file does not open, @p delta makes no file of @p size bytes,
    /// or @p isStopped says so.
    bool open(
        const QString &oldFile, const QString &delta, qint64 size, const IsStopped &isStopped = {});
    /// False when the delta takes more of the old file than there is. Then it cannot be read.
    bool fits() const { return m_fits; }

    qint64 size() const override { return m_size; }
    /// @p position is where the last reading ended.
    bool readAt(qint64 position, uchar *data, qint64 size) override;
    bool isUnchanged() override;

    mode_t oldPermissions() const { return m_old.permissions(); }

    /**
     * Whether the old file may have the new content already: it has the size, and each of the
     * first literals stands where the delta puts it. To be asked before the first reading.
     */
    bool mayBeNewAlready();

private:
    struct Outcome
    {
        qint64 made = 0;
        qint64 oldSize = 0; ///< that the copies need
        QString error;
    };

    bool openAll(const QString &oldFile, const QString &delta);
    Outcome readCommands(const IsStopped &isStopped);
    void rewind();
    bool readPart(qint64 offset, uchar *data, qint64 size);

    InputFile m_old;
    InputFile m_delta;
    std::optional<PagedView> m_oldPages; ///< for short pieces, as some deltas have very many
    std::optional<PagedView> m_deltaPages;
    qint64 m_size = 0;
    bool m_fits = false;
    std::optional<DeltaReader> m_reader;
    std::optional<DeltaCommand> m_command;
    qint64 m_taken = 0; ///< of the command
};

} // namespace Pellox
