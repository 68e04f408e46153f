/* SPDX-License-Identifier: MIT */
/*
 * A host in C that knows nothing of Qt: a release from its publishing to its repair, from several
 * threads, with a signal. Usage: capihost FOLDER, which is empty. Exits with 0 when all went well.
 */
#include <Pellox/pellox.h>

#define PATH_SIZE 1000

#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static const char *s_folder;
static pellox_job *s_interrupted; /* what SIGINT cancels */

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "capihost: line %d: not so: %s\n", __LINE__, #condition);              \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

/* Of one of a few buffers, so that a call may have several. */
static const char *at(const char *relative)
{
    static char paths[4][PATH_SIZE];
    static unsigned next;
    char *path = paths[next++ % 4];
    snprintf(path, PATH_SIZE, "%s/%s", s_folder, relative);
    return path;
}

static void make_folder(const char *relative)
{
    REQUIRE(mkdir(at(relative), 0777) == 0);
}

static void write_file(const char *relative, const char *content)
{
    FILE *file = fopen(at(relative), "w");
    REQUIRE(file != NULL);
    REQUIRE(fputs(content, file) >= 0);
    REQUIRE(fclose(file) == 0);
}

static int has_content(const char *relative, const char *content)
{
    char found[100] = "";
    FILE *file = fopen(at(relative), "r");
    size_t size = 0;
    if (file) {
        size = fread(found, 1, sizeof found - 1, file);
        fclose(file);
    }
    return file && size == strlen(content) && strcmp(found, content) == 0;
}

static void lay_old(const char *build)
{
    char path[PATH_SIZE];
    make_folder(build);
    snprintf(path, sizeof path, "%s/game", build);
    write_file(path, "release 1");
    snprintf(path, sizeof path, "%s/gone", build);
    write_file(path, "gone");
}

static void tell_problem(void *user, const pellox_problem *problem)
{
    ++*(int *)user;
    fprintf(stderr, "capihost: %s: %s\n", problem->code_name, problem->message);
}

static void note_progress(void *user, int64_t done, int64_t total)
{
    int64_t *last = user;
    REQUIRE(done >= *last && done <= total);
    *last = done;
}

static void note_file(void *user, int event, const char *path)
{
    int *changed = user;
    if (event == PELLOX_FILE_CHANGED && strcmp(path, "/game") == 0)
        ++*changed;
}

static void on_signal(int signal_number)
{
    (void)signal_number;
    pellox_cancel(s_interrupted);
}

static void interrupt_at_staging(void *user, int phase)
{
    (void)user;
    if (phase == PELLOX_PHASE_STAGING)
        raise(SIGINT);
}

/* What threads do at the same time, the first calls of this process among it. */
static void *update_one(void *build)
{
    int problems = 0;
    pellox_job *job = pellox_job_new();
    REQUIRE(job != NULL);
    REQUIRE(pellox_on_problem(job, tell_problem, &problems) == PELLOX_DONE);
    REQUIRE(pellox_recover(job, build) == PELLOX_NOTHING_TO_DO);
    REQUIRE(pellox_job_free(job) == PELLOX_DONE);
    REQUIRE(problems == 0);
    return NULL;
}

static void use_threads(void)
{
    enum { THREADS = 4 };
    char builds[THREADS][PATH_SIZE];
    pthread_t threads[THREADS];
    int i;
    for (i = 0; i < THREADS; ++i) {
        char name[20];
        snprintf(name, sizeof name, "build %d", i);
        lay_old(name);
        strcpy(builds[i], at(name));
    }
    for (i = 0; i < THREADS; ++i)
        REQUIRE(pthread_create(&threads[i], NULL, update_one, builds[i]) == 0);
    for (i = 0; i < THREADS; ++i)
        REQUIRE(pthread_join(threads[i], NULL) == 0);
}

static void publish(pellox_job *job)
{
    int64_t last = 0;
    lay_old("old");
    make_folder("new");
    write_file("new/game", "release 2");
    REQUIRE(pellox_on_progress(job, note_progress, &last) == PELLOX_DONE);
    REQUIRE(pellox_create_signatures(job, at("old"), at("signatures 1")) == PELLOX_DONE);
    REQUIRE(last == 10000);
    last = 0;
    REQUIRE(pellox_publish(job, at("new"), at("signatures 1"), at("patch"), at("signatures 2"))
        == PELLOX_DONE);
    REQUIRE(pellox_on_progress(job, NULL, NULL) == PELLOX_DONE);
}

static void pack_and_unpack(pellox_job *job)
{
    int64_t last = 0;
    REQUIRE(pellox_on_progress(job, note_progress, &last) == PELLOX_DONE);
    REQUIRE(pellox_pack(job, at("patch"), at("-patch.7z")) == PELLOX_DONE);
    REQUIRE(last == 10000);
    last = 0;
    REQUIRE(pellox_unpack(job, at("-patch.7z.001"), at("unpacked")) == PELLOX_DONE);
    REQUIRE(pellox_on_progress(job, NULL, NULL) == PELLOX_DONE);
}

static void interrupt_update(void)
{
    s_interrupted = pellox_job_new();
    REQUIRE(s_interrupted != NULL);
    REQUIRE(signal(SIGINT, on_signal) != SIG_ERR);
    REQUIRE(pellox_on_phase(s_interrupted, interrupt_at_staging, NULL) == PELLOX_DONE);
    REQUIRE(pellox_update(s_interrupted, at("build 0"), at("unpacked")) == PELLOX_CANCELLED);
    REQUIRE(has_content("build 0/game", "release 1"));
    REQUIRE(has_content("build 0/gone", "gone"));
    REQUIRE(pellox_job_free(s_interrupted) == PELLOX_DONE);
}

static void update_and_repair(pellox_job *job)
{
    int changed = 0;
    REQUIRE(pellox_set_keep_previous(job, 1) == PELLOX_DONE);
    REQUIRE(pellox_update(job, at("build 0"), at("unpacked")) == PELLOX_DONE);
    REQUIRE(has_content("build 0/game", "release 2"));
    REQUIRE(pellox_rollback(job, at("build 0")) == PELLOX_DONE);
    REQUIRE(has_content("build 0/game", "release 1"));
    REQUIRE(pellox_update(job, at("build 0"), at("patch")) == PELLOX_DONE);
    REQUIRE(pellox_update(job, at("build 0"), at("patch")) == PELLOX_NOTHING_TO_DO);

    write_file("build 0/game", "damaged");
    REQUIRE(pellox_on_file(job, note_file, &changed) == PELLOX_DONE);
    REQUIRE(pellox_check(job, at("build 0"), at("signatures 2")) == PELLOX_NOT_INTACT);
    REQUIRE(changed == 1);
    REQUIRE(pellox_repair(job, at("build 0"), at("signatures 2"), at("new")) == PELLOX_DONE);
    REQUIRE(changed == 2);
    REQUIRE(pellox_check(job, at("build 0"), at("signatures 2")) == PELLOX_DONE);
    REQUIRE(pellox_figure(job, PELLOX_FIGURE_INTACT_FILES) == 1);
}

int main(int argc, char **argv)
{
    int problems = 0;
    pellox_job *job;
    if (argc != 2)
        return 2;
    s_folder = argv[1];
    REQUIRE(strcmp(setlocale(LC_ALL, NULL), "C") == 0);
    use_threads();
    REQUIRE(strcmp(setlocale(LC_ALL, NULL), "C") == 0); /* it is the host's */

    job = pellox_job_new();
    REQUIRE(job != NULL);
    REQUIRE(pellox_on_problem(job, tell_problem, &problems) == PELLOX_DONE);
    publish(job);
    pack_and_unpack(job);
    interrupt_update();
    update_and_repair(job);
    REQUIRE(problems == 0);
    REQUIRE(pellox_job_free(job) == PELLOX_DONE);
    return 0;
}
