// SPDX-License-Identifier: MIT
#include "utils.h"

namespace PelloxMor::Utils {

namespace {

constexpr int PathLengthLimit = 1023;

/// Room for a hint to the documentation at the end of each warning; empty so far.
const QString DOC_MESSAGE;

} // namespace

QString getFilePathForLongName(const QString &path)
{
    if (path.size() < PathLengthLimit)
        return path;
    QString native = path;
    native.replace(QLatin1Char('/'), QLatin1Char('\\'));
    return QLatin1String(R"(\\?\)") + native;
}

bool checkFilePathIsTooLong(const QString &path)
{
    return path.size() > PathLengthLimit;
}

QString createTooLongFilePathWarning(const QString &path)
{
    return QLatin1String("\nWarning! File path length exceeds the operating system limit (")
        + QString::number(PathLengthLimit)
        + QLatin1String(" symbols).\n"
                        "We recommend moving the game folder and shipwright utility closer to the "
                        "root of the disk.\n"
                        "Path: ")
        + path + DOC_MESSAGE;
}

} // namespace PelloxMor::Utils
