// SPDX-License-Identifier: MIT
#include "randombuild.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QVector>

#include <algorithm>
#include <cstring>

#include <sys/stat.h>

namespace {

constexpr int Block = 2048;
constexpr int MiB = 1 << 20;

/// SplitMix64: small, fast and the same everywhere, which standard distributions are not.
class Random
{
public:
    explicit Random(quint64 seed)
        : m_state(seed)
    {
    }

    quint64 next()
    {
        m_state += 0x9e3779b97f4a7c15;
        quint64 z = m_state;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    /// 0 to @p end - 1; 0 when there is nothing below @p end.
    int below(int end)
    {
        return end > 0 ? static_cast<int>(next() % static_cast<quint64>(end)) : 0;
    }
    int between(int first, int last) { return first + below(last - first + 1); }
    bool chance(int percent) { return below(100) < percent; }
    template <typename List> auto of(const List &list)
    {
        return list[static_cast<typename List::size_type>(below(static_cast<int>(list.size())))];
    }
    QByteArray bytes(int size)
    {
        QByteArray bytes(size, Qt::Uninitialized);
        for (int i = 0; i < size; i += 8) {
            const quint64 word = next();
            std::memcpy(bytes.data() + i, &word, static_cast<size_t>(std::min(8, size - i)));
        }
        return bytes;
    }

private:
    quint64 m_state;
};

int sizeAroundBlocks(Random &random)
{
    static const QVector<int> borders{0, 0, 1, 2, 2046, 2047, 2048, 2049, 4095, 4096, 4097};
    switch (random.below(10)) {
    case 0:
        return random.below(200000);
    case 1:
    case 2:
        return random.below(40000);
    case 3:
    case 4:
    case 5:
        return Block * random.between(1, 20) + random.between(-1, 1);
    default:
        return random.of(borders);
    }
}

int sizeAroundMiB(Random &random)
{
    static const QVector<int> wholes{1, 1, 1, 2, 2, 3, 5};
    static const QVector<int> offsets{-Block - 1, -Block, -Block + 1, -1, 0, 0, 1, Block - 1, Block,
        Block + 1, 3 * Block + 77, MiB / 2 + 12345};
    return random.of(wholes) * MiB + random.of(offsets);
}

/// A block that differs from @p block and has the same rolling sum.
QByteArray weakTwin(Random &random, QByteArray block)
{
    if (block.size() < 3)
        return block;
    const int at = random.below(block.size() - 2);
    const auto add
        = [&block](int i, int value) { block[i] = static_cast<char>(block.at(i) + value); };
    add(at, 1);
    add(at + 1, -2);
    add(at + 2, 1);
    return block;
}

QByteArray blocksOfFewKinds(Random &random, int size)
{
    QVector<QByteArray> kinds{random.bytes(Block)};
    for (int count = random.between(1, 6); count > 0; --count)
        kinds.append(random.chance(50) ? random.bytes(Block) : weakTwin(random, random.of(kinds)));
    QByteArray content;
    content.reserve(size + Block);
    while (content.size() < size)
        content.append(random.of(kinds));
    content.truncate(size);
    return content;
}

QByteArray periodic(Random &random, int size)
{
    static const QVector<int> periods{1, 2, 3, 7, 100, 2047, 2048, 2049, 4096, 6000};
    const QByteArray period = random.bytes(random.of(periods));
    return period.repeated(size / period.size() + 1).left(size);
}

QByteArray content(Random &random, int size)
{
    switch (random.below(8)) {
    case 0:
        return QByteArray(size, '\0');
    case 1:
        return periodic(random, size);
    case 2:
        return blocksOfFewKinds(random, size);
    case 3: {
        const QByteArray head = random.bytes(size / 2);
        return head + QByteArray(size - head.size(), '\0');
    }
    default:
        return random.bytes(size);
    }
}

/// Somewhere in @p size bytes, often where an error would show: around blocks, MiB and both ends.
int position(Random &random, int size)
{
    const auto near = [&](int unit) {
        const int at = unit * random.below(size / unit + 1) + random.between(-1, 1);
        return std::clamp(at, 0, size);
    };
    switch (random.below(6)) {
    case 0:
        return 0;
    case 1:
        return size;
    case 2:
        return near(Block);
    case 3:
        return near(MiB);
    default:
        return random.below(size + 1);
    }
}

int length(Random &random, int size)
{
    static const QVector<int> usual{1, 1, 2, 3, 100, Block - 1, Block, Block, Block + 1, 2 * Block};
    switch (random.below(5)) {
    case 0:
        return random.below(size + 1);
    case 1:
        return Block * random.between(1, 40);
    case 2:
        return std::min(size, random.of(QVector<int>{16384, 32768, 65536, 65537, MiB, MiB + 1}));
    default:
        return random.of(usual);
    }
}

QByteArray takeOut(Random &random, QByteArray &bytes)
{
    const int from = position(random, bytes.size());
    const QByteArray part = bytes.mid(from, length(random, bytes.size()));
    bytes.remove(from, part.size());
    return part;
}

QByteArray partOf(Random &random, QByteArray bytes)
{
    return takeOut(random, bytes);
}

void overwrite(Random &random, QByteArray &bytes, const QByteArray &with)
{
    const int at = position(random, bytes.size());
    bytes.replace(at, std::min(with.size(), bytes.size() - at), with.left(bytes.size() - at));
}

void insert(Random &random, QByteArray &bytes, const QByteArray &part)
{
    bytes.insert(position(random, bytes.size()), part);
}

void replaceABlockByItsTwin(Random &random, QByteArray &bytes)
{
    const int from = Block * random.below(bytes.size() / Block + 1);
    const QByteArray block = bytes.mid(from, Block);
    bytes.replace(from, block.size(), weakTwin(random, block));
}

void reverseTheBlocks(QByteArray &bytes)
{
    QByteArray reversed;
    reversed.reserve(bytes.size());
    const int whole = bytes.size() / Block;
    for (int i = whole - 1; i >= 0; --i)
        reversed.append(bytes.constData() + i * Block, Block);
    bytes = reversed + bytes.mid(whole * Block);
}

void editOnce(Random &random, QByteArray &bytes)
{
    const int few = std::min(length(random, bytes.size()), 300000);
    switch (random.below(14)) {
    case 0:
    case 1:
        return overwrite(random, bytes, random.bytes(few));
    case 2:
        return overwrite(random, bytes, QByteArray(few, '\0'));
    case 3:
        return insert(random, bytes, random.bytes(few));
    case 4:
        return insert(random, bytes, QByteArray(few, '\0'));
    case 5:
        return insert(random, bytes, partOf(random, bytes));
    case 6:
        takeOut(random, bytes);
        return;
    case 7:
        return insert(random, bytes, takeOut(random, bytes));
    case 8:
        return overwrite(random, bytes, partOf(random, bytes));
    case 9:
        return bytes.truncate(position(random, bytes.size()));
    case 10:
        bytes.append(random.chance(50) ? random.bytes(few) : partOf(random, bytes));
        return;
    case 11:
        return replaceABlockByItsTwin(random, bytes);
    case 12:
        if (!bytes.isEmpty()) {
            const int at = random.below(bytes.size());
            bytes[at] = static_cast<char>(bytes.at(at) ^ (1 << random.below(8)));
        }
        return;
    default:
        return reverseTheBlocks(bytes);
    }
}

QByteArray edited(Random &random, QByteArray bytes)
{
    for (int count = random.between(1, 4); count > 0; --count)
        editOnce(random, bytes);
    return bytes;
}

/// All writable: where root copies files by QFile, the owner may write the copy in any case.
uint permissions(Random &random)
{
    static const QVector<uint> usual{0644, 0644, 0644, 0644, 0644, 0755, 0755, 0600, 0640, 0711};
    return random.of(usual);
}

/// Paths that programs get wrong, and some that nobody does.
QString path(Random &random)
{
    static const QStringList folders{QString(), QString(), QString(), QStringLiteral("data/"),
        QStringLiteral("data/"), QStringLiteral("Data/"), QStringLiteral("data/levels/"),
        QStringLiteral(" ein Ordner /\u00fc\u00f6\u00e4/"),
        QStringLiteral("a/b/c/d/e/f/g/h/i/j/k/"), QStringLiteral("x.y/"), QStringLiteral("50%/%1/"),
        QString(100, QLatin1Char('d')) + QLatin1Char('/') + QString(100, QLatin1Char('e'))
            + QLatin1Char('/')};
    static const QStringList names{QStringLiteral("README"), QStringLiteral("game.exe"),
        QStringLiteral("world.pak"), QStringLiteral("world.pak.temp"), QStringLiteral("a.tar.gz"),
        QStringLiteral("ends with a dot."), QStringLiteral("two  blanks"),
        QStringLiteral(" blanks around "), QStringLiteral("Gr\u00f6\u00dfe.txt"),
        QStringLiteral("Gro\u0308\u00dfe.txt"), QStringLiteral("100%.txt"),
        QStringLiteral("%1%2%n"), QStringLiteral("case"), QStringLiteral("Case"),
        QStringLiteral("CASE"), QStringLiteral("quote\"d 'name'"), QStringLiteral("back\\slash"),
        QStringLiteral("tab\there"), QStringLiteral("line\nbreak"),
        QStringLiteral("\u65e5\u672c\u8a9e.dat"), QString::fromUtf8("smile \xf0\x9f\x98\x80.png"),
        QStringLiteral("do..ts...ini"), QStringLiteral("*?[a]{b}"), QStringLiteral("-dash"),
        QStringLiteral("#hash;&|"), QStringLiteral("~"), QStringLiteral("x"),
        QString(255, QLatin1Char('n'))};
    static const QStringList manifestNames{
        QStringLiteral("sub/signatures.json"), QStringLiteral("sub/patchRules.json")};
    if (random.chance(3))
        return random.of(manifestNames);
    if (random.chance(3))
        return random.of(folders) + QStringLiteral(".hidden");
    if (random.chance(2))
        return QStringLiteral(".folder/") + random.of(names);
    const QString number = random.chance(30) ? QString::number(random.below(10)) : QString();
    return random.of(folders) + number + random.of(names).left(255 - number.size());
}

/// Whether a file may lie at @p path, beside the files and folders of @p build.
bool isFree(const RandomBuild &build, const QString &path)
{
    if (build.contains(path))
        return false;
    const auto inside = build.lowerBound(path + QLatin1Char('/'));
    if (inside != build.end() && inside.key().startsWith(path + QLatin1Char('/')))
        return false;
    for (int slash = path.indexOf(QLatin1Char('/')); slash >= 0;
         slash = path.indexOf(QLatin1Char('/'), slash + 1)) {
        if (build.contains(path.left(slash)))
            return false;
    }
    return true;
}

void add(RandomBuild &build, const QString &path, const RandomFile &file)
{
    if (isFree(build, path))
        build.insert(path, file);
}

/// Makes the two builds of a release, the one after out of the one before.
class Maker
{
public:
    Maker(quint64 seed, RandomSizes sizes)
        : m_random(seed * 2 + (sizes == RandomSizes::Large ? 1 : 0))
        , m_sizes(sizes)
    {
    }

    RandomRelease make()
    {
        makeBefore();
        makeAfter();
        addLinks(m_release.before);
        addLinks(m_release.after);
        if (m_random.chance(50))
            ignoreSome();
        return m_release;
    }

private:
    bool isLarge() const { return m_sizes == RandomSizes::Large; }

    RandomFile freshFile(int percentLarge)
    {
        const bool large = isLarge() && m_random.chance(percentLarge);
        const int size = large ? sizeAroundMiB(m_random) : sizeAroundBlocks(m_random);
        return {content(m_random, size), permissions(m_random), QString()};
    }

    void makeBefore()
    {
        if (isLarge())
            add(m_release.before, QStringLiteral("large"), freshFile(100));
        int count = isLarge() ? m_random.between(0, 4) : m_random.between(2, 12);
        if (m_random.chance(4))
            count = 0;
        while (count-- > 0)
            add(m_release.before, path(m_random), freshFile(20));
    }

    void makeAfter()
    {
        if (m_random.chance(2))
            return;
        if (m_random.chance(2)) {
            m_release.after = m_release.before;
            return;
        }
        for (auto file = m_release.before.cbegin(); file != m_release.before.cend(); ++file)
            hand(file.key(), file.value());
        for (int count = m_random.between(0, isLarge() ? 2 : 4); count > 0; --count) {
            RandomFile file = freshFile(30);
            if (m_random.chance(30))
                file.content = edited(m_random, anyOldContent());
            add(m_release.after, path(m_random), file);
        }
    }

    /// What becomes of one file of the build before.
    void hand(const QString &path, RandomFile file)
    {
        const bool isTheLargeOne = isLarge() && path == QLatin1String("large");
        QString newPath = path;
        switch (m_random.below(isTheLargeOne ? 11 : 20)) {
        case 0:
        case 1:
        case 2:
            break; // stays
        case 3:
        case 4:
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
            file.content = edited(m_random, file.content);
            break;
        case 10:
            file.content = freshFile(30).content;
            break;
        case 11:
            return; // is gone
        case 12:
            newPath = ::path(m_random);
            break;
        case 13:
            newPath = ::path(m_random);
            file.content = edited(m_random, file.content);
            break;
        case 14:
            file.permissions = permissions(m_random);
            break;
        case 15:
            file.content.clear();
            break;
        case 16:
            file.content = anyOldContent(); // swapped
            break;
        case 17:
            file.content += freshFile(0).content;
            break;
        case 18:
            newPath += QStringLiteral("/was a file");
            break;
        default:
            newPath = path.section(QLatin1Char('/'), 0, 0); // may have been a folder
            break;
        }
        add(m_release.after, newPath, file);
    }

    QByteArray anyOldContent()
    {
        const QList<RandomFile> files = m_release.before.values();
        return files.isEmpty() ? QByteArray() : m_random.of(files).content;
    }

    void addLinks(RandomBuild &build)
    {
        const QStringList targets = build.keys();
        if (targets.isEmpty() || !m_random.chance(25))
            return;
        for (const QString &path : {QStringLiteral("a link"), QStringLiteral("data/link.lnk")}) {
            const QString target = m_random.of(targets);
            RandomFile link = build.value(target);
            const int ups = path.count(QLatin1Char('/'));
            link.linkTarget = QStringLiteral("../").repeated(ups) + target;
            add(build, path, link);
        }
    }

    void ignoreSome()
    {
        const QStringList paths = m_release.before.keys() + m_release.after.keys()
            + QStringList(QStringLiteral("nowhere"));
        for (int count = m_random.between(1, 4); count > 0; --count)
            m_release.ignored.append(m_random.of(paths));
    }

    Random m_random;
    const RandomSizes m_sizes;
    RandomRelease m_release;
};

void require(bool done, const char *what, const QString &path)
{
    if (!done)
        qFatal("random build: cannot %s %s", what, qPrintable(path));
}

void lay(const RandomFile &file, const QString &path)
{
    require(QDir().mkpath(QFileInfo(path).path()), "make the folder of", path);
    if (!file.linkTarget.isEmpty()) {
        require(QFile::link(file.linkTarget, path), "link", path);
        return;
    }
    QFile output(path);
    require(output.open(QIODevice::WriteOnly | QIODevice::Unbuffered | QIODevice::NewOnly)
            && output.write(file.content) == file.content.size(),
        "write", path);
    require(::fchmod(output.handle(), file.permissions) == 0, "set the permissions of", path);
}

} // namespace

bool isHidden(const QString &relativePath)
{
    return relativePath.startsWith(QLatin1Char('.')) || relativePath.contains(QLatin1String("/."));
}

void layBuild(const RandomBuild &build, const QString &folder)
{
    require(QDir().mkpath(folder), "make", folder);
    for (auto file = build.cbegin(); file != build.cend(); ++file)
        lay(file.value(), folder + QLatin1Char('/') + file.key());
}

RandomRelease randomRelease(quint64 seed, RandomSizes sizes)
{
    return Maker(seed, sizes).make();
}
