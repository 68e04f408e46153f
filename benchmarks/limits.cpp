// SPDX-License-Identifier: MIT
// What publishing a release or updating to it cannot be quicker than, measured in parts on the
// machine at hand.
// Usage: bench_limits rates NEW SIGNATURES CHANGED SCRATCH
//            Prints as CSV, for one core: bytes per second of the digest and of librsync's
//            signature, and the seconds that its deltas of all files in the list CHANGED take.
//        bench_limits hash NEW
//            Hashes all files on all cores.
//        bench_limits create NEW OUTPUTS SCRATCH
//            The same, and writes the files of the list OUTPUTS: lines of size, tab and path.
//        bench_limits patches OLD PATCH PATCHED COPIED SCRATCH
//            Prints the seconds that one core takes for librsync's patches of the files in the list
//            PATCHED, and for the digest of what they and those of the list COPIED become.
//        bench_limits update PATCH PATCHED COPIED INSTALL
//            Does on all cores what no update can do without, and nothing else: patches and copies
//            the files of both lists beside those of INSTALL, hashes them and renames them.
#include <Pellox/patchhelp.h>
#include <Pellox/SignaturesController>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QVector>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>
#include <vector>

namespace {

constexpr qint64 MiB = 1 << 20;
constexpr qint64 SampleSize = 128 * MiB;

void require(bool done, const QString &what)
{
    if (!done)
        qFatal("bench_limits: cannot %s", qPrintable(what));
}

double secondsOf(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// The best of three: a rate is a limit only where nothing disturbed it.
double bestSecondsOf(const std::function<void()> &work)
{
    const double first = secondsOf(work);
    return std::min({first, secondsOf(work), secondsOf(work)});
}

void hash(const QString &path)
{
    const QByteArray sum
        = Pellox::SignaturesController::calculateCheckSum(path, QCryptographicHash::Sha512);
    require(!sum.isEmpty(), QLatin1String("hash ") + path);
}

void writeFile(const QString &path, qint64 size)
{
    static const QByteArray Zeros(MiB, '\0');
    QFile file(path);
    bool done = file.open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    for (qint64 left = size; done && left > 0; left -= MiB)
        done = file.write(Zeros.constData(), std::min(left, MiB)) == std::min(left, MiB);
    require(done, QLatin1String("write ") + path);
}

QStringList linesOf(const QString &path)
{
    QFile file(path);
    require(file.open(QIODevice::ReadOnly), QLatin1String("read ") + path);
    return QString::fromLocal8Bit(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

void makeSample(const QString &path)
{
    QFile file(path);
    require(file.open(QIODevice::WriteOnly), QLatin1String("write ") + path);
    QRandomGenerator generator(1);
    QVector<quint32> words(MiB / 4);
    for (qint64 size = 0; size < SampleSize; size += MiB) {
        generator.fillRange(words.data(), words.size());
        require(file.write(reinterpret_cast<const char *>(words.constData()), MiB) == MiB,
            QLatin1String("write ") + path);
    }
}

int printRates(const QString &newBuild, const QString &signatures, const QString &changed,
    const QString &scratch)
{
    const QString sample = scratch + QLatin1String("/sample");
    const QString output = scratch + QLatin1String("/output");
    makeSample(sample);
    const double digest = bestSecondsOf([&] { hash(sample); });
    const double signature = bestSecondsOf(
        [&] { require(Pellox::createSignature(sample, output), QLatin1String("sign ") + sample); });
    QFile::remove(sample);

    const QStringList files = linesOf(changed);
    const double deltas = secondsOf([&] {
        for (const QString &file : files) {
            require(Pellox::createDelta(signatures + QLatin1Char('/') + file,
                        newBuild + QLatin1Char('/') + file, output),
                QLatin1String("make the delta of ") + file);
        }
    });
    QFile::remove(output);
    std::printf("%.0f,%.0f,%.4f\n", SampleSize / digest, SampleSize / signature, deltas);
    return 0;
}

int printPatches(const QString &oldBuild, const QString &patch, const QString &patched,
    const QString &copied, const QString &scratch)
{
    const QString output = scratch + QLatin1String("/patched");
    double seconds = 0;
    for (const QString &file : linesOf(patched)) {
        const QString path = QLatin1Char('/') + file;
        QFile::remove(output);
        seconds += secondsOf([&] {
            require(Pellox::applyPatch(oldBuild + path, patch + path, output, 0, nullptr),
                QLatin1String("patch ") + file);
            hash(output);
        });
    }
    QFile::remove(output);
    for (const QString &file : linesOf(copied))
        seconds += secondsOf([&] { hash(patch + QLatin1Char('/') + file); });
    std::printf("%.4f\n", seconds);
    return 0;
}

struct Job
{
    qint64 size = 0;
    std::function<void()> work;
};

/// The largest first, so that no core is left with a large one at the end.
void runOnAllCores(std::vector<Job> jobs)
{
    std::stable_sort(jobs.begin(), jobs.end(),
        [](const Job &left, const Job &right) { return left.size > right.size; });
    std::atomic<size_t> next{0};
    std::vector<std::thread> crew;
    for (unsigned i = std::max(std::thread::hardware_concurrency(), 1U); i > 0; --i) {
        crew.emplace_back([&] {
            for (size_t job = next++; job < jobs.size(); job = next++)
                jobs[job].work();
        });
    }
    for (std::thread &thread : crew)
        thread.join();
}

std::vector<Job> hashJobs(const QString &build)
{
    std::vector<Job> jobs;
    QDirIterator walk(build, QDir::Files, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        jobs.push_back({walk.fileInfo().size(), [path] { hash(path); }});
    }
    return jobs;
}

void addWriteJobs(std::vector<Job> &jobs, const QString &outputs, const QString &scratch)
{
    QString madeFolder;
    const QStringList lines = linesOf(outputs);
    for (const QString &line : lines) {
        const int tab = line.indexOf(QLatin1Char('\t'));
        const qint64 size = line.left(tab).toLongLong();
        const QString path = scratch + QLatin1Char('/') + line.mid(tab + 1);
        const QString folder = path.left(path.lastIndexOf(QLatin1Char('/')));
        if (folder != madeFolder)
            require(QDir().mkpath(folder), QLatin1String("make ") + folder);
        madeFolder = folder;
        jobs.push_back({size, [path, size] { writeFile(path, size); }});
    }
}

/// What @p make makes beside the file @p installed, in its place.
void replace(const QString &installed, const std::function<bool(const QString &)> &make)
{
    const QString staged = installed + QLatin1String(".temp");
    require(make(staged), QLatin1String("make ") + staged);
    hash(staged);
    require(std::rename(qPrintable(staged), qPrintable(installed)) == 0,
        QLatin1String("replace ") + installed);
}

int updateBarely(
    const QString &patch, const QString &patched, const QString &copied, const QString &install)
{
    std::vector<Job> jobs;
    const auto add = [&](const QString &file, bool isPatched) {
        const QString from = patch + QLatin1Char('/') + file;
        const QString to = install + QLatin1Char('/') + file;
        jobs.push_back({QFileInfo(from).size() + QFileInfo(to).size(), [=] {
                            replace(to, [&](const QString &staged) {
                                return isPatched ? Pellox::applyPatch(to, from, staged, 0, nullptr)
                                                 : QFile::copy(from, staged);
                            });
                        }});
    };
    for (const QString &file : linesOf(patched))
        add(file, true);
    QString madeFolder;
    for (const QString &file : linesOf(copied)) {
        const QString folder = QFileInfo(install + QLatin1Char('/') + file).path();
        if (folder != madeFolder)
            require(QDir().mkpath(folder), QLatin1String("make ") + folder);
        madeFolder = folder;
        add(file, false);
    }
    runOnAllCores(std::move(jobs));
    return 0;
}

int run(const QStringList &arguments)
{
    const QString job = arguments.value(1);
    if (job == QLatin1String("rates") && arguments.size() == 6)
        return printRates(arguments[2], arguments[3], arguments[4], arguments[5]);
    if (job == QLatin1String("patches") && arguments.size() == 7)
        return printPatches(arguments[2], arguments[3], arguments[4], arguments[5], arguments[6]);
    if (job == QLatin1String("update") && arguments.size() == 6)
        return updateBarely(arguments[2], arguments[3], arguments[4], arguments[5]);
    if (job == QLatin1String("hash") && arguments.size() == 3) {
        runOnAllCores(hashJobs(arguments[2]));
        return 0;
    }
    if (job == QLatin1String("create") && arguments.size() == 5) {
        std::vector<Job> jobs = hashJobs(arguments[2]);
        addWriteJobs(jobs, arguments[3], arguments[4]);
        runOnAllCores(std::move(jobs));
        return 0;
    }
    std::fputs("usage: bench_limits rates NEW SIGNATURES CHANGED SCRATCH | hash NEW | create NEW "
               "OUTPUTS SCRATCH | patches OLD PATCH PATCHED COPIED SCRATCH | update PATCH PATCHED "
               "COPIED INSTALL\n",
        stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    return run(arguments);
}
