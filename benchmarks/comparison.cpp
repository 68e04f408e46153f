// SPDX-License-Identifier: MIT
#include "comparison.h"

#include <QProcess>
#include <QRandomGenerator>

namespace {

void add(const std::string &name, int mebibytes, const std::function<void(int)> &work)
{
    benchmark::RegisterBenchmark(name.c_str(),
        [mebibytes, work](benchmark::State &state) {
            for (auto _ : state)
                work(mebibytes);
            state.SetBytesProcessed(state.iterations() * mebibytes * MiB);
        })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

} // namespace

void require(bool done, const char *what)
{
    if (!done)
        qFatal("benchmark: cannot %s", what);
}

void runProgram(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(program, arguments);
    require(process.waitForFinished(-1) && process.exitCode() == 0, "run a program");
}

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    generator.fillRange(
        reinterpret_cast<quint32 *>(bytes.data()), size / static_cast<int>(sizeof(quint32)));
    return bytes;
}

void compare(const std::string &operation, const std::vector<int> &sizes,
    const std::function<void(int mebibytes)> &ours, const std::string &otherName,
    const std::function<void(int mebibytes)> &other)
{
    for (const int size : sizes) {
        add(operation + "|pellox/" + std::to_string(size), size, ours);
        add(operation + '|' + otherName + '/' + std::to_string(size), size, other);
    }
}

void compareAlso(const std::string &operation, const std::vector<int> &sizes,
    const std::string &otherName, const std::function<void(int mebibytes)> &other)
{
    for (const int size : sizes)
        add(operation + '|' + otherName + '/' + std::to_string(size), size, other);
}

int runComparisons(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
