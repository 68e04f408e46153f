// SPDX-License-Identifier: MIT
// Keeps an installed game up to date, in a terminal: there calls may block, and need no Qt.
#include <Pellox/pellox.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

static pellox_job *s_job = pellox_job_new();            // lasts as long as the program
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
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - s_start;
    if (isatty(STDERR_FILENO))
        std::fprintf(stderr, "\r\033[K%.1f of %.1f MB, %.1f MB/s, %.0f s left", done / 1e6,
            total / 1e6, done / 1e6 / time.count(), (total - done) / (done + 1.0) * time.count());
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
    const bool isRepair = job == "repair", isVerify = job == "verify";
    const bool hasJob = isRepair || isVerify || job == "check" || job == "update";
    if (!hasJob || argc < (isRepair ? 5 : 4) || argc > (isVerify ? 4 : 5))
        return say("Usage: console-host check|update BUILD PATCH [TRUSTED_KEY]\n"
                   "  or verify BUILD SIGNATURES, or repair BUILD SIGNATURES SOURCE"),
               2;
    std::signal(SIGINT, [](int) { pellox_cancel(s_job); });
    pellox_on_problem(s_job, showProblem, nullptr);
    pellox_on_phase(s_job, showPhase, nullptr);
    pellox_on_file(s_job, showFile, nullptr);
    std::string patch = argv[3];
    std::error_code error;
    int result = argc == 5 && !isRepair ? pellox_add_trusted_key(s_job, argv[4]) : PELLOX_DONE;
    if (result == PELLOX_DONE && std::filesystem::is_regular_file(patch, error)) {
        if (!::mkdtemp((patch += ".XXXXXX").data())) // beside it: /tmp may be small
            return std::perror(("cannot make " + patch).c_str()), 1;
        result = pellox_unpack(s_job, argv[3], patch.c_str());
    }
    pellox_on_progress(s_job, showProgress, nullptr); // in bytes from now on
    const auto run = isVerify ? pellox_check : job == "check" ? pellox_plan : pellox_update;
    if (result == PELLOX_DONE)
        result = isRepair ? pellox_repair(s_job, argv[2], patch.c_str(), argv[4])
                          : run(s_job, argv[2], patch.c_str());
    if (patch != argv[3])
        std::filesystem::remove_all(patch, error);
    say(pellox_result_name(result));
    return result <= PELLOX_NOTHING_TO_DO ? 0 : result == PELLOX_CANCELLED ? 130 : 1;
}
