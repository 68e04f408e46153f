/* SPDX-License-Identifier: MIT */
/*
 * A plug-in that is closed while the library's thread lives: the library stays, and works once it
 * is opened again. Usage: unloading LIBRARY FOLDER
 */
#include <dlfcn.h>
#include <stdio.h>

typedef void *(*job_new)(void);
typedef int (*job_free)(void *job);
typedef int (*recover)(void *job, const char *build);

/* What ISO C has no cast for. */
static void find(void *library, const char *name, void *function)
{
    *(void **)function = dlsym(library, name);
}

/* Whether a run ends with the result that nothing was to be done. */
static int works(const char *path, const char *build)
{
    void *library = dlopen(path, RTLD_NOW);
    job_new make = NULL;
    job_free release = NULL;
    recover run = NULL;
    void *job;
    int result;
    if (!library) {
        fprintf(stderr, "unloading: %s\n", dlerror());
        return 0;
    }
    find(library, "pellox_job_new", &make);
    find(library, "pellox_job_free", &release);
    find(library, "pellox_recover", &run);
    if (!make || !release || !run)
        return 0;
    job = make();
    result = run(job, build);
    return release(job) == 0 && dlclose(library) == 0 && result == 1;
}

int main(int argc, char **argv)
{
    if (argc != 3 || !works(argv[1], argv[2]))
        return 1;
    if (!dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD)) {
        fprintf(stderr, "unloading: the library is gone, and its thread is not\n");
        return 1;
    }
    return works(argv[1], argv[2]) ? 0 : 1;
}
