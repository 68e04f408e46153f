/* SPDX-License-Identifier: MIT */
#ifndef PELLOX_H
#define PELLOX_H

#include "pellox_export.h"

/* NOLINTBEGIN(modernize-*): this is C */

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @file
 * The library for hosts without Qt: plain C, for engines and for bindings. What each run does, what
 * it promises and what it refuses is told in UpdateController, IntegrityController,
 * PublishController, PatchSeal and ArchiveController; docs/library.md has the guide.
 *
 * A job holds the settings and the callbacks of runs. A run is one call, which blocks until it has
 * ended:
 *
 *     pellox_job *job = pellox_job_new();
 *     pellox_on_progress(job, show_progress, NULL);
 *     int result = pellox_update(job, "/games/x", "/tmp/patch");
 *     pellox_job_free(job);
 *
 * Errors. Nothing is thrown, and the library ends no process; but Qt may be built upon GLib, which
 * does where the system gives it no memory. Calls return one of the results below; what is wrong
 * with a file or a folder comes as problems. Null where a job or a path is expected, an empty path
 * and text that is no UTF-8 are PELLOX_BAD_ARGUMENT.
 *
 * Text is UTF-8 and ends with a null byte, paths too, whatever the locale. Text given to a call is
 * copied; text given to a callback is valid until that returns.
 *
 * Threads. All calls may be made on any thread. A job is for one call at a time: another one
 * meanwhile, pellox_cancel() apart, returns PELLOX_IN_USE and does nothing. Different jobs run at
 * the same time, as many as the host likes; a build is worked on by one at a time, and the others
 * are refused. Callbacks come on the thread that called, and only until the call returns. The run
 * waits for them, so a slow one slows it down. They may start runs of other jobs, but must not
 * throw or jump out.
 *
 * Qt inside. A host without Qt needs to know nothing of it. The first job, or pellox_prepare(),
 * makes what Qt needs of a process, its application object, on a thread of the library's own, which
 * stays until the process ends. The C library's locale stays as it is, but for the moment that this
 * takes: a host whose other threads format numbers or text calls pellox_prepare() before it starts
 * them. Qt's debugging and informational lines are turned off, unless the environment variable
 * QT_LOGGING_RULES asks for them. A host that uses Qt itself has its QCoreApplication made by then,
 * and keeps it: the library makes none, and touches none of its settings.
 *
 * The library is not unloaded: dlclose() leaves it in the process. After fork() a child must not
 * call it, as its threads are not there.
 *
 * The interface grows, but what it has stays: numbers keep their meaning, and new members of
 * structures come at the end. So take results, problems and phases for what they are: more may
 * come.
 */

/** Settings, callbacks and runs of a host; opaque. */
typedef struct pellox_job pellox_job;

/** What calls return. */
enum {
    /** Done. Of an update: the build is the new one, for each file that a rule names. */
    PELLOX_DONE = 0,
    /** There was nothing to do, or to finish, to repair, to record. */
    PELLOX_NOTHING_TO_DO = 1,
    /** What was given or what stands there will not do, as the problems tell; nothing was touched.
     */
    PELLOX_REFUSED = 2,
    /** It could not be done, as the problems tell. An installed build is as it was, but see
        pellox_recover(). */
    PELLOX_FAILED = 3,
    /** The commit was not finished: some files are old, some new. pellox_recover() or the same run
        again will finish it, once what the problems tell is mended. Without a problem it was
        pellox_cancel(), before the rest of what an earlier run has begun was begun with. */
    PELLOX_INTERRUPTED = 4,
    /** By pellox_cancel(). An installed build is as it was. */
    PELLOX_CANCELLED = 5,
    /** Of a check: files are changed, missing or unreadable. */
    PELLOX_NOT_INTACT = 6,

    /** An argument is null, empty, no UTF-8 or out of range. Nothing has begun. */
    PELLOX_BAD_ARGUMENT = 16,
    /** Another call of the same job is under way. Nothing has begun. */
    PELLOX_IN_USE = 17,
    /** The system gives no more memory or threads. A run that had begun is cancelled, or its end
        could not be told: an installed build is old or new, or to be recovered. */
    PELLOX_NO_MEMORY = 18
};

/** What a run on an installed build does. Each comes once at most, in this order. */
enum {
    /** Does the rest of a commit that a crash has interrupted. */
    PELLOX_PHASE_FINISHING = 1,
    /** Reads; touches nothing. */
    PELLOX_PHASE_CHECKING = 2,
    /** Writes new content beside the installed files. */
    PELLOX_PHASE_STAGING = 3,
    /** Puts it in place; can no longer be cancelled. */
    PELLOX_PHASE_COMMITTING = 4
};

/** What is wrong, see pellox_problem. docs/library.md tells what helps with each. */
enum {
    /** What has no number of its own: problems of publishing, sealing and archives. */
    PELLOX_PROBLEM_OTHER = 0,
    /** The build, the patch or the fallback is no folder, or one lies in another. */
    PELLOX_PROBLEM_BAD_FOLDER = 1,
    /** Somebody else works on the build. */
    PELLOX_PROBLEM_BUSY = 2,
    /** A folder of the build cannot be written, or a file in it not be replaced. */
    PELLOX_PROBLEM_NOT_WRITABLE = 3,
    /** A manifest is missing, malformed, or has a rule that is refused. */
    PELLOX_PROBLEM_BAD_MANIFEST = 4,
    /** A file of the patch is missing, no regular file, or broken. */
    PELLOX_PROBLEM_BAD_PATCH = 5,
    /** An installed file is missing or not the one that the patch is for. */
    PELLOX_PROBLEM_DAMAGED_INSTALL = 6,
    /** A link, a special file or a folder with other files is in the way. */
    PELLOX_PROBLEM_OBSTRUCTED = 7,
    /** The fallback, or the source of a repair, does not have the right file. */
    PELLOX_PROBLEM_BAD_FALLBACK = 8,
    /** The disk is too full. */
    PELLOX_PROBLEM_NO_SPACE = 9,
    /** The system could not read or write a file. */
    PELLOX_PROBLEM_READ_OR_WRITE = 10,
    /** What a crash has left cannot be understood. */
    PELLOX_PROBLEM_DAMAGED_JOURNAL = 11,
    /** There is no earlier build to bring back. */
    PELLOX_PROBLEM_NOTHING_KEPT = 12,
    /** The patch has no seal by a trusted key, or differs from it. */
    PELLOX_PROBLEM_NOT_TRUSTED = 13,
    /** The patch leads to an older release than the one that is installed. */
    PELLOX_PROBLEM_OLDER_RELEASE = 14,
    /** The patch leads on from another build than the one that is installed. */
    PELLOX_PROBLEM_FOREIGN_PATCH = 15,
    /** A file that was given as a trusted key holds none that can be used. */
    PELLOX_PROBLEM_BAD_KEY = 16,
    /** An earlier run was interrupted, and is to be finished first. */
    PELLOX_PROBLEM_UNFINISHED = 17,
    /** The system gives no more memory or threads. */
    PELLOX_PROBLEM_NO_MEMORY = 18,
    /** A kept file of the earlier build is missing or not as it was. */
    PELLOX_PROBLEM_DAMAGED_KEPT = 19
};

/** What a run tells of a file. */
enum {
    /** Its new content is complete and checked. */
    PELLOX_FILE_STAGED = 1,
    /** Of a check: it is not what the signatures say. */
    PELLOX_FILE_CHANGED = 2,
    /** Of a check: it is not there. */
    PELLOX_FILE_MISSING = 3,
    /** Of a check: it is there, but cannot be read. */
    PELLOX_FILE_UNREADABLE = 4,
    /** Of a check: the signatures do not name it; or a folder that cannot be listed. */
    PELLOX_FILE_EXTRA = 5,
    /** Of a plan: it would be patched. */
    PELLOX_FILE_TO_PATCH = 6,
    /** Of a plan: it would be copied from the patch. */
    PELLOX_FILE_TO_COPY = 7,
    /** Of a plan: it would go. */
    PELLOX_FILE_TO_DELETE = 8
};

/** Figures that a run leaves, see pellox_figure(). */
enum {
    /** Of a check: how many files are as the signatures say. */
    PELLOX_FIGURE_INTACT_FILES = 1,
    /** Of a plan: about how many bytes the update reads. */
    PELLOX_FIGURE_BYTES_TO_READ = 2,
    /** Of a plan: how many bytes the update writes. */
    PELLOX_FIGURE_BYTES_TO_WRITE = 3,
    /** Of a plan: how many bytes the disk of the build must have free. */
    PELLOX_FIGURE_PEAK_EXTRA_DISK = 4
};

/** How thoroughly the old build is searched, see pellox_set_delta_effort(). */
enum {
    /** Quickly. */
    PELLOX_EFFORT_FASTEST = 1,
    /** The default: most of what can be found. */
    PELLOX_EFFORT_BALANCED = 2,
    /** For the smallest deltas. */
    PELLOX_EFFORT_SMALLEST = 3
};

/** One thing that is wrong. The library makes it; no text in it is null. */
typedef struct pellox_problem
{
    /** One of PELLOX_PROBLEM_... */
    int code;
    /** The same as a word, in the form "damaged-install"; "other" for PELLOX_PROBLEM_OTHER. */
    const char *code_name;
    /** The file or folder in question, absolute; empty where only the message tells it. */
    const char *file;
    /** English, without the file. */
    const char *reason;
    /** The file and the reason, for people. */
    const char *message;
    /** What the one who sees it can do, a sentence in English; may be empty. */
    const char *advice;
} pellox_problem;

/**
 * How far a run is, several times a second where it has something to tell. In bytes for the runs on
 * an installed build; it never falls within a phase. In all others @p total is 10,000, and @p done
 * how many parts of these; it never falls.
 */
typedef void (*pellox_progress_callback)(void *user, int64_t done, int64_t total);
/** What the run does from now on, one of PELLOX_PHASE_... */
typedef void (*pellox_phase_callback)(void *user, int phase);
/** Something is wrong. Most often the end of the run follows. */
typedef void (*pellox_problem_callback)(void *user, const pellox_problem *problem);
/** What @p event, one of PELLOX_FILE_..., tells of the file at @p path, which is relative to the
    build and begins with a separator. */
typedef void (*pellox_file_callback)(void *user, int event, const char *path);

/** The version of the library in the form "1.2.3". This text and the next are never freed. */
PELLOX_EXPORT const char *pellox_version(void);

/** The name of a result, in the form "nothing-to-do"; "unknown" for what is none. */
PELLOX_EXPORT const char *pellox_result_name(int result);

/**
 * Makes what Qt needs, see above, when it has not been made yet. Optional, as the first job does it
 * too. PELLOX_DONE, or PELLOX_NO_MEMORY when the system gives no thread, or this library or Qt no
 * memory; what GLib does then, see above.
 */
PELLOX_EXPORT int pellox_prepare(void);

/* ---- Jobs ------------------------------------------------------------------------------------ */

/** A job with all settings at their defaults and without callbacks, to be freed by
    pellox_job_free(). Null when there is no memory for it, or pellox_prepare() would fail. */
PELLOX_EXPORT pellox_job *pellox_job_new(void);

/** Frees @p job; null is none. PELLOX_IN_USE, and nothing is freed, while a call of it is under
    way, which is also true within its callbacks. */
PELLOX_EXPORT int pellox_job_free(pellox_job *job);

/**
 * Ends the run of @p job soon, and lets no other begin: it ends as PELLOX_CANCELLED, or as if it
 * had not been cancelled where it is too late for that. A job that is cancelled stays so, so that a
 * call that comes just before a run is not lost. Returns at once. Any thread, callbacks and signal
 * handlers too.
 */
PELLOX_EXPORT int pellox_cancel(pellox_job *job);

/* Callbacks: null, the default, is none. @p user is handed on to them. */

/** What is called with progress. */
PELLOX_EXPORT int pellox_on_progress(
    pellox_job *job, pellox_progress_callback callback, void *user);
/** What is called with each phase. */
PELLOX_EXPORT int pellox_on_phase(pellox_job *job, pellox_phase_callback callback, void *user);
/** What is called with each problem. */
PELLOX_EXPORT int pellox_on_problem(pellox_job *job, pellox_problem_callback callback, void *user);
/** What is called with files. */
PELLOX_EXPORT int pellox_on_file(pellox_job *job, pellox_file_callback callback, void *user);

/** A figure of the last run, @p which being one of PELLOX_FIGURE_...; -1 when that run has none, or
    the job is null or in use. */
PELLOX_EXPORT int64_t pellox_figure(pellox_job *job, int which);

/* ---- Settings: they count from the next run, and each run takes those that concern it ---------
 */

/** How many threads work, 1,024 at most; 0, the default, means one for each core. All runs but
    those on archives. */
PELLOX_EXPORT int pellox_set_threads(pellox_job *job, int count);

/** Updates and plans: a folder with the files of the new build, of which installed files are taken
    that are missing or not what the patch is for. Null, the default, is none. */
PELLOX_EXPORT int pellox_set_fallback(pellox_job *job, const char *folder);
/** Updates, plans and records: one more PEM file of a public key. With any, only patches that one
   of them has sealed are taken. */
PELLOX_EXPORT int pellox_add_trusted_key(pellox_job *job, const char *file);
/** Updates and plans: whether sealed patches may lead to an older release. Not by default. */
PELLOX_EXPORT int pellox_set_older_allowed(pellox_job *job, int allowed);
/** Updates and plans: whether what is replaced and deleted is kept for pellox_rollback(). Not by
    default. */
PELLOX_EXPORT int pellox_set_keep_previous(pellox_job *job, int keep);

/** Patches and releases: the old build itself, for smaller deltas. Null, the default, is none. */
PELLOX_EXPORT int pellox_set_old_build(pellox_job *job, const char *folder);
/** How thoroughly the old build is searched, one of PELLOX_EFFORT_... */
PELLOX_EXPORT int pellox_set_delta_effort(pellox_job *job, int effort);
/** How many bytes of memory that search may use, all threads together; 1 GiB by default, 1 MiB at
    least. PublishController::setDeltaMemory() tells more. */
PELLOX_EXPORT int pellox_set_delta_memory(pellox_job *job, int64_t bytes);
/** Patches and releases: one more file of the new build, absolute or relative to it, that gets no
    rule. */
PELLOX_EXPORT int pellox_add_ignored_file(pellox_job *job, const char *path);
/** Seals: one more PEM file of a private key to seal with. */
PELLOX_EXPORT int pellox_add_private_key(pellox_job *job, const char *file);

/** Packing: how many bytes a volume has, 500 MiB by default; above 1 GiB it is cut to whole GiB. */
PELLOX_EXPORT int pellox_set_volume_size(pellox_job *job, int64_t bytes);

/* ---- Runs on an installed build -------------------------------------------------------------- */

/** Brings the installed build in folder @p build to where the patch in folder @p patch leads. */
PELLOX_EXPORT int pellox_update(pellox_job *job, const char *build, const char *patch);

/**
 * What pellox_update() would do: files by callback, and figures. PELLOX_DONE when it would update,
 * PELLOX_NOTHING_TO_DO, or PELLOX_REFUSED. Reads, and touches nothing.
 */
PELLOX_EXPORT int pellox_plan(pellox_job *job, const char *build, const char *patch);

/**
 * Finishes what a crash has interrupted; to be called before the host starts the game. Where files
 * were not being put in place yet there is nothing to finish, PELLOX_NOTHING_TO_DO, and the next
 * update goes on with what was written.
 * PELLOX_FAILED with problems PELLOX_PROBLEM_DAMAGED_INSTALL: finished but for the files that these
 * tell; the build is to be repaired.
 */
PELLOX_EXPORT int pellox_recover(pellox_job *job, const char *build);

/** Brings back the build from before the last update, which must have kept it. */
PELLOX_EXPORT int pellox_rollback(pellox_job *job, const char *build);

/** Frees the space of what the last update has kept. PELLOX_DONE or PELLOX_FAILED. */
PELLOX_EXPORT int pellox_discard_previous(pellox_job *job, const char *build);

/**
 * Compares the build with signatures.json in folder @p signatures. PELLOX_DONE when each file is as
 * it should be, PELLOX_NOT_INTACT when not. Tells each file that is not, and extra ones, at the
 * end; how many are intact is a figure.
 */
PELLOX_EXPORT int pellox_check(pellox_job *job, const char *build, const char *signatures);

/** Brings back what is changed, missing or unreadable from folder @p source, which holds the right
    files: all or none. Tells the files that were not intact at the end, as pellox_check() does. */
PELLOX_EXPORT int pellox_repair(
    pellox_job *job, const char *build, const char *signatures, const char *source);

/** Records which release an installer has laid down: the one that the sealed patch in @p patch
   leads to. Needs trusted keys. */
PELLOX_EXPORT int pellox_record_release(
    pellox_job *job, const char *build, const char *signatures, const char *patch);

/* ---- The publisher's runs -------------------------------------------------------------------- */

/** Writes into folder @p signatures the signatures of @p build. */
PELLOX_EXPORT int pellox_create_signatures(
    pellox_job *job, const char *build, const char *signatures);

/** Writes into folder @p patch what brings players from the build that @p old_signatures describe
    to the one in folder @p new_build. */
PELLOX_EXPORT int pellox_create_patch(
    pellox_job *job, const char *new_build, const char *old_signatures, const char *patch);

/** A whole release: the patch, and in the same pass the signatures of the new build. */
PELLOX_EXPORT int pellox_publish(pellox_job *job, const char *new_build, const char *old_signatures,
    const char *patch, const char *new_signatures);

/** Seals the patch in folder @p patch as @p release, from 1 to 2^53 - 1 and rising from one release
    to the next, with the private keys of the job. */
PELLOX_EXPORT int pellox_seal(
    pellox_job *job, const char *patch, const char *old_signatures, int64_t release);

/** Writes into folder @p slim the sealed patch without the files that players have under other
    names. */
PELLOX_EXPORT int pellox_write_slim(pellox_job *job, const char *patch, const char *slim);

/** Makes a new key and writes two PEM files that do not exist yet. */
PELLOX_EXPORT int pellox_generate_key(
    pellox_job *job, const char *private_key, const char *public_key);

/* ---- Archives -------------------------------------------------------------------------------- */

/*
 * Both need 7-Zip's console program "7zr" beside the running program, which is the host's; that of
 * a script is its interpreter. On Linux that is the folder of what /proc/self/exe leads to. PATH is
 * not searched. What 7-Zip is to be spared, such as wildcards in the path of the folder,
 * docs/library.md tells. A run that failed or was cancelled leaves what it has written.
 */

/** Packs what is in @p folder into volumes, @p archive.001 and so on, which must not exist. The
    folder of the archive is made where it is missing, one level deep. */
PELLOX_EXPORT int pellox_pack(pellox_job *job, const char *folder, const char *archive);

/** Unpacks @p archive, of several volumes the first, into folder @p destination, which is made
   where it is missing. Files of the same name are replaced. */
PELLOX_EXPORT int pellox_unpack(pellox_job *job, const char *archive, const char *destination);

#ifdef __cplusplus
}
#endif

/* NOLINTEND(modernize-*) */

#endif
