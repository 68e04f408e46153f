// SPDX-License-Identifier: MIT

// The tests' stand-in for the 7-Zip console program. Notes how it was called in the folder that
// PELLOX_FAKE_7ZR names, then does what the script there says, one step a line: a word and what it
// needs. Chunks of output are in hexadecimal digits.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

std::string s_folder;
std::string s_run;

/// Appears as a whole or not at all.
void note(const std::string &name, const std::string &content)
{
    const std::string path = s_folder + '/' + name;
    {
        std::ofstream file(path + ".new", std::ios::binary);
        file << content;
    }
    if (std::rename((path + ".new").c_str(), path.c_str()) != 0)
        _exit(97);
}

[[noreturn]] void giveUp(const std::string &why)
{
    note("trouble", why + ": " + std::strerror(errno));
    _exit(98);
}

/// The number of this run: how many there have been in this folder, itself included.
std::string nextRun()
{
    for (int run = 1;; ++run) {
        const std::string name = std::to_string(run);
        const int file = open((s_folder + '/' + name + ".run").c_str(), O_CREAT | O_EXCL, 0600);
        if (file >= 0) {
            close(file);
            return name;
        }
        if (errno != EEXIST)
            giveUp("cannot count the runs");
    }
}

std::string currentFolder()
{
    char *name = getcwd(nullptr, 0);
    if (!name)
        giveUp("no working directory");
    std::string folder(name);
    std::free(name);
    return folder;
}

std::string bytesOf(const std::string &hex)
{
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

/// A chunk that is written to an empty pipe is read as one chunk.
void waitUntilRead(int channel)
{
    int waiting = 0;
    while (ioctl(channel, FIONREAD, &waiting) == 0 && waiting > 0) {
        pollfd reader{channel, 0, 0};
        if (poll(&reader, 1, 1) > 0)
            giveUp("nobody reads");
    }
}

void put(int channel, const std::string &bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = write(channel, bytes.data() + done, bytes.size() - done);
        if (count < 0)
            giveUp("cannot write");
        done += static_cast<std::size_t>(count);
    }
}

void waitFor(const std::string &name)
{
    while (access((s_folder + '/' + name).c_str(), F_OK) != 0)
        poll(nullptr, 0, 1);
}

std::string readToEnd(int channel)
{
    std::string bytes;
    char buffer[4096];
    while (true) {
        const ssize_t count = read(channel, buffer, sizeof buffer);
        if (count < 0)
            giveUp("cannot read");
        if (count == 0)
            return bytes;
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
}

void play(const std::string &step)
{
    std::istringstream words(step);
    std::string what;
    std::string how;
    words >> what >> how;
    if (what == "out" || what == "err") {
        const int channel = what == "out" ? STDOUT_FILENO : STDERR_FILENO;
        waitUntilRead(channel);
        put(channel, bytesOf(how));
    } else if (what == "flood") {
        int times = 0;
        words >> times;
        for (int i = 0; i < times; ++i)
            put(STDOUT_FILENO, bytesOf(how));
    } else if (what == "wait") {
        waitFor(how);
    } else if (what == "input") {
        note(s_run + ".input", readToEnd(STDIN_FILENO));
    } else if (what == "exit") {
        std::exit(std::stoi(how));
    } else if (what == "kill") {
        // Quietly, also where a sanitizer listens or a core would be written.
        signal(std::stoi(how), SIG_DFL);
        raise(std::stoi(how));
    } else if (what == "hang") {
        while (true)
            pause();
    } else {
        giveUp("unknown step " + what);
    }
}

} // namespace

int main(int argc, char **argv)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL); // outlives no test program
    const char *folder = std::getenv("PELLOX_FAKE_7ZR");
    if (!folder) {
        std::fputs("PELLOX_FAKE_7ZR is not set\n", stderr);
        return 99;
    }
    s_folder = folder;
    s_run = nextRun();

    // Read as a whole first: the test may write the next run's while this one goes on.
    std::vector<std::string> steps;
    std::ifstream script(s_folder + "/script");
    if (!script)
        giveUp("no script");
    for (std::string step; std::getline(script, step);)
        steps.push_back(step);

    std::string arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(argv[i]).push_back('\0');
    note(s_run + ".arguments", arguments);
    note(s_run + ".folder", currentFolder());
    note(s_run + ".pid", std::to_string(getpid()));

    for (const std::string &step : steps)
        play(step);
    return 0;
}
