// SPDX-License-Identifier: MIT
// A host's function.
#include <QLoggingCategory>
#include <QString>

void function();
void function()
{
    // SAMPLE
}
