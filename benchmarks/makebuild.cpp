// SPDX-License-Identifier: MIT
// Makes a pair of game builds, the old and the new one, the same bytes on every machine and run.
// Usage: bench_makebuild PROFILE SIZE OLD NEW
// PROFILE is mixed, unchanged, huge or program with SIZE in bytes, or small with SIZE in files. A
// "-" for OLD or NEW leaves that build out. Prints as CSV what the pair consists of.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::uint64_t KiB = 1024;
constexpr std::uint64_t MiB = 1024 * KiB;
constexpr std::uint64_t PieceSize = 64 * KiB; // content is made, and moved, by such pieces

[[noreturn]] void fail(const std::string &what)
{
    std::fprintf(stderr, "bench_makebuild: %s\n", what.c_str());
    std::exit(1);
}

/**
 * SplitMix64: its numbers, unlike the standard distributions, are the same with every compiler.
 * For the same reason no expression asks for two in an order that is up to the compiler.
 */
class Random
{
public:
    explicit Random(std::uint64_t seed)
        : m_state(seed)
    {
    }

    std::uint64_t next()
    {
        std::uint64_t z = (m_state += 0x9e3779b97f4a7c15U);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31);
    }

    std::uint64_t below(std::uint64_t end) { return next() % end; }
    std::uint64_t between(std::uint64_t first, std::uint64_t last)
    {
        return first + below(last - first + 1);
    }
    double unit() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }

    template <class T> void shuffle(std::vector<T> &items)
    {
        for (std::size_t i = items.size(); i > 1; --i)
            std::swap(items[i - 1], items[below(i)]);
    }

private:
    std::uint64_t m_state;
};

/// An independent seed out of two numbers.
std::uint64_t seedOf(std::uint64_t seed, std::uint64_t index)
{
    return Random(seed ^ (index * 0xd1342543de82ef95U)).next();
}

// --- content

enum class Kind { Texture, Records, Program, Text };
constexpr std::array<Kind, 4> Kinds{Kind::Texture, Kind::Records, Kind::Program, Kind::Text};
constexpr std::array<double, 4> KindShares{0.50, 0.20, 0.15, 0.15};
constexpr std::array<const char *, 4> KindFolders{"textures", "levels", "bin", "scripts"};
constexpr std::array<const char *, 4> KindSuffixes{"tex", "lvl", "dll", "json"};

template <class T> void append(std::string &out, T value)
{
    std::array<char, sizeof(T)> bytes{};
    std::memcpy(bytes.data(), &value, sizeof(T));
    out.append(bytes.data(), bytes.size());
}

/// Already compressed: no two pieces have anything in common.
void addTexture(std::string &out, std::size_t size, Random &random)
{
    while (out.size() < size)
        append(out, random.next());
}

/// 32 bytes each: a running number, a type, a position near the one before, flags, padding.
void addRecords(std::string &out, std::size_t size, Random &random)
{
    auto id = static_cast<std::uint32_t>(random.below(1U << 24));
    std::array<std::int32_t, 3> position{};
    while (out.size() < size) {
        append(out, id++);
        append(out, static_cast<std::uint16_t>(random.below(40)));
        append(out, static_cast<std::uint16_t>(random.below(8) == 0 ? random.below(256) : 0));
        for (std::int32_t &coordinate : position) {
            coordinate += static_cast<std::int32_t>(random.below(2001)) - 1000;
            append(out, coordinate);
        }
        append(out, std::uint64_t{0});
        append(out, static_cast<std::uint32_t>(random.below(16)));
    }
}

std::vector<std::string> instructions()
{
    Random random(1);
    std::vector<std::string> all(1024);
    for (std::string &one : all) {
        const std::size_t length = random.between(1, 6);
        while (one.size() < length)
            append(one, static_cast<std::uint8_t>(random.below(256)));
    }
    return all;
}

/// Machine code by its looks: few instructions are frequent, one in four has an operand.
void addProgram(std::string &out, std::size_t size, Random &random)
{
    static const std::vector<std::string> All = instructions();
    while (out.size() < size) {
        const double pick = random.unit();
        out += All[static_cast<std::size_t>(pick * pick * pick * static_cast<double>(All.size()))];
        if (random.below(4) == 0)
            append(out, static_cast<std::int32_t>(random.below(1U << 14)) - (1 << 13));
    }
}

std::vector<std::string> words()
{
    Random random(2);
    const std::string consonants = "bcdfghklmnprstvw";
    const std::string vowels = "aeiou";
    std::vector<std::string> all(2048);
    for (std::string &one : all) {
        for (std::uint64_t syllables = random.between(1, 4); syllables > 0; --syllables) {
            one += consonants[random.below(consonants.size())];
            one += vowels[random.below(vowels.size())];
        }
    }
    return all;
}

void addText(std::string &out, std::size_t size, Random &random)
{
    static const std::vector<std::string> All = words();
    const auto word = [&]() -> const std::string & { return All[random.below(All.size())]; };
    while (out.size() < size) {
        out += R"(    { "id": )" + std::to_string(random.below(1000000)) + R"(, "name": ")";
        out += word() + '_';
        out += word() + R"(", "text": ")";
        for (std::uint64_t count = random.between(2, 12); count > 0; --count)
            out += word() + ' ';
        out += R"(", "enabled": )";
        out += random.below(2) == 0 ? "true },\n" : "false },\n";
    }
}

std::string content(Kind kind, std::uint64_t seed, std::size_t size)
{
    Random random(seed);
    std::string out;
    out.reserve(size + KiB);
    switch (kind) {
    case Kind::Texture:
        addTexture(out, size, random);
        break;
    case Kind::Records:
        addRecords(out, size, random);
        break;
    case Kind::Program:
        addProgram(out, size, random);
        break;
    case Kind::Text:
        addText(out, size, random);
        break;
    }
    out.resize(size);
    return out;
}

// --- what becomes of a file

enum class Fate { Unchanged, Edited, Appended, Rewritten, New, Deleted, Relinked };
constexpr std::array<Fate, 7> Fates{Fate::Unchanged, Fate::Edited, Fate::Appended, Fate::Rewritten,
    Fate::New, Fate::Deleted, Fate::Relinked};
constexpr std::array<const char *, 7> FateNames{
    "unchanged", "edited", "appended to", "rewritten", "new", "deleted", "relinked"};

/// How often an edited file is edited: times per MiB, but for what holds for whole files.
struct Edits
{
    double inPlace = 0;       ///< 1 to 256 bytes overwritten
    double insertions = 0;    ///< 1 to 4096 bytes
    double removals = 0;      ///< 1 to 4096 bytes
    double exchanges = 0;     ///< two pieces change places
    double insertedShare = 0; ///< of the file's size, in one place in its middle
};

struct File
{
    std::string path;
    Kind kind = Kind::Texture;
    Fate fate = Fate::Unchanged;
    std::uint64_t size = 0; ///< of the old one, or of the only one
    std::uint64_t seed = 0;
    Edits edits;
    bool isPack = false; ///< of all kinds of content, in turn

    std::uint64_t pieces() const { return (size + PieceSize - 1) / PieceSize; }

    std::string piece(std::uint64_t index) const
    {
        const auto pieceSize = std::min(PieceSize, size - index * PieceSize);
        const Kind itsKind = isPack ? Kinds[index / 16 % Kinds.size()] : kind;
        return content(itsKind, seedOf(seed, index), pieceSize);
    }
};

/// Writes a file, and counts.
class Output
{
public:
    explicit Output(const std::string &path)
        : m_path(path)
    {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        m_file.reset(std::fopen(path.c_str(), "wb"));
        if (!m_file)
            fail(path + ": cannot be opened");
    }

    void add(const std::string &bytes)
    {
        if (std::fwrite(bytes.data(), 1, bytes.size(), m_file.get()) != bytes.size())
            fail(m_path + ": cannot be written");
        m_size += bytes.size();
    }

    std::uint64_t close()
    {
        if (std::fclose(m_file.release()) != 0)
            fail(m_path + ": cannot be written");
        return m_size;
    }

private:
    struct Close
    {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };

    std::string m_path;
    std::unique_ptr<std::FILE, Close> m_file;
    std::uint64_t m_size = 0;
};

void addPlain(Output &output, const File &file)
{
    for (std::uint64_t i = 0; i < file.pieces(); ++i)
        output.add(file.piece(i));
}

/// Which old piece comes where in the edited file.
std::vector<std::uint64_t> pieceOrder(const File &file, Random &random)
{
    std::vector<std::uint64_t> order(file.pieces());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    const double exchanges = file.edits.exchanges * static_cast<double>(file.size) / MiB;
    for (auto left = static_cast<std::uint64_t>(exchanges); left > 0 && order.size() > 1; --left) {
        const auto one = random.below(order.size());
        std::swap(order[one], order[random.below(order.size())]);
    }
    return order;
}

void overwrite(std::string &piece, const File &file, Random &random)
{
    const auto at = random.below(piece.size());
    const auto length = std::min<std::uint64_t>(random.between(1, 256), piece.size() - at);
    // Not always another content: the first byte is made to differ.
    std::string bytes = content(file.kind, random.next(), length);
    bytes[0] = static_cast<char>(piece[at] ^ 1);
    piece.replace(at, length, bytes);
}

void insertInto(std::string &piece, const File &file, Random &random)
{
    const auto at = random.below(piece.size());
    const auto size = random.between(1, 4 * KiB);
    piece.insert(at, content(file.kind, random.next(), size));
}

void removeFrom(std::string &piece, Random &random)
{
    const auto at = random.below(piece.size());
    piece.erase(at, random.between(1, 4 * KiB));
}

void addEdited(Output &output, const File &file)
{
    Random random(seedOf(file.seed, ~std::uint64_t{0}));
    const std::vector<std::uint64_t> order = pieceOrder(file, random);
    const auto happens = [&](double perMiB, std::size_t size) {
        return random.unit() < perMiB * static_cast<double>(size) / MiB;
    };
    const auto firstEdited = random.below(order.size()); // each file has an edit at least
    for (std::size_t i = 0; i < order.size(); ++i) {
        std::string piece = file.piece(order[i]);
        const std::size_t size = piece.size();
        if (i == firstEdited || happens(file.edits.inPlace, size))
            overwrite(piece, file, random);
        if (happens(file.edits.insertions, size))
            insertInto(piece, file, random);
        if (happens(file.edits.removals, size))
            removeFrom(piece, random);
        output.add(piece);
        if (i == order.size() / 2 && file.edits.insertedShare > 0) {
            File part = file;
            part.seed = random.next();
            part.size = static_cast<std::uint64_t>(
                static_cast<double>(file.size) * file.edits.insertedShare);
            addPlain(output, part);
        }
    }
}

void addGrown(Output &output, const File &file)
{
    addPlain(output, file);
    output.add(content(file.kind, seedOf(file.seed, ~std::uint64_t{0}), file.size / 8 + 100));
}

void addRewritten(Output &output, File file)
{
    file.seed = seedOf(file.seed, ~std::uint64_t{0});
    addPlain(output, file);
}

/**
 * A program as a linker leaves it: functions that call one another by distance, which a change
 * anywhere between the two changes too, and tables of addresses.
 */
class Linked
{
public:
    explicit Linked(const File &file)
        : m_seed(file.seed)
    {
        Random random(m_seed);
        for (std::uint64_t size = 0; size < file.size; size += m_functions.back().size)
            m_functions.push_back({random.next(), random.between(48, 1200), Change::None});
    }

    /// What a few changed sources make of it: three functions in a hundred have another size.
    void edit()
    {
        Random random(seedOf(m_seed, ~std::uint64_t{0}));
        for (Function &function : m_functions) {
            const std::uint64_t pick = random.below(100);
            if (pick < 2)
                function.change = Change::Edited;
            else if (pick == 2)
                function.change = Change::Doubled;
        }
    }

    std::string content() const
    {
        std::vector<std::string> codes;
        std::vector<std::uint64_t> places;
        std::uint64_t place = 0;
        for (const Function &function : m_functions) {
            codes.push_back(codeOf(function));
            places.push_back(place);
            place += codes.back().size();
        }
        std::string out;
        for (std::size_t i = 0; i < m_functions.size(); ++i) {
            setDistances(codes[i], i, places);
            out += codes[i];
        }
        for (std::size_t i = 0; i < places.size(); i += 8) // a table of what is called by address
            append(out, std::uint64_t{0x400000} + places[i]);
        return out;
    }

private:
    enum class Change { None, Edited, Doubled };
    struct Function
    {
        std::uint64_t seed;
        std::uint64_t size; ///< about
        Change change;
    };
    static constexpr char Call = '\xe8'; ///< followed by four bytes
    static constexpr std::size_t CallSize = 5;

    static std::string codeOf(const Function &function)
    {
        std::string code = ::content(Kind::Program, function.seed, function.size);
        std::replace(code.begin(), code.end(), Call, '\x90');
        for (std::size_t at = 20; at + CallSize <= code.size(); at += 20 + code.size() % 23)
            code.replace(at, CallSize, std::string(1, Call) + "    ");
        Random random(seedOf(function.seed, 1));
        if (function.change == Change::Edited)
            code.insert(
                code.size() / 2, ::content(Kind::Text, function.seed, random.between(1, 60)));
        else if (function.change == Change::Doubled)
            code += code;
        return code;
    }

    void setDistances(
        std::string &code, std::size_t caller, const std::vector<std::uint64_t> &places) const
    {
        Random random(seedOf(m_functions[caller].seed, 2));
        for (std::size_t at = code.find(Call);
             at != std::string::npos && at + CallSize <= code.size();
             at = code.find(Call, at + CallSize)) {
            // Most calls stay near, some go anywhere, many of these to the same few.
            const double far = random.unit();
            const std::size_t step = random.below(200);
            const std::size_t callee = random.below(3) != 0
                ? (caller + places.size() + step - 100) % places.size()
                : static_cast<std::size_t>(far * far * far * static_cast<double>(places.size()));
            const auto distance
                = static_cast<std::int32_t>(static_cast<std::int64_t>(places[callee])
                    - static_cast<std::int64_t>(places[caller] + at + CallSize));
            std::memcpy(code.data() + at + 1, &distance, sizeof distance);
        }
    }

    std::uint64_t m_seed;
    std::vector<Function> m_functions;
};

std::uint64_t writeOld(const File &file, const std::string &folder)
{
    Output output(folder + '/' + file.path);
    if (file.fate == Fate::Relinked)
        output.add(Linked(file).content());
    else
        addPlain(output, file);
    return output.close();
}

std::uint64_t writeNew(const File &file, const std::string &folder)
{
    Output output(folder + '/' + file.path);
    switch (file.fate) {
    case Fate::Edited:
        addEdited(output, file);
        break;
    case Fate::Appended:
        addGrown(output, file);
        break;
    case Fate::Rewritten:
        addRewritten(output, file);
        break;
    case Fate::Relinked: {
        Linked program(file);
        program.edit();
        output.add(program.content());
        break;
    }
    default:
        addPlain(output, file);
    }
    return output.close();
}

// --- profiles

std::string pathOf(Kind kind, std::size_t index)
{
    const auto number = static_cast<std::size_t>(kind);
    std::array<char, 64> path{};
    std::snprintf(path.data(), path.size(), "%s/%03zu/%06zu.%s", KindFolders[number], index / 200,
        index, KindSuffixes[number]);
    return path.data();
}

/// Of files that are more or less even on a logarithmic scale, one in seven of the larger half.
std::vector<std::uint64_t> mixedSizes(std::uint64_t total, Random &random)
{
    const std::uint64_t largest = std::min(100 * MiB, total / 10);
    const std::uint64_t middle = std::min(512 * KiB, largest / 8);
    const auto logarithmic = [&](std::uint64_t from, std::uint64_t to) {
        std::uint64_t octaves = 1;
        while (from << octaves < to)
            ++octaves;
        const std::uint64_t first = from << random.below(octaves);
        return random.between(first, std::min(2 * first, to));
    };
    std::vector<std::uint64_t> sizes{largest};
    for (std::uint64_t sum = largest; sum < total; sum += sizes.back()) {
        const auto size
            = random.below(7) == 0 ? logarithmic(middle, largest) : logarithmic(4 * KiB, middle);
        sizes.push_back(std::min(size, total - sum));
    }
    return sizes;
}

using FateShares = std::array<double, 6>; ///< of those up to Deleted

/**
 * Largest first, each file takes the fate and kind that lack the most bytes, so that the shares
 * hold for both, whatever the sizes.
 */
std::vector<File> mixed(std::uint64_t bytes, const FateShares &fateShares)
{
    Random random(20240229);
    const double ofOld = 1 - fateShares[static_cast<std::size_t>(Fate::New)];
    const double total = static_cast<double>(bytes) / ofOld;
    std::vector<std::uint64_t> sizes = mixedSizes(static_cast<std::uint64_t>(total), random);
    std::sort(sizes.rbegin(), sizes.rend());

    std::array<double, std::tuple_size_v<FateShares> * Kinds.size()> lacking{};
    for (std::size_t i = 0; i < lacking.size(); ++i)
        lacking[i] = total * fateShares[i / Kinds.size()] * KindShares[i % Kinds.size()];
    Edits edits;
    edits.inPlace = 8;
    edits.insertions = 1;
    edits.removals = 0.5;
    edits.exchanges = 1;
    std::vector<File> files;
    for (const std::uint64_t size : sizes) {
        auto *const cell = std::max_element(lacking.begin(), lacking.end());
        *cell -= static_cast<double>(size);
        const auto index = static_cast<std::size_t>(cell - lacking.begin());
        File file;
        file.kind = Kinds[index % Kinds.size()];
        file.fate = Fates[index / Kinds.size()];
        file.size = size;
        file.seed = random.next();
        file.edits = edits;
        files.push_back(file);
    }
    random.shuffle(files);
    for (std::size_t i = 0; i < files.size(); ++i)
        files[i].path = pathOf(files[i].kind, i);
    return files;
}

std::vector<File> huge(std::uint64_t bytes)
{
    File file;
    file.path = "world.pak";
    file.isPack = true;
    file.fate = Fate::Edited;
    file.size = bytes;
    file.seed = 20240301;
    file.edits.inPlace = 4;
    file.edits.insertions = 1;
    file.edits.insertedShare = 0.015;
    return {file};
}

Fate smallFate(std::size_t index, std::size_t count)
{
    const auto percent = static_cast<double>(index) * 100 / static_cast<double>(count);
    if (percent < 9)
        return Fate::Edited;
    if (percent < 10)
        return Fate::Rewritten;
    return percent < 12 ? Fate::Deleted : Fate::Unchanged;
}

std::vector<File> small(std::size_t count)
{
    Random random(20240302);
    std::vector<File> files(count + count / 50);
    for (std::size_t i = 0; i < files.size(); ++i) {
        files[i].kind = Kinds[random.below(Kinds.size())];
        files[i].fate = i < count ? smallFate(i, count) : Fate::New;
        // A changed file has content, so that there is something to change.
        const bool mayBeEmpty = files[i].fate != Fate::Edited && files[i].fate != Fate::Rewritten;
        const bool isEmpty = mayBeEmpty && random.below(200) == 0;
        files[i].size = isEmpty ? 0 : random.between(1, 32 * KiB);
        files[i].seed = random.next();
        files[i].edits.inPlace = 32;
        files[i].edits.insertions = 8;
    }
    random.shuffle(files);
    for (std::size_t i = 0; i < files.size(); ++i)
        files[i].path = pathOf(files[i].kind, i);
    return files;
}

/// Programs and libraries of one application, the next version of which is linked anew.
std::vector<File> program(std::uint64_t bytes)
{
    Random random(20240303);
    std::vector<File> files;
    for (std::uint64_t left = bytes; left > 0; left -= files.back().size) {
        File file;
        file.path = pathOf(Kind::Program, files.size());
        file.kind = Kind::Program;
        file.fate = Fate::Relinked;
        file.size = files.empty() ? (left + 1) / 2 : std::min(left, random.between(KiB, bytes / 8));
        file.seed = random.next();
        files.push_back(file);
    }
    return files;
}

std::vector<File> filesOf(const std::string &profile, std::uint64_t size)
{
    if (profile == "mixed")
        return mixed(size, {0.50, 0.25, 0.07, 0.08, 0.05, 0.05});
    if (profile == "unchanged")
        return mixed(size, {1, 0, 0, 0, 0, 0});
    if (profile == "huge")
        return huge(size);
    if (profile == "small")
        return small(size);
    if (profile == "program")
        return program(size);
    fail("no such profile: " + profile);
}

// --- the whole

struct Sum
{
    std::uint64_t files = 0;
    std::uint64_t oldBytes = 0;
    std::uint64_t newBytes = 0;
};

void print(const char *name, const Sum &sum)
{
    std::printf("%s,%llu,%llu,%llu\n", name, static_cast<unsigned long long>(sum.files),
        static_cast<unsigned long long>(sum.oldBytes),
        static_cast<unsigned long long>(sum.newBytes));
}

} // namespace

int main(int argc, char **argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() != 4)
        fail("usage: bench_makebuild mixed|unchanged|huge|program|small SIZE OLD NEW");
    const std::uint64_t size = std::strtoull(arguments[1].c_str(), nullptr, 10);
    const std::string &oldFolder = arguments[2];
    const std::string &newFolder = arguments[3];

    std::map<Fate, Sum> byFate;
    for (const File &file : filesOf(arguments[0], size)) {
        Sum &sum = byFate[file.fate];
        ++sum.files;
        if (file.fate != Fate::New && oldFolder != "-")
            sum.oldBytes += writeOld(file, oldFolder);
        if (file.fate != Fate::Deleted && newFolder != "-")
            sum.newBytes += writeNew(file, newFolder);
    }
    std::printf("fate,files,old bytes,new bytes\n");
    for (const Fate fate : Fates)
        print(FateNames[static_cast<std::size_t>(fate)], byFate[fate]);
    return 0;
}
