// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

namespace Pellox {

/// A part of a file in memory.
struct Stretch
{
    const uchar *data;
    qint64 begin;     ///< position of the first byte; a multiple of the block length
    qint64 end;       ///< up to here positions are searched ...
    qint64 available; ///< ... and up to here goes the data: a block further, or to the file's end
    bool endsFile;
};

} // namespace Pellox
