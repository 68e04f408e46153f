/* SPDX-License-Identifier: MIT */
/*
 * Makes patches and keeps an installed build up to date, with a line of progress. Ctrl-C leaves the
 * build as it was.
 *
 *     cmake -S examples/c-host -B build/c-host -DCMAKE_PREFIX_PATH=PREFIX
 *     cmake --build build/c-host
 *     build/c-host/updater update BUILD PATCH [PUBLIC_KEY]
 *
 * PREFIX is where the library is installed. With PUBLIC_KEY only patches that its owner has sealed
 * are taken. Exits with 0 when it is done or nothing was to be done; without arguments it tells all
 * that it can.
 */
#include <Pellox/pellox.h>

#include <signal.h>
#include <stdio.h>
#include <string.h>

static pellox_job *s_job;

static void on_interrupt(int signal_number)
{
    (void)signal_number;
    pellox_cancel(s_job); /* may be called in signal handlers */
}

static void show_progress(void *user, int64_t done, int64_t total)
{
    (void)user;
    if (total > 0)
        fprintf(stderr, "\r%.0f %% ", 100.0 * (double)done / (double)total);
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
        fprintf(stderr, "\nputting the files in place\n");
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

static void show_file(void *user, int event, const char *path)
{
    (void)user;
    switch (event) {
    case PELLOX_FILE_CHANGED:
        printf("changed %s\n", path);
        break;
    case PELLOX_FILE_MISSING:
        printf("missing %s\n", path);
        break;
    case PELLOX_FILE_UNREADABLE:
        printf("unreadable %s\n", path);
        break;
    case PELLOX_FILE_EXTRA:
        printf("extra %s\n", path);
        break;
    default:
        break;
    }
}

/* Each run takes what stands behind its command, with a null pointer behind. */

static int update(char **paths)
{
    if (paths[2]) {
        const int result = pellox_add_trusted_key(s_job, paths[2]);
        if (result != PELLOX_DONE)
            return result;
    }
    return pellox_update(s_job, paths[0], paths[1]);
}

static int update_keep(char **paths)
{
    pellox_set_keep_previous(s_job, 1);
    return update(paths);
}

static int rollback(char **paths)
{
    return pellox_rollback(s_job, paths[0]);
}

static int check(char **paths)
{
    const int result = pellox_check(s_job, paths[0], paths[1]);
    printf("%lld intact\n", (long long)pellox_figure(s_job, PELLOX_FIGURE_INTACT_FILES));
    return result;
}

static int repair(char **paths)
{
    return pellox_repair(s_job, paths[0], paths[1], paths[2]);
}

static int sign(char **paths)
{
    return pellox_create_signatures(s_job, paths[0], paths[1]);
}

static int publish(char **paths)
{
    return pellox_publish(s_job, paths[0], paths[1], paths[2], paths[3]);
}

static int pack(char **paths)
{
    return pellox_pack(s_job, paths[0], paths[1]);
}

static int unpack(char **paths)
{
    return pellox_unpack(s_job, paths[0], paths[1]);
}

static const struct command
{
    const char *name;
    const char *arguments;
    int least_arguments;
    int most_arguments;
    int (*run)(char **paths);
} commands[] = {
    {"update", "BUILD PATCH [PUBLIC_KEY]", 2, 3, update},
    {"update-keep", "BUILD PATCH [PUBLIC_KEY]   so that rollback can undo it", 2, 3, update_keep},
    {"rollback", "BUILD", 1, 1, rollback},
    {"check", "BUILD SIGNATURES", 2, 2, check},
    {"repair", "BUILD SIGNATURES SOURCE", 3, 3, repair},
    {"sign", "BUILD SIGNATURES   of the first release, which has no patch", 2, 2, sign},
    {"publish", "NEW_BUILD OLD_SIGNATURES PATCH NEW_SIGNATURES", 4, 4, publish},
    {"pack", "FOLDER ARCHIVE   by the 7zr beside this program", 2, 2, pack},
    {"unpack", "ARCHIVE FOLDER   likewise; of several volumes name the first", 2, 2, unpack},
};
static const size_t command_count = sizeof(commands) / sizeof(commands[0]);

static const struct command *find_command(int argc, char **argv)
{
    const int argument_count = argc - 2;
    size_t i;
    for (i = 0; argc >= 2 && i < command_count; ++i) {
        const struct command *command = &commands[i];
        if (strcmp(argv[1], command->name) == 0)
            return argument_count >= command->least_arguments
                    && argument_count <= command->most_arguments
                ? command
                : NULL;
    }
    return NULL;
}

static int show_usage(void)
{
    size_t i;
    for (i = 0; i < command_count; ++i)
        fprintf(stderr, "updater %s %s\n", commands[i].name, commands[i].arguments);
    return 2;
}

int main(int argc, char **argv)
{
    const struct command *command = find_command(argc, argv);
    int result;
    if (!command)
        return show_usage();
    s_job = pellox_job_new();
    if (!s_job) {
        fprintf(stderr, "out of memory\n");
        return 1;
    }
    signal(SIGINT, on_interrupt);
    pellox_on_progress(s_job, show_progress, NULL);
    pellox_on_phase(s_job, show_phase, NULL);
    pellox_on_problem(s_job, show_problem, NULL);
    pellox_on_file(s_job, show_file, NULL);

    result = command->run(argv + 2);
    signal(SIGINT, SIG_DFL); /* as the job goes */
    pellox_job_free(s_job);
    printf("%s\n", pellox_result_name(result));
    return result == PELLOX_DONE || result == PELLOX_NOTHING_TO_DO ? 0 : 1;
}
