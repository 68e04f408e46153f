// SPDX-License-Identifier: MIT
#include "slimrun.h"

#include "canonicalpath.h"
#include "digest.h"
#include "filepass.h"
#include "filesystem.h"
#include "manifest.h"
#include "releasefolder.h"
#include "rules.h"
#include "wholefile.h"

#include <QFileInfo>
#include <QIODevice>

#include <algorithm>
#include <numeric>

namespace Pellox {

namespace {

constexpr double Percent = 100;
const QString NotAsSealed = QStringLiteral("is not what was sealed");

QString manifestPath()
{
    return Manifest::pathIn(QString(), PATCH_RULES_FILE);
}

} // namespace

SlimRun::SlimRun(Settings settings, const std::atomic<bool> &cancelled)
    : m_settings(std::move(settings))
    , m_cancelled(cancelled)
{
}

bool SlimRun::carryOut(const PROGRESS_CALLBACK &progress)
{
    if (!checkFolders() || !readSeal())
        return false;
    ReleaseFolder folder(m_settings.slim, PATCH_RULES_FILE);
    const GoOn goOn = [this] { return this->goOn(); };
    const auto take = [&](bool taken) {
        if (!taken && m_error.isEmpty())
            m_error = folder.error();
        return taken && this->goOn();
    };
    const bool done = take(folder.check(goOn)) && take(begin(folder)) && take(copyFiles(progress))
        && take(folder.prepare([this](QIODevice &device) { return writeManifest(device); }))
        && take(folder.sync()) && take(folder.commit());
    if (done)
        folder.finish();
    return done;
}

bool SlimRun::checkFolders()
{
    if (!QFileInfo(m_settings.patch).isDir())
        return fail(m_settings.patch, QStringLiteral("there is no such folder"));
    if (overlap(m_settings.slim, m_settings.patch))
        return fail(m_settings.slim,
            QLatin1String("must not be, hold or lie inside of ") + m_settings.patch);
    return true;
}

bool SlimRun::readSeal()
{
    FileError error;
    auto bytes = readSealFile(m_settings.patch, &error);
    if (!bytes)
        return fail(error);
    QString problem;
    auto sealed = readSealOfAnybody(*bytes, &problem);
    if (!sealed)
        return fail(Manifest::pathIn(m_settings.patch, SealFileName), problem);
    m_seal = std::move(*bytes);
    m_sealed = std::move(*sealed);
    for (const auto &[path, file] : m_sealed.files) {
        if (path != manifestPath() && !mayBeLeftOut(m_sealed, path))
            m_files.emplace_back(path, file);
    }
    return true;
}

bool SlimRun::begin(ReleaseFolder &folder)
{
    return folder.begin(
        [this](const std::function<void(const QString &)> &take) {
            for (const auto &file : m_files)
                take(file.first);
        },
        [this] { return goOn(); });
}

bool SlimRun::copyFiles(const PROGRESS_CALLBACK &progress)
{
    std::vector<qint64> sizes(m_files.size());
    std::transform(m_files.cbegin(), m_files.cend(), sizes.begin(),
        [](const auto &file) { return file.second.size; });
    const auto total = static_cast<double>(
        std::max<qint64>(std::accumulate(sizes.cbegin(), sizes.cend(), qint64(0)), 1));
    const auto report = [&] {
        if (progress)
            progress(std::min(Percent, static_cast<double>(m_done) / total * Percent));
    };
    report();
    Crew crew(m_settings.threadCount, m_cancelled);
    const bool done = crew.run(
        sizes, FilePass::ChunkSize,
        [&](std::size_t i) { copy(crew, m_files[i].first, m_files[i].second); }, report);
    if (!done && !crew.error().isEmpty())
        return crew.hasFailedItself() ? fail(m_settings.slim, crew.error()) : fail(crew.error());
    FileError error;
    return done
        && (writeWhole(Manifest::pathIn(m_settings.slim, SealFileName), m_seal, false, &error)
            || fail(error));
}

/// What is not as it was sealed, players would refuse.
bool SlimRun::copy(Crew &crew, const QString &path, const SealedFile &expected)
{
    const auto failCrew = [&](const QString &error) {
        crew.fail(error);
        return false;
    };
    InputFile input;
    OutputFile output;
    if (!input.open(m_settings.patch + path))
        return failCrew(input.error());
    if (input.size() != expected.size || !isRegularFile(input.path()))
        return failCrew(aboutFile(input.path(), NotAsSealed));
    if (!output.open(m_settings.slim + path))
        return failCrew(output.error());
    output.setPermissions(input.permissions());
    FilePass::Targets targets;
    targets.digest = true;
    targets.copy = &output;
    FilePass copying(crew, input, targets, m_done);
    const bool isLarge = expected.size > FilePass::ChunkSize;
    if (!(isLarge ? crew.share(copying) : crew.doAlone(copying)))
        return false;
    if (!copying.error().isEmpty())
        return failCrew(copying.error());
    if (copying.sha512() != expected.sha512)
        return failCrew(aboutFile(input.path(), NotAsSealed));
    return output.close() || failCrew(output.error());
}

/// In parts, as it may be large.
bool SlimRun::writeManifest(QIODevice &device)
{
    constexpr qint64 AtOnce = 1 << 20;
    const SealedFile &expected = m_sealed.files.at(manifestPath());
    InputFile input;
    if (!input.open(m_settings.patch + manifestPath()))
        return fail(input.error());
    Digest digest(QCryptographicHash::Sha512);
    std::vector<uchar> bytes(static_cast<std::size_t>(AtOnce));
    for (qint64 position = 0; position < input.size(); position += AtOnce) {
        const qint64 size = std::min(AtOnce, input.size() - position);
        const auto *text = reinterpret_cast<const char *>(bytes.data());
        if (!input.readAt(position, bytes.data(), size))
            return fail(input.error());
        if (device.write(text, size) != size)
            return false;
        digest.add(text, static_cast<int>(size));
    }
    if (!input.isUnchanged())
        return fail(input.error());
    return Sha512::fromDigest(digest.finish()) == expected.sha512
        || fail(input.path(), NotAsSealed);
}

bool SlimRun::fail(const QString &error)
{
    m_error = error;
    return false;
}

bool SlimRun::fail(const QString &path, const QString &reason)
{
    return fail(aboutFile(path, reason));
}

} // namespace Pellox
