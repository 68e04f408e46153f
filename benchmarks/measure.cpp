// SPDX-License-Identifier: MIT
// Runs a command and tells what it cost, with all processes that it started.
// Usage: bench_measure OUTPUT once|sum COMMAND...
// Writes to OUTPUT: wall, user and system seconds, the memory in KiB of the largest process, and,
// with "sum", of all processes at the same time; without, 0. To find that sum it looks two hundred
// times a second, after five seconds twenty times. Ends with the command's exit status.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "bench_measure: %s: %s\n", what, std::strerror(errno));
    std::exit(125);
}

/// The first bytes of a file of /proc; empty once the process is gone.
std::string contentOf(const std::string &path)
{
    std::array<char, 4096> buffer{};
    std::FILE *file = std::fopen(path.c_str(), "r");
    if (!file)
        return {};
    const std::size_t got = std::fread(buffer.data(), 1, buffer.size() - 1, file);
    std::fclose(file);
    return {buffer.data(), got};
}

long residentPages(const std::string &process)
{
    const std::string numbers = contentOf("/proc/" + process + "/statm");
    const std::size_t second = numbers.find(' ');
    return second == std::string::npos ? 0 : std::strtol(numbers.c_str() + second, nullptr, 10);
}

/// Of the process and all that descend from it. What several share counts for each.
long residentPagesOfTree(const std::string &process)
{
    long pages = residentPages(process);
    const std::string path = "/proc/" + process + "/task/" + process + "/children";
    const std::string children = contentOf(path);
    for (std::size_t begin = 0; begin < children.size();) {
        const std::size_t end = std::min(children.find(' ', begin), children.size());
        if (end > begin)
            pages += residentPagesOfTree(children.substr(begin, end - begin));
        begin = end + 1;
    }
    return pages;
}

double secondsOf(const timeval &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::fputs("usage: bench_measure OUTPUT once|sum COMMAND...\n", stderr);
        return 125;
    }
    const bool sampling = std::strcmp(argv[2], "sum") == 0;
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0)
        fail("fork");
    if (child == 0) {
        execvp(argv[3], argv + 3);
        fail(argv[3]);
    }

    int status = 0;
    rusage usage{};
    long mostPages = 0;
    while (wait4(child, &status, sampling ? WNOHANG : 0, &usage) == 0) {
        mostPages = std::max(mostPages, residentPagesOfTree(std::to_string(child)));
        const bool isLong = std::chrono::steady_clock::now() - start > std::chrono::seconds(5);
        std::this_thread::sleep_for(std::chrono::milliseconds(isLong ? 50 : 5));
    }
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;

    std::FILE *output = std::fopen(argv[1], "w");
    if (!output)
        fail(argv[1]);
    std::fprintf(output, "%.6f %.6f %.6f %ld %ld\n", wall.count(), secondsOf(usage.ru_utime),
        secondsOf(usage.ru_stime), usage.ru_maxrss, mostPages * (sysconf(_SC_PAGESIZE) / 1024));
    std::fclose(output);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 126;
}
