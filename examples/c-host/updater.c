/* SPDX-License-Identifier: MIT */
/*
 * Brings an installed build up to date, with a line of progress. Ctrl-C leaves it as it was.
 *
 *     cmake -S examples/c-host -B build/c-host -DCMAKE_PREFIX_PATH=PREFIX
 *     cmake --build build/c-host
 *     build/c-host/updater BUILD PATCH [PUBLIC_KEY]
 *
 * PREFIX is where the library is installed. With PUBLIC_KEY only patches that its owner has sealed
 * are taken. Exits with 0 when the build is the new one.
 */
#include <Pellox/pellox.h>

#include <signal.h>
#include <stdio.h>

static pellox_job *s_job;

static void on_interrupt(int signal_number)
{
    (void)signal_number;
    pellox_cancel(s_job); /* may be called in signal handlers */
}

static void show_progress(void *user, int64_t done, int64_t total)
{
    const double MiB = 1 << 20;
    (void)user;
    fprintf(stderr, "\r%.1f of %.1f MiB ", (double)done / MiB, (double)total / MiB);
}

static void show_phase(void *user, int phase)
{
    (void)user;
    switch (phase) {
    case PELLOX_PHASE_FINISHING:
        fprintf(stderr, "\nfinishing what was interrupted\n");
        break;
    case PELLOX_PHASE_CHECKING:
        fprintf(stderr, "\nchecking\n");
        break;
    case PELLOX_PHASE_STAGING:
        fprintf(stderr, "\nwriting\n");
        break;
    case PELLOX_PHASE_COMMITTING:
        fprintf(stderr, "\nputting the new files in place\n");
        break;
    default: /* of a later version of the library */
        break;
    }
}

static void show_problem(void *user, const pellox_problem *problem)
{
    (void)user;
    fprintf(stderr, "\n%s: %s\n%s\n", problem->code_name, problem->message, problem->advice);
}

int main(int argc, char **argv)
{
    int result;
    if (argc != 3 && argc != 4) {
        fprintf(stderr, "usage: updater BUILD PATCH [PUBLIC_KEY]\n");
        return 2;
    }
    s_job = pellox_job_new();
    if (!s_job) {
        fprintf(stderr, "out of memory\n");
        return 1;
    }
    signal(SIGINT, on_interrupt);
    pellox_on_progress(s_job, show_progress, NULL);
    pellox_on_phase(s_job, show_phase, NULL);
    pellox_on_problem(s_job, show_problem, NULL);
    if (argc == 4 && pellox_add_trusted_key(s_job, argv[3]) != PELLOX_DONE) {
        fprintf(stderr, "no path in UTF-8: %s\n", argv[3]);
        return 2;
    }

    result = pellox_update(s_job, argv[1], argv[2]);
    signal(SIGINT, SIG_DFL); /* as the job goes */
    pellox_job_free(s_job);
    printf("%s\n", pellox_result_name(result));
    return result == PELLOX_DONE || result == PELLOX_NOTHING_TO_DO ? 0 : 1;
}
