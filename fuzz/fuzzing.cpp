// SPDX-License-Identifier: MIT
#include "fuzzing.h"

#include "testtree.h"

#include <QCoreApplication>
#include <QFile>
#include <QThreadPool>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <sys/stat.h>

namespace {

void silence(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtFatalMsg)
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

QByteArray pem(const char *title, const char *header, const char *key)
{
    const QByteArray der = QByteArray::fromHex(header) + QByteArray::fromHex(key);
    return QByteArray("-----BEGIN ") + title + "-----\n" + der.toBase64() + "\n-----END " + title
        + "-----\n";
}

} // namespace

const TestKey OurKey{"9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60",
    "d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a"};
const TestKey StrangersKey{"4ccd089b28ff96da9db6c346ec114e0f5b8a319f35aba624da8cf6ed4fb8a6fb",
    "3d4017c3e843895a92b70aa74d1b7ebc9c982ccf2ec4968cc0cd55f12af4660c"};

// libFuzzer and the sanitizers look for these.
extern "C" {
int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uchar *data, size_t size);
const char *__asan_default_options();
const char *__lsan_default_suppressions();

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    qputenv("LC_ALL", "C.UTF-8");
    if (qEnvironmentVariableIsEmpty("TMPDIR"))
        useMemoryForFiles();
    qInstallMessageHandler(silence);
    static QCoreApplication application(*argc, *argv);
    // A thread that ends just when leaks are looked for looks as if it left its memory behind.
    QThreadPool::globalInstance()->setExpiryTimeout(-1);
    prepare();
    return 0;
}

int LLVMFuzzerTestOneInput(const uchar *data, size_t size)
{
    tryInput(QByteArray(reinterpret_cast<const char *>(data), static_cast<int>(size)));
    return 0;
}

// Buffers of a MiB come and go with each input: what is freed need not be kept for long. Leaks are
// looked for after each input; at the end libcrypto loses what it keeps for threads still there.
const char *__asan_default_options()
{
    return "quarantine_size_mb=16:leak_check_at_exit=0";
}

// Where JSON names a member twice, Qt 5.15 loses what the first one holds.
const char *__lsan_default_suppressions()
{
    return "leak:libQt5Core.so";
}
}

QString operator""_s(const char *text, size_t size)
{
    return QString::fromUtf8(text, static_cast<int>(size));
}

void reportBroken(const char *promise)
{
    std::fprintf(stderr, "BROKEN: %s\n", promise);
    std::abort();
}

void require(bool holds, const char *promise)
{
    if (!holds)
        reportBroken(promise);
}

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    require(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)
            && file.write(content) == content.size(),
        qPrintable("cannot write "_s + path));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    require(file.open(QIODevice::ReadOnly), qPrintable("cannot read "_s + path));
    return file.readAll();
}

bool staysInside(const QString &relativePath)
{
    const std::string folder = "/folder";
    const std::string path = folder + relativePath.toStdString();
    return path.find('\0') == std::string::npos && path.rfind(folder + '/', 0) == 0
        && path.back() != '/' && std::filesystem::path(path).lexically_normal().string() == path;
}

QByteArray TestKey::privatePem() const
{
    return pem("PRIVATE KEY", "302e020100300506032b657004220420", secret);
}

QByteArray TestKey::publicPem() const
{
    return pem("PUBLIC KEY", "302a300506032b6570032100", open);
}

QString writeKey(const TestKey &key, const QString &folder)
{
    const QString path = folder + "/key"_s;
    writeFile(path, key.privatePem());
    require(
        ::chmod(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR) == 0, "chmod of the key");
    writeFile(path + ".pub"_s, key.publicPem());
    return path;
}

Snapshot filesOf(const Snapshot &entries)
{
    Snapshot files;
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        if (!entry.key().endsWith(QLatin1Char('/')))
            files.insert(entry.key(), entry.value());
    }
    return files;
}
