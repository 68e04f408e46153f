// SPDX-License-Identifier: MIT
// FileCopier beside cp and dd, and the archive calls beside the bare 7-Zip with the same switches.
#include "comparison.h"

#include <Pellox/ArchiveController>
#include <Pellox/FileCopier>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace {

class Files
{
public:
    Files()
        : m_dir(QDir::tempPath() + QLatin1String("/bench"))
    {
        require(m_dir.isValid(), "make a folder");
        write("large", 1024, true);
        require(QDir(m_dir.path()).mkdir(QStringLiteral("folder")), "make a folder");
        for (const char *name : {"folder/random", "folder/text"})
            write(name, 4, name[7] == 'r');
        runProgram(sevenZip(), packing(path("packed.7z")));
    }

    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }

    /// @p name, where nothing stands any more.
    QString fresh(const char *name) const
    {
        QFile::remove(path(name));
        return path(name);
    }

    static QString sevenZip()
    {
        return QCoreApplication::applicationDirPath() + QLatin1String("/7zr");
    }

    /// The command line of the library's Compressor.
    QStringList packing(const QString &archive) const
    {
        return {QStringLiteral("a"), QStringLiteral("-y"), QStringLiteral("-ssw"),
            QStringLiteral("-bse1"), QStringLiteral("-bso1"), QStringLiteral("-bsp1"),
            QStringLiteral("-sccUTF-8"), QStringLiteral("-v524288000b"), archive,
            path("folder") + QLatin1String("/*")};
    }

private:
    void write(const char *name, int mebibytes, bool random)
    {
        QFile file(path(name));
        require(file.open(QIODevice::WriteOnly), "open");
        for (int i = 0; i < mebibytes; ++i) {
            const auto seed = static_cast<quint32>(i);
            const QByteArray part
                = random ? randomBytes(MiB, seed) : randomBytes(MiB / 2, seed).toHex();
            require(file.write(part) == part.size(), "write");
        }
    }

    QTemporaryDir m_dir;
};

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
    compare("FileCopier, again", {1024}, copy, "dd bs=10M", [&](int) {
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
            runProgram(Files::sevenZip(), files.packing(files.path("out.7z")));
        });
    compare(
        "extractArchive", {8},
        [&](int) {
            Pellox::ArchiveController controller;
            require(controller.extractArchive(
                        files.path("packed.7z.001"), files.path("unpacked"), QString()),
                "unpack");
        },
        "7zr x",
        [&](int) {
            runProgram(Files::sevenZip(),
                {QStringLiteral("x"), QStringLiteral("-y"), QStringLiteral("-bse1"),
                    QStringLiteral("-bso1"), QStringLiteral("-bsp1"), QStringLiteral("-sccUTF-8"),
                    QLatin1String("-o") + files.path("unpacked"), files.path("packed.7z.001")});
        });
    return runComparisons(argc, argv);
}
