// SPDX-License-Identifier: MIT
// clang-format off
/*
 * A library for LD_PRELOAD: counts a program's calls on files, and at one of them something
 * happens. tests/support/faultrun.h starts programs with it; the environment says what is wanted:
 *
 *   FAULTS_PATH    counts calls on this file or folder (canonical path) and all that lies in it
 *   FAULTS_CALLS   counts calls of these kinds alone, with commas between them: open, read, write,
 *                  close, sync, rename, link, remove, mkdir, truncate, copy, list, entry, mode;
 *                  "list" and "entry" open a folder and read the next of it; only where they are
 *                  named here "create" is an open that may make or empty the file, and "look"
 *                  asks by its path for a file's status, or whether it may be used, and "room"
 *                  for what its file system is and has free;
 *                  "mode" is of its owner, too
 *   FAULTS_AT      the call, counted from 1, at which it happens
 *   FAULTS_DO      what happens:
 *                    a number    the call fails with that errno
 *                    half        the call reads or writes half of what it should
 *                    kill        the process dies before the call
 *
 *                    interrupt   the process gets SIGINT, as from Ctrl-C; then, as below, the call
 *                                is carried out
 *                    interrupts  it gets SIGINT twice, as from somebody who does not wait
 *                    twice       it gets SIGINT twice at the same moment, as from timeout(1)
 *                    terminate   it gets SIGTERM
 *                    hangup      it gets SIGHUP
 *                    close       it gets SIGHUP, then SIGTERM, as when a terminal is closed
 *
 *                    append, truncate, rewrite, disguise, replace, remove
 *                                happens to the file that the call is on; "rewrite" changes bytes
 *                                in place, "disguise" does and sets the file's time back, "replace"
 *                                puts another file of the same size there
 *                    appear      the file FAULTS_APPEARING appears, which must not have been there
 *
 *   FAULTS_REPEAT  not empty: it happens at every later call as well
 *   FAULTS_SLOWLY  not empty: the call at which it happens and each later one takes a fifth of a
 *                  second more, so that work of many calls is under way for long on any machine
 *   FAULTS_UNSYNCED not empty: calls that sync count, but wait for no disk
 *   FAULTS_ROOM    so many bytes are free on each file system
 *   FAULTS_ROOM_FILES so many more files can be made on each
 *   FAULTS_KIND    each is of the kind with this number
 *   FAULTS_LOG     appends a line "kind path" to this file for each call that counts
 *
 * Any thread may call. Nothing happens when FAULTS_PATH is empty or not set.
 */
// clang-format on
#define _GNU_SOURCE
#include "preload.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static const char *s_path;
static const char *s_kinds;
static const char *s_action;
static long s_at;
static bool s_repeat;
static bool s_slowly;
static bool s_unsynced;
static int s_log = -1;
static atomic_long s_calls;
/* The last stream that led elsewhere: it may be asked often. */
static _Atomic(FILE *) s_stranger;
static _Thread_local bool s_inside; /* calls of this library itself do not count */
/* Read in the handlers of the signals that are raised. */
static _Thread_local volatile bool s_time_stands;
static _Thread_local volatile struct timespec s_moment;

__attribute__((constructor)) static void read_settings(void)
{
    const char *at = getenv("FAULTS_AT");
    const char *repeat = getenv("FAULTS_REPEAT");
    const char *slowly = getenv("FAULTS_SLOWLY");
    const char *unsynced = getenv("FAULTS_UNSYNCED");
    const char *log = getenv("FAULTS_LOG");
    const char *path = getenv("FAULTS_PATH");
    s_path = path && *path ? path : NULL;
    s_kinds = getenv("FAULTS_CALLS");
    s_action = getenv("FAULTS_DO");
    s_at = at ? atol(at) : 0;
    s_repeat = repeat && *repeat;
    s_slowly = slowly && *slowly;
    s_unsynced = unsynced && *unsynced;
    if (s_path && log) {
        s_inside = true;
        s_log = open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        s_inside = false;
    }
}

static bool is_wanted_kind(const char *kind)
{
    const size_t length = strlen(kind);
    if (!s_kinds || !*s_kinds)
        return true;
    for (const char *at = s_kinds; (at = strstr(at, kind)) != NULL; at += length) {
        const bool begins = at == s_kinds || at[-1] == ',';
        if (begins && (at[length] == ',' || at[length] == '\0'))
            return true;
    }
    return false;
}

static bool is_wanted_path(const char *path)
{
    const size_t length = strlen(s_path);
    return strncmp(path, s_path, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

/* The link /proc/self/NAME leads to PATH; without what it says of a file that is gone. */
static bool read_process_link(const char *name, char *path, size_t size)
{
    char link[64];
    snprintf(link, sizeof link, "/proc/self/%s", name);
    const ssize_t length = readlink(link, path, size - 1);
    if (length < 0)
        return false;
    path[length] = '\0';
    char *deleted = strstr(path, " (deleted)");
    if (deleted && deleted[strlen(" (deleted)")] == '\0')
        *deleted = '\0';
    return true;
}

static void log_call(const char *kind, const char *path)
{
    char line[4200];
    const int length = snprintf(line, sizeof line, "%s %s\n", kind, path);
    if (s_log >= 0 && length > 0 && (size_t)length < sizeof line
        && syscall(SYS_write, s_log, line, (size_t)length) != length)
        abort();
}

static void write_at(const char *path, int flags, off_t position, const char *bytes)
{
    const int file = open(path, flags | O_CLOEXEC, 0644);
    if (file < 0 || lseek(file, position, flags & O_APPEND ? SEEK_END : SEEK_SET) < 0
        || syscall(SYS_write, file, bytes, strlen(bytes)) != (long)strlen(bytes))
        abort(); /* nothing that a test could go on with */
    REAL(close)(file);
}

static void replace(const char *path)
{
    char other[4200];
    struct stat status;
    snprintf(other, sizeof other, "%s.other", path);
    if (stat(path, &status) != 0)
        abort();
    write_at(other, O_WRONLY | O_CREAT, 0, "another file");
    if (truncate(other, status.st_size) != 0 || REAL(rename)(other, path) != 0)
        abort();
}

static void disguise(const char *path)
{
    struct stat status;
    if (stat(path, &status) != 0)
        abort();
    write_at(path, O_WRONLY, 0, "other bytes");
    const struct timespec times[] = {status.st_atim, status.st_mtim};
    if (utimensat(AT_FDCWD, path, times, 0) != 0)
        abort();
}

/* What is to happen beside the call on PATH; false when the name is none of these. */
static bool change_file(const char *path)
{
    if (strcmp(s_action, "append") == 0)
        write_at(path, O_WRONLY | O_APPEND, 0, "more");
    else if (strcmp(s_action, "rewrite") == 0)
        write_at(path, O_WRONLY, 0, "other bytes");
    else if (strcmp(s_action, "disguise") == 0)
        disguise(path);
    else if (strcmp(s_action, "replace") == 0)
        replace(path);
    else if (strcmp(s_action, "appear") == 0)
        write_at(getenv("FAULTS_APPEARING"), O_WRONLY | O_CREAT | O_EXCL, 0, "another file");
    else if (strcmp(s_action, "remove") == 0)
        syscall(SYS_unlinkat, AT_FDCWD, path, 0);
    else if (strcmp(s_action, "truncate") == 0) {
        if (truncate(path, 1) != 0)
            abort();
    } else
        return false;
    return true;
}

static void wait_milliseconds(long milliseconds)
{
    struct timespec pause = {0, milliseconds * 1000000};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) { }
}

/* On this thread, so that it comes before the call. Nobody presses Ctrl-C twice in less than this
   time. */
static void interrupt(bool again)
{
    if (again)
        wait_milliseconds(50);
    raise(SIGINT);
}

/* So far apart as where the sender had to wait for its turn between them, and no further on any
   machine. */
static void interrupt_twice_at_once(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    s_moment.tv_sec = now.tv_sec;
    s_moment.tv_nsec = 0;
    s_time_stands = true;
    raise(SIGINT);
    s_moment.tv_nsec = 30000000;
    raise(SIGINT);
    s_time_stands = false;
}

/* Whether ACTION is one that sends signals, which it has done then. */
static bool send_signals(const char *action, bool again)
{
    if (strcmp(action, "kill") == 0)
        kill(getpid(), SIGKILL);
    else if (strcmp(action, "interrupt") == 0)
        interrupt(again);
    else if (strcmp(action, "interrupts") == 0) {
        interrupt(false);
        interrupt(true);
    } else if (strcmp(action, "twice") == 0)
        interrupt_twice_at_once();
    else if (strcmp(action, "terminate") == 0)
        raise(SIGTERM);
    else if (strcmp(action, "hangup") == 0)
        raise(SIGHUP);
    else if (strcmp(action, "close") == 0) {
        raise(SIGHUP);
        raise(SIGTERM);
    } else
        return false;
    return true;
}

enum verdict { GO_ON, GO_HALF, FAIL };

/* Counts a call of KIND on PATH. After FAIL, errno is set. */
static enum verdict meet(const char *kind, const char *path)
{
    if (!s_path || s_inside || !is_wanted_kind(kind) || !is_wanted_path(path))
        return GO_ON;
    const int saved_errno = errno;
    s_inside = true;
    const long call = atomic_fetch_add(&s_calls, 1) + 1;
    log_call(kind, path);
    enum verdict verdict = GO_ON;
    int error = saved_errno;
    if (s_action && s_at > 0 && (call == s_at || (s_repeat && call > s_at))) {
        if (send_signals(s_action, call > s_at))
            verdict = GO_ON;
        else if (strcmp(s_action, "half") == 0)
            verdict = GO_HALF;
        else if (!change_file(path)) {
            verdict = FAIL;
            error = atoi(s_action);
        }
    }
    if (s_slowly && call >= s_at)
        wait_milliseconds(200);
    s_inside = false;
    errno = error;
    return verdict;
}

static bool read_path_of(int descriptor, char *path, size_t size)
{
    char name[32];
    snprintf(name, sizeof name, "fd/%d", descriptor);
    return read_process_link(name, path, size);
}

static enum verdict meet_descriptor(const char *kind, int descriptor)
{
    char path[4096];
    if (!s_path || s_inside || !is_wanted_kind(kind))
        return GO_ON;
    return read_path_of(descriptor, path, sizeof path) ? meet(kind, path) : GO_ON;
}

static enum verdict meet_stream(const char *kind, FILE *file)
{
    char path[4096];
    if (!s_path || s_inside || !is_wanted_kind(kind) || file == s_stranger
        || !read_path_of(fileno(file), path, sizeof path))
        return GO_ON;
    if (!is_wanted_path(path))
        s_stranger = file;
    return meet(kind, path);
}

static enum verdict meet_at(const char *kind, int folder, const char *name)
{
    char link[32];
    char base[4096];
    char path[8200];
    if (!s_path || s_inside || !name || !is_wanted_kind(kind))
        return GO_ON;
    if (*name == '/')
        return meet(kind, name);
    if (folder == AT_FDCWD)
        snprintf(link, sizeof link, "cwd");
    else
        snprintf(link, sizeof link, "fd/%d", folder);
    if (!read_process_link(link, base, sizeof base))
        return GO_ON;
    snprintf(path, sizeof path, "%s/%s", base, name);
    return meet(kind, path);
}

static size_t part_of(size_t size, enum verdict verdict)
{
    return verdict == GO_HALF && size > 1 ? size / 2 : size;
}

static const char *kind_of_open(int flags)
{
    const bool changes = flags & (O_CREAT | O_TRUNC);
    return changes && s_kinds && *s_kinds && is_wanted_kind("create") ? "create" : "open";
}

int open(const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    return meet_at(kind_of_open(flags), AT_FDCWD, path) == FAIL ? -1
                                                                : REAL(open)(path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    return meet_at(kind_of_open(flags), AT_FDCWD, path) == FAIL ? -1
                                                                : REAL(open64)(path, flags, mode);
}

int openat(int folder, const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    return meet_at(kind_of_open(flags), folder, path) == FAIL
        ? -1
        : REAL(openat)(folder, path, flags, mode);
}

int openat64(int folder, const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    return meet_at(kind_of_open(flags), folder, path) == FAIL
        ? -1
        : REAL(openat64)(folder, path, flags, mode);
}

/* An empty path is that of what is open already. */
static enum verdict meet_look(int folder, const char *path)
{
    return s_kinds && *s_kinds && path && *path ? meet_at("look", folder, path) : GO_ON;
}

int stat(const char *path, struct stat *status)
{
    return meet_look(AT_FDCWD, path) == FAIL ? -1 : REAL(stat)(path, status);
}

int stat64(const char *path, struct stat64 *status)
{
    return meet_look(AT_FDCWD, path) == FAIL ? -1 : REAL(stat64)(path, status);
}

int lstat(const char *path, struct stat *status)
{
    return meet_look(AT_FDCWD, path) == FAIL ? -1 : REAL(lstat)(path, status);
}

int lstat64(const char *path, struct stat64 *status)
{
    return meet_look(AT_FDCWD, path) == FAIL ? -1 : REAL(lstat64)(path, status);
}

int fstatat(int folder, const char *path, struct stat *status, int flags)
{
    return meet_look(folder, path) == FAIL ? -1 : REAL(fstatat)(folder, path, status, flags);
}

int fstatat64(int folder, const char *path, struct stat64 *status, int flags)
{
    return meet_look(folder, path) == FAIL ? -1 : REAL(fstatat64)(folder, path, status, flags);
}

int statx(int folder, const char *path, int flags, unsigned mask, struct statx *status)
{
    return meet_look(folder, path) == FAIL ? -1 : REAL(statx)(folder, path, flags, mask, status);
}

int access(const char *path, int mode)
{
    return meet_look(AT_FDCWD, path) == FAIL ? -1 : REAL(access)(path, mode);
}

FILE *fopen(const char *path, const char *mode)
{
    return meet_at("open", AT_FDCWD, path) == FAIL ? NULL : REAL(fopen)(path, mode);
}

FILE *fopen64(const char *path, const char *mode)
{
    return meet_at("open", AT_FDCWD, path) == FAIL ? NULL : REAL(fopen64)(path, mode);
}

DIR *opendir(const char *path)
{
    return meet_at("list", AT_FDCWD, path) == FAIL ? NULL : REAL(opendir)(path);
}

DIR *fdopendir(int folder)
{
    return meet_descriptor("list", folder) == FAIL ? NULL : REAL(fdopendir)(folder);
}

struct dirent *readdir(DIR *folder)
{
    return meet_descriptor("entry", dirfd(folder)) == FAIL ? NULL : REAL(readdir)(folder);
}

struct dirent64 *readdir64(DIR *folder)
{
    return meet_descriptor("entry", dirfd(folder)) == FAIL ? NULL : REAL(readdir64)(folder);
}

/* A stream that fails does so as a whole: what it holds back is lost. */
size_t fread(void *buffer, size_t size, size_t count, FILE *file)
{
    return meet_stream("read", file) == FAIL ? 0 : REAL(fread)(buffer, size, count, file);
}

size_t fwrite(const void *buffer, size_t size, size_t count, FILE *file)
{
    return meet_stream("write", file) == FAIL ? 0 : REAL(fwrite)(buffer, size, count, file);
}

int fflush(FILE *file)
{
    return file && meet_stream("write", file) == FAIL ? EOF : REAL(fflush)(file);
}

int fclose(FILE *file)
{
    const enum verdict verdict = meet_stream("close", file);
    const int error = errno;
    if (file == s_stranger)
        s_stranger = NULL;
    const int result = REAL(fclose)(file);
    if (verdict != FAIL)
        return result;
    errno = error;
    return EOF;
}

ssize_t read(int file, void *buffer, size_t size)
{
    const enum verdict verdict = meet_descriptor("read", file);
    return verdict == FAIL ? -1 : REAL(read)(file, buffer, part_of(size, verdict));
}

ssize_t pread(int file, void *buffer, size_t size, off_t position)
{
    const enum verdict verdict = meet_descriptor("read", file);
    return verdict == FAIL ? -1 : REAL(pread)(file, buffer, part_of(size, verdict), position);
}

ssize_t pread64(int file, void *buffer, size_t size, off64_t position)
{
    const enum verdict verdict = meet_descriptor("read", file);
    return verdict == FAIL ? -1 : REAL(pread64)(file, buffer, part_of(size, verdict), position);
}

ssize_t write(int file, const void *buffer, size_t size)
{
    const enum verdict verdict = meet_descriptor("write", file);
    return verdict == FAIL ? -1 : REAL(write)(file, buffer, part_of(size, verdict));
}

ssize_t pwrite(int file, const void *buffer, size_t size, off_t position)
{
    const enum verdict verdict = meet_descriptor("write", file);
    return verdict == FAIL ? -1 : REAL(pwrite)(file, buffer, part_of(size, verdict), position);
}

ssize_t pwrite64(int file, const void *buffer, size_t size, off64_t position)
{
    const enum verdict verdict = meet_descriptor("write", file);
    return verdict == FAIL ? -1 : REAL(pwrite64)(file, buffer, part_of(size, verdict), position);
}

ssize_t sendfile(int output, int input, off_t *position, size_t size)
{
    const enum verdict verdict = meet_descriptor("copy", output);
    return verdict == FAIL ? -1 : REAL(sendfile)(output, input, position, part_of(size, verdict));
}

ssize_t sendfile64(int output, int input, off64_t *position, size_t size)
{
    const enum verdict verdict = meet_descriptor("copy", output);
    return verdict == FAIL ? -1 : REAL(sendfile64)(output, input, position, part_of(size, verdict));
}

ssize_t copy_file_range(
    int input, off64_t *from, int output, off64_t *to, size_t size, unsigned flags)
{
    const enum verdict verdict = meet_descriptor("copy", output);
    return verdict == FAIL
        ? -1
        : REAL(copy_file_range)(input, from, output, to, part_of(size, verdict), flags);
}

/* The descriptor is closed in any case, as Linux does it. */
int close(int file)
{
    const enum verdict verdict = meet_descriptor("close", file);
    const int error = errno;
    const int result = REAL(close)(file);
    if (verdict != FAIL)
        return result;
    errno = error;
    return -1;
}

int fsync(int file)
{
    return meet_descriptor("sync", file) == FAIL ? -1 : s_unsynced ? 0 : REAL(fsync)(file);
}

int fdatasync(int file)
{
    return meet_descriptor("sync", file) == FAIL ? -1 : s_unsynced ? 0 : REAL(fdatasync)(file);
}

int syncfs(int file)
{
    return meet_descriptor("sync", file) == FAIL ? -1 : s_unsynced ? 0 : REAL(syncfs)(file);
}

int ftruncate(int file, off_t size)
{
    return meet_descriptor("truncate", file) == FAIL ? -1 : REAL(ftruncate)(file, size);
}

int ftruncate64(int file, off64_t size)
{
    return meet_descriptor("truncate", file) == FAIL ? -1 : REAL(ftruncate64)(file, size);
}

/* Renames and links count once, by the new name. */
int rename(const char *from, const char *to)
{
    return meet_at("rename", AT_FDCWD, to) == FAIL ? -1 : REAL(rename)(from, to);
}

int renameat(int from_folder, const char *from, int to_folder, const char *to)
{
    return meet_at("rename", to_folder, to) == FAIL
        ? -1
        : REAL(renameat)(from_folder, from, to_folder, to);
}

int renameat2(int from_folder, const char *from, int to_folder, const char *to, unsigned flags)
{
    return meet_at("rename", to_folder, to) == FAIL
        ? -1
        : REAL(renameat2)(from_folder, from, to_folder, to, flags);
}

int link(const char *from, const char *to)
{
    return meet_at("link", AT_FDCWD, to) == FAIL ? -1 : REAL(link)(from, to);
}

int linkat(int from_folder, const char *from, int to_folder, const char *to, int flags)
{
    return meet_at("link", to_folder, to) == FAIL
        ? -1
        : REAL(linkat)(from_folder, from, to_folder, to, flags);
}

int unlink(const char *path)
{
    return meet_at("remove", AT_FDCWD, path) == FAIL ? -1 : REAL(unlink)(path);
}

int unlinkat(int folder, const char *path, int flags)
{
    return meet_at("remove", folder, path) == FAIL ? -1 : REAL(unlinkat)(folder, path, flags);
}

int remove(const char *path)
{
    return meet_at("remove", AT_FDCWD, path) == FAIL ? -1 : REAL(remove)(path);
}

int rmdir(const char *path)
{
    return meet_at("remove", AT_FDCWD, path) == FAIL ? -1 : REAL(rmdir)(path);
}

int mkdir(const char *path, mode_t mode)
{
    return meet_at("mkdir", AT_FDCWD, path) == FAIL ? -1 : REAL(mkdir)(path, mode);
}

int mkdirat(int folder, const char *path, mode_t mode)
{
    return meet_at("mkdir", folder, path) == FAIL ? -1 : REAL(mkdirat)(folder, path, mode);
}

int chmod(const char *path, mode_t mode)
{
    return meet_at("mode", AT_FDCWD, path) == FAIL ? -1 : REAL(chmod)(path, mode);
}

int fchmod(int file, mode_t mode)
{
    return meet_descriptor("mode", file) == FAIL ? -1 : REAL(fchmod)(file, mode);
}

int fchown(int file, uid_t user, gid_t group)
{
    return meet_descriptor("mode", file) == FAIL ? -1 : REAL(fchown)(file, user, group);
}

int lchown(const char *path, uid_t user, gid_t group)
{
    return meet_at("mode", AT_FDCWD, path) == FAIL ? -1 : REAL(lchown)(path, user, group);
}

int fchownat(int folder, const char *path, uid_t user, gid_t group, int flags)
{
    return meet_at("mode", folder, path) == FAIL ? -1
                                                 : REAL(fchownat)(folder, path, user, group, flags);
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    if (s_time_stands && clock == CLOCK_MONOTONIC) {
        now->tv_sec = s_moment.tv_sec;
        now->tv_nsec = s_moment.tv_nsec;
        return 0;
    }
    return (int)syscall(SYS_clock_gettime, clock, now);
}

/* What a file system has free, where the environment says so. */
#define TAKE_ROOM(status)                                                                          \
    do {                                                                                           \
        const char *bytes = getenv("FAULTS_ROOM");                                                 \
        const char *files = getenv("FAULTS_ROOM_FILES");                                           \
        if (bytes && *bytes)                                                                       \
            (status)->f_bavail = strtoull(bytes, NULL, 10) / (status)->f_frsize;                   \
        if (files && *files)                                                                       \
            (status)->f_favail = (status)->f_files = strtoull(files, NULL, 10);                    \
    } while (0)

#define TAKE_KIND(status)                                                                          \
    do {                                                                                           \
        const char *kind = getenv("FAULTS_KIND");                                                  \
        if (kind && *kind)                                                                         \
            (status)->f_type = strtol(kind, NULL, 0);                                              \
    } while (0)

static enum verdict meet_room(const char *path)
{
    return s_kinds && *s_kinds ? meet_at("room", AT_FDCWD, path) : GO_ON;
}

int statfs(const char *path, struct statfs *status)
{
    const int result = meet_room(path) == FAIL ? -1 : REAL(statfs)(path, status);
    if (result == 0)
        TAKE_KIND(status);
    return result;
}

int statfs64(const char *path, struct statfs64 *status)
{
    const int result = meet_room(path) == FAIL ? -1 : REAL(statfs64)(path, status);
    if (result == 0)
        TAKE_KIND(status);
    return result;
}

int statvfs(const char *path, struct statvfs *status)
{
    const int result = meet_room(path) == FAIL ? -1 : REAL(statvfs)(path, status);
    if (result == 0)
        TAKE_ROOM(status);
    return result;
}

int statvfs64(const char *path, struct statvfs64 *status)
{
    const int result = meet_room(path) == FAIL ? -1 : REAL(statvfs64)(path, status);
    if (result == 0)
        TAKE_ROOM(status);
    return result;
}
