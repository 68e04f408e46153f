// SPDX-License-Identifier: MIT
// The delta primitives and the digest beside librsync's own rdiff and "openssl dgst".
#include "comparison.h"

#include <Pellox/patchhelp.h>
#include <Pellox/SignaturesController>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <map>
#include <memory>

namespace {

/// A file of random bytes, what becomes of it in a new release, and all that is made of them.
class Files
{
public:
    explicit Files(int mebibytes)
        : m_dir(QDir::tempPath() + QLatin1String("/bench"))
    {
        require(m_dir.isValid(), "make a folder");
        const auto leave = [](QByteArray &) {};
        write("basis", mebibytes, leave, 0);
        write("unchanged", mebibytes, leave, 0);
        // An insertion of 16 bytes in every MiB: small edits, all blocks behind them moved.
        write(
            "edited", mebibytes,
            [](QByteArray &part) { part.insert(MiB / 3, "sixteen bytes...", 16); }, 0);
        write("new", mebibytes, leave, 1);
        require(Pellox::createSignature(path("basis"), path("signature")), "sign");
        for (const char *kind : {"unchanged", "edited", "new"})
            require(Pellox::createDelta(path("signature"), path(kind), delta(kind)), "diff");
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

void rdiff(const QStringList &arguments)
{
    runProgram(QStringLiteral(RDIFF), QStringList(QStringLiteral("-f")) + arguments);
}

void compareDigest(const std::vector<int> &sizes)
{
    compare(
        "digest", sizes,
        [](int size) {
            benchmark::DoNotOptimize(Pellox::SignaturesController::calculateCheckSum(
                Files::of(size).path("basis"), QCryptographicHash::Sha512));
        },
        "openssl dgst -sha512",
        [](int size) {
            runProgram(QStringLiteral(OPENSSL_PROGRAM),
                {QStringLiteral("dgst"), QStringLiteral("-sha512"), Files::of(size).path("basis")});
        });
}

void compareSignature(const std::vector<int> &sizes)
{
    compare(
        "createSignature", sizes,
        [](int size) {
            const Files &files = Files::of(size);
            require(Pellox::createSignature(files.path("basis"), files.path("out")), "sign");
        },
        "rdiff signature",
        [](int size) {
            const Files &files = Files::of(size);
            rdiff({QStringLiteral("-b"), QStringLiteral("2048"), QStringLiteral("-H"),
                QStringLiteral("blake2"), QStringLiteral("-R"), QStringLiteral("rollsum"),
                QStringLiteral("signature"), files.path("basis"), files.path("out")});
        });
}

void compareDelta(const std::vector<int> &sizes, const std::string &title, const char *kind)
{
    compare(
        "createDelta, " + title, sizes,
        [kind](int size) {
            const Files &files = Files::of(size);
            require(
                Pellox::createDelta(files.path("signature"), files.path(kind), files.path("out")),
                "diff");
        },
        "rdiff delta",
        [kind](int size) {
            const Files &files = Files::of(size);
            rdiff({QStringLiteral("delta"), files.path("signature"), files.path(kind),
                files.path("out")});
        });
}

void comparePatch(const std::vector<int> &sizes, const std::string &title, const char *kind)
{
    compare(
        "applyPatch, " + title, sizes,
        [kind](int size) {
            const Files &files = Files::of(size);
            require(Pellox::applyPatch(
                        files.path("basis"), files.delta(kind), files.path("out"), 0, nullptr),
                "patch");
        },
        "rdiff patch",
        [kind](int size) {
            const Files &files = Files::of(size);
            rdiff({QStringLiteral("patch"), files.path("basis"), files.delta(kind),
                files.path("out")});
        });
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<int> sizes{1, 64, 512};
    const std::vector<std::pair<std::string, const char *>> kinds{
        {"unchanged", "unchanged"}, {"lightly edited", "edited"}, {"all new", "new"}};
    compareDigest(sizes);
    compareSignature(sizes);
    for (const auto &[title, kind] : kinds)
        compareDelta(sizes, title, kind);
    for (const auto &[title, kind] : kinds)
        comparePatch(sizes, title, kind);
    return runComparisons(argc, argv);
}
