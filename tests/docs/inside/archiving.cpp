// SPDX-License-Identifier: MIT
// A host that hears of errors in a function of its own.
#include <QObject>
#include <QStringList>

#include <Pellox/ArchiveController>

#include <cstdio>

void onErrors(const QStringList &errors)
{
    std::fprintf(stderr, "%s\n", qPrintable(errors.join(QLatin1Char('\n'))));
}

bool archiving();
bool archiving()
{
    // SAMPLE
    return packed && unpacked;
}
