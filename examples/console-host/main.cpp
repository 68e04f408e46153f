// SPDX-License-Identifier: MIT
// Keeps an installed game up to date, in a terminal: there calls may block, and need no Qt.
// Exit status 0: all is well, 1: it is not, 2: wrong usage, 130: nothing was done, after Ctrl-C.
#include <Pellox/pellox.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <unistd.h>

static pellox_job *s_job = nullptr;                     // lasts as long as the program
static auto s_start = std::chrono::steady_clock::now(); // of the phase

static void say(const std::string &text)
{
    std::printf("%s%s\n", isatty(STDOUT_FILENO) ? "\r\033[K" : "", text.c_str());
    std::fflush(stdout);
}

static void showPhase(void *, int phase)
{
    const char *texts[] = {"", "Finishing", "Checking", "Writing", "Putting in place"};
    say(phase < 5 ? texts[phase] : "Working"); // a later library may have more
    s_start = std::chrono::steady_clock::now();
}

static void showProgress(void *, int64_t done, int64_t total)
{
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - s_start;
    const double speed = double(done + 1) / (seconds.count() + 0.001);
    if (isatty(STDERR_FILENO))
        std::fprintf(stderr, "\r\033[K%.1f of %.1f MB, %.1f MB/s, %.0f s left", double(done) / 1e6,
            double(total) / 1e6, speed / 1e6, double(total - done) / speed);
}

static void showFile(void *, int event, const char *path)
{
    const char *texts[] = {"", "Written", "Changed", "Missing", "Unreadable", "Not of the game",
        "To patch", "To add", "To delete"};
    say(std::string(event < 9 ? texts[event] : "File") + ": " + path);
}

static void showProblem(void *, const pellox_problem *problem)
{
    say(std::string(problem->message) + "\n  " + problem->advice);
}

int main(int argc, char **argv)
{
    const std::string job = argc > 1 ? argv[1] : "";
    const bool isRepair = job == "repair" && argc == 5;
    if (!isRepair && (argc != 4 || (job != "check" && job != "update" && job != "verify")))
        return say("Usage: console-host check|update BUILD PATCH\n"
                   "  or verify BUILD SIGNATURES, or repair BUILD SIGNATURES SOURCE"),
               2;
    s_job = pellox_job_new();
    std::signal(SIGINT, [](int) { pellox_cancel(s_job); });
    pellox_on_problem(s_job, showProblem, nullptr);
    pellox_on_phase(s_job, showPhase, nullptr);
    pellox_on_file(s_job, showFile, nullptr);
    std::string patch = argv[3];
    std::error_code error;
    int result = PELLOX_DONE;
    if (std::filesystem::is_regular_file(patch, error)) {
        patch += ".XXXXXX"; // unpacked beside it, as the folder for temporary files may be small
        result = pellox_unpack(s_job, argv[3], ::mkdtemp(patch.data()));
    }
    pellox_on_progress(s_job, showProgress, nullptr); // in bytes from now on
    if (result == PELLOX_DONE)
        result = isRepair     ? pellox_repair(s_job, argv[2], patch.c_str(), argv[4])
            : job == "verify" ? pellox_check(s_job, argv[2], patch.c_str())
            : job == "check"  ? pellox_plan(s_job, argv[2], patch.c_str())
                              : pellox_update(s_job, argv[2], patch.c_str());
    if (patch != argv[3])
        std::filesystem::remove_all(patch, error);
    say(pellox_result_name(result));
    return result <= PELLOX_NOTHING_TO_DO ? 0 : result == PELLOX_CANCELLED ? 130 : 1;
}
