// SPDX-License-Identifier: MIT
// A host with a window to show how a copy goes.
#include <Pellox/FileCopier>

#include <cstdio>

void copying(QObject &window, const QString &source, const QString &destination);
void copying(QObject &window, const QString &source, const QString &destination)
{
    const auto showProgress = [](qlonglong total, qlonglong copied, float) {
        std::printf("%lld of %lld\n", copied, total);
    };
    const auto showOutcome
        = [](Pellox::FileCopier::CopyError error) { std::printf("ended: %d\n", error); };
    // SAMPLE
}
