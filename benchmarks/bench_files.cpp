// SPDX-License-Identifier: MIT
// FileCopier beside cp and dd; the archive calls, and "pellox pack" and "pellox unpack" as whole
// programs, beside the bare 7-Zip with the same switches.
#include "comparison.h"

#include <Pellox/ArchiveController>
#include <Pellox/FileCopier>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace {

constexpr int BuildSize = 64;       // MiB
constexpr int LargeBuildSize = 256; // likewise

/// Runs a program that lies beside this one.
void run(const char *name, const QStringList &arguments)
{
    runProgram(
        QCoreApplication::applicationDirPath() + QLatin1Char('/') + QLatin1String(name), arguments);
}

class Files
{
public:
    Files()
        : m_dir(QDir::tempPath() + QLatin1String("/bench"))
    {
        require(m_dir.isValid(), "make a folder");
        write("large", 1024, randomBytes);
        makeFolder("folder");
        write("folder/random", 4, randomBytes);
        write("folder/text", 4, randomText);
        run("7zr", packing("packed.7z", "folder"));
        makeBuild("build", BuildSize);
        run("7zr", packing("packed-64.7z", "build"));
        makeBuild("large-build", LargeBuildSize);
        // Quickly made, and no quicker to unpack.
        run("7zr", packing("packed-256.7z", "large-build") << QStringLiteral("-mx=1"));
    }

    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }

    /// @p name, where nothing stands any more.
    QString fresh(const char *name) const
    {
        QFile::remove(path(name));
        QDir(path(name)).removeRecursively();
        return path(name);
    }

    /// The command line of the library's Compressor.
    QStringList packing(const char *archive, const char *folder) const
    {
        return {QStringLiteral("a"), QStringLiteral("-y"), QStringLiteral("-ssw"),
            QStringLiteral("-bse1"), QStringLiteral("-bso1"), QStringLiteral("-bsp1"),
            QStringLiteral("-sccUTF-8"), QStringLiteral("-v524288000b"), path(archive),
            path(folder) + QLatin1String("/*")};
    }

    /// The command line of the library's Decompressor.
    QStringList unpacking(const char *archive, const char *folder) const
    {
        return {QStringLiteral("x"), QStringLiteral("-y"), QStringLiteral("-bse1"),
            QStringLiteral("-bso1"), QStringLiteral("-bsp1"), QStringLiteral("-sccUTF-8"),
            QLatin1String("-o") + path(folder), path(archive)};
    }

private:
    using MakeContent = QByteArray (*)(int size, quint32 seed);

    static QByteArray randomText(int size, quint32 seed)
    {
        return randomBytes(size / 2, seed).toHex();
    }

    void makeFolder(const char *name) const
    {
        require(QDir(m_dir.path()).mkdir(QLatin1String(name)), "make a folder");
    }

    void write(const char *name, int mebibytes, MakeContent make) const
    {
        QFile file(path(name));
        require(file.open(QIODevice::WriteOnly), "open");
        for (int i = 0; i < mebibytes; ++i) {
            const QByteArray part = make(MiB, static_cast<quint32>(i));
            require(file.write(part) == part.size(), "write");
        }
    }

    /// @p mebibytes of what cannot be compressed, what can, and what is there several times.
    void makeBuild(const QByteArray &name, int mebibytes) const
    {
        makeFolder(name);
        write(name + "/random", mebibytes * 3 / 8, randomBytes);
        write(name + "/text", mebibytes / 8, randomText);
        makeFolder(name + "/small");
        const auto files = static_cast<quint32>(mebibytes) * 8;
        for (quint32 i = 0; i < files; ++i) {
            QFile file(path(name + "/small/") + QString::number(i));
            const QByteArray content = randomText(MiB / 16, i % (files / 8));
            require(
                file.open(QIODevice::WriteOnly) && file.write(content) == content.size(), "write");
        }
    }

    QTemporaryDir m_dir;
};

const char *archiveOf(int mebibytes)
{
    return mebibytes == BuildSize ? "packed-64.7z.001" : "packed-256.7z.001";
}

} // namespace

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    const Files files;

    const auto copy = [&](int) {
        Pellox::FileCopier copier;
        require(
            copier.copy(files.path("large"), files.fresh("copy")) == Pellox::FileCopier::NoError,
            "copy");
    };
    compare("FileCopier", {1024}, copy, "cp", [&](int) {
        runProgram(QStringLiteral("cp"),
            {QStringLiteral("--reflink=never"), files.path("large"), files.fresh("copy")});
    });
    compareAlso("FileCopier", {1024}, "dd bs=10M", [&](int) {
        runProgram(QStringLiteral("dd"),
            {QStringLiteral("bs=10M"), QStringLiteral("status=none"),
                QLatin1String("if=") + files.path("large"),
                QLatin1String("of=") + files.fresh("copy")});
    });
    compare(
        "createArchive", {8},
        [&](int) {
            files.fresh("out.7z.001");
            Pellox::ArchiveController controller;
            require(controller.createArchive(
                        files.path("."), QStringLiteral("out.7z"), files.path("folder")),
                "pack");
        },
        "7zr a",
        [&](int) {
            files.fresh("out.7z.001");
            run("7zr", files.packing("out.7z", "folder"));
        });
    compare(
        "extractArchive", {8},
        [&](int) {
            Pellox::ArchiveController controller;
            require(controller.extractArchive(
                        files.path("packed.7z.001"), files.path("unpacked"), QString()),
                "unpack");
        },
        "7zr x", [&](int) { run("7zr", files.unpacking("packed.7z.001", "unpacked")); });
    compare(
        "pellox pack", {BuildSize},
        [&](int) {
            files.fresh("out.7z.001");
            run("pellox", {QStringLiteral("pack"), files.path("build"), files.path("out.7z")});
        },
        "7zr a",
        [&](int) {
            files.fresh("out.7z.001");
            run("7zr", files.packing("out.7z", "build"));
        });
    compare(
        "pellox unpack", {BuildSize, LargeBuildSize},
        [&](int mebibytes) {
            run("pellox",
                {QStringLiteral("unpack"), files.path(archiveOf(mebibytes)),
                    files.fresh("unpacked-build")});
        },
        "7zr x",
        [&](int mebibytes) {
            files.fresh("unpacked-build");
            run("7zr", files.unpacking(archiveOf(mebibytes), "unpacked-build"));
        });
    return runComparisons(argc, argv);
}
