// SPDX-License-Identifier: MIT
// The primitives beside the programs that people would use instead, on the same files:
// librsync's own rdiff for deltas, "openssl dgst" for checksums. scripts/bench.sh runs it.
#include <Pellox/patchhelp.h>
#include <Pellox/SignaturesController>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <memory>

namespace {

constexpr int MiB = 1 << 20;

void require(bool done, const char *what)
{
    if (!done)
        qFatal("benchmark: cannot %s", what);
}

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    generator.fillRange(
        reinterpret_cast<quint32 *>(bytes.data()), size / static_cast<int>(sizeof(quint32)));
    return bytes;
}

/// A file of random bytes, what becomes of it in a new release, and all that is made of them.
class Files
{
public:
    explicit Files(int mebibytes)
        : m_dir(QDir::tempPath() + QLatin1String("/bench"))
    {
        require(m_dir.isValid(), "make a folder");
        write(
            "basis", mebibytes, [](QByteArray &) {}, 0);
        write(
            "unchanged", mebibytes, [](QByteArray &) {}, 0);
        // An insertion of 16 bytes in every MiB: small edits, all blocks behind them moved.
        write(
            "edited", mebibytes,
            [](QByteArray &part) { part.insert(MiB / 3, "sixteen bytes...", 16); }, 0);
        write(
            "new", mebibytes, [](QByteArray &) {}, 1);
        require(Pellox::createSignature(path("basis"), path("signature")), "sign");
        for (const char *kind : {"unchanged", "edited", "new"}) {
            require(Pellox::createDelta(
                        path("signature"), path(kind), path(kind) + QLatin1String(".delta")),
                "make a delta");
        }
    }

    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }
    QString delta(const char *kind) const { return path(kind) + QLatin1String(".delta"); }

    /// The files of this size, made when first asked for.
    static const Files &of(int mebibytes)
    {
        static std::map<int, std::unique_ptr<Files>> all;
        std::unique_ptr<Files> &files = all[mebibytes];
        if (!files)
            files = std::make_unique<Files>(mebibytes);
        return *files;
    }

private:
    template <typename Edit> void write(const char *name, int mebibytes, Edit edit, quint32 seed)
    {
        QFile file(path(name));
        require(file.open(QIODevice::WriteOnly), "open");
        for (int i = 0; i < mebibytes; ++i) {
            QByteArray part = randomBytes(MiB, seed * 100000 + static_cast<quint32>(i));
            edit(part);
            require(file.write(part) == part.size(), "write");
        }
    }

    QTemporaryDir m_dir;
};

void runProgram(const QString &program, const QStringList &arguments)
{
    require(QProcess::execute(program, arguments) == 0, "run a program");
}

void rdiff(const QStringList &arguments)
{
    runProgram(QStringLiteral(RDIFF), QStringList(QStringLiteral("-f")) + arguments);
}

template <typename Work> void measure(benchmark::State &state, Work work)
{
    const auto mebibytes = static_cast<int>(state.range(0));
    const Files &files = Files::of(mebibytes);
    for (auto _ : state)
        work(files);
    state.SetBytesProcessed(state.iterations() * mebibytes * MiB);
}

using Work = void (*)(const Files &files);

struct Comparison
{
    const char *name;
    Work ours;
    const char *otherName;
    Work other;
};

template <const char *const &Kind> void ourDelta(const Files &files)
{
    require(Pellox::createDelta(files.path("signature"), files.path(Kind), files.path("out")),
        "make a delta");
}

template <const char *const &Kind> void rdiffDelta(const Files &files)
{
    rdiff({QStringLiteral("delta"), files.path("signature"), files.path(Kind), files.path("out")});
}

template <const char *const &Kind> void ourPatch(const Files &files)
{
    require(
        Pellox::applyPatch(files.path("basis"), files.delta(Kind), files.path("out"), 0, nullptr),
        "patch");
}

template <const char *const &Kind> void rdiffPatch(const Files &files)
{
    rdiff({QStringLiteral("patch"), files.path("basis"), files.delta(Kind), files.path("out")});
}

constexpr const char *Unchanged = "unchanged";
constexpr const char *Edited = "edited";
constexpr const char *New = "new";

const Comparison Comparisons[] = {
    {"digest",
        [](const Files &files) {
            benchmark::DoNotOptimize(Pellox::SignaturesController::calculateCheckSum(
                files.path("basis"), QCryptographicHash::Sha512));
        },
        "openssl dgst -sha512",
        [](const Files &files) {
            runProgram(QStringLiteral(OPENSSL_PROGRAM),
                {QStringLiteral("dgst"), QStringLiteral("-sha512"), QStringLiteral("-out"),
                    files.path("digest"), files.path("basis")});
        }},
    {"createSignature",
        [](const Files &files) {
            require(Pellox::createSignature(files.path("basis"), files.path("out")), "sign");
        },
        "rdiff signature",
        [](const Files &files) {
            rdiff({QStringLiteral("-b"), QStringLiteral("2048"), QStringLiteral("-H"),
                QStringLiteral("blake2"), QStringLiteral("-R"), QStringLiteral("rollsum"),
                QStringLiteral("signature"), files.path("basis"), files.path("out")});
        }},
    {"createDelta, unchanged", ourDelta<Unchanged>, "rdiff delta", rdiffDelta<Unchanged>},
    {"createDelta, lightly edited", ourDelta<Edited>, "rdiff delta", rdiffDelta<Edited>},
    {"createDelta, all new", ourDelta<New>, "rdiff delta", rdiffDelta<New>},
    {"applyPatch, unchanged", ourPatch<Unchanged>, "rdiff patch", rdiffPatch<Unchanged>},
    {"applyPatch, lightly edited", ourPatch<Edited>, "rdiff patch", rdiffPatch<Edited>},
    {"applyPatch, all new", ourPatch<New>, "rdiff patch", rdiffPatch<New>},
};

void add(const std::string &name, Work work)
{
    benchmark::RegisterBenchmark(
        name.c_str(), [work](benchmark::State &state) { measure(state, work); })
        ->Arg(1)
        ->Arg(64)
        ->Arg(512)
        ->MeasureProcessCPUTime()
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    for (const Comparison &comparison : Comparisons) {
        add(std::string(comparison.name) + "|pellox", comparison.ours);
        add(std::string(comparison.name) + "|" + comparison.otherName, comparison.other);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
