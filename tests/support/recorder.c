// SPDX-License-Identifier: MIT
/*
 * A library for LD_PRELOAD: records what a program changes in a folder, so that tests can build
 * what a power cut may have left of it (diskrecord.h). The environment:
 *
 *   RECORD_PATH  the folder (canonical path)
 *   RECORD_TO    the record is appended to this file: a line for each call that has succeeded, with
 *                tabs between the kind, the path and a third part
 *
 *     create PATH MODE, write PATH DATA, mode PATH MODE (octal; data in hexadecimal digits),
 *     rename FROM TO, link FROM TO, unlink PATH, rmdir PATH, mkdir PATH, sync PATH, syncall PATH
 *
 * A program that changes files in a way that is not recorded is ended. One thread may call.
 */
#define _GNU_SOURCE
#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static const char *s_path;
static int s_record = -1;

__attribute__((constructor)) static void read_settings(void)
{
    const char *to = getenv("RECORD_TO");
    s_path = getenv("RECORD_PATH");
    if (s_path && to)
        s_record = (int)syscall(
            SYS_openat, AT_FDCWD, to, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
}

static bool is_wanted(const char *path)
{
    const size_t length = s_path ? strlen(s_path) : 0;
    return s_record >= 0 && path && strncmp(path, s_path, length) == 0
        && (path[length] == '/' || path[length] == '\0');
}

static const char *path_of(int file, char *path, size_t size)
{
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    const ssize_t length = readlink(link, path, size - 1);
    path[length < 0 ? 0 : length] = '\0';
    return path;
}

static void put(const char *text, size_t size)
{
    if (syscall(SYS_write, s_record, text, size) != (long)size)
        abort();
}

static void record(const char *kind, const char *path, const char *third)
{
    const int error = errno;
    char line[9000];
    const int length = snprintf(line, sizeof line, "%s\t%s\t%s\n", kind, path, third ? third : "");
    if (length < 0 || (size_t)length >= sizeof line || strchr(path, '\n'))
        abort();
    put(line, (size_t)length);
    errno = error;
}

static void record_mode(const char *kind, const char *path, mode_t mode)
{
    char text[16];
    snprintf(text, sizeof text, "%o", (unsigned)mode & 07777U);
    record(kind, path, text);
}

static void record_data(const char *path, const unsigned char *data, size_t size)
{
    const char digits[] = "0123456789abcdef";
    char *line = malloc(strlen(path) + 2 * size + 16);
    if (!line)
        abort();
    char *at = line + sprintf(line, "write\t%s\t", path);
    for (size_t i = 0; i < size; ++i) {
        *at++ = digits[data[i] >> 4];
        *at++ = digits[data[i] & 15];
    }
    *at++ = '\n';
    put(line, (size_t)(at - line));
    free(line);
}

/* What the model of the disk does not know. */
static void refuse(const char *call, const char *path)
{
    if (!is_wanted(path))
        return;
    fprintf(stderr, "recorder: %s is not recorded: %s\n", call, path);
    abort();
}

static int opened(const char *path, int flags, int file)
{
    if (file >= 0 && is_wanted(path) && (flags & O_ACCMODE) != O_RDONLY) {
        struct stat status;
        if (!(flags & O_CREAT) || !(flags & O_EXCL) || fstat(file, &status) != 0)
            refuse("opening a file to write that was there", path);
        record_mode("create", path, status.st_mode);
    }
    return file;
}

int open(const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    return opened(path, flags, REAL(open)(path, flags, mode));
}

int open64(const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    return opened(path, flags, REAL(open64)(path, flags, mode));
}

/* The path of NAME in an open folder. */
static const char *path_in(int folder, const char *name, char *path, size_t size)
{
    if (*name == '/' || folder == AT_FDCWD)
        return name;
    path_of(folder, path, size);
    const size_t length = strlen(path);
    if (length == 0 || length + strlen(name) + 2 > size)
        abort();
    path[length] = '/';
    strcpy(path + length + 1, name);
    return path;
}

int openat(int folder, const char *name, int flags, ...)
{
    TAKE_MODE(flags, mode)
    char path[4096];
    const int file = REAL(openat)(folder, name, flags, mode);
    return file < 0 ? file : opened(path_in(folder, name, path, sizeof path), flags, file);
}

int openat64(int folder, const char *name, int flags, ...)
{
    TAKE_MODE(flags, mode)
    char path[4096];
    const int file = REAL(openat64)(folder, name, flags, mode);
    return file < 0 ? file : opened(path_in(folder, name, path, sizeof path), flags, file);
}

ssize_t write(int file, const void *data, size_t size)
{
    char path[4096];
    const ssize_t written = REAL(write)(file, data, size);
    if (written > 0 && s_record >= 0 && is_wanted(path_of(file, path, sizeof path)))
        record_data(path, data, (size_t)written);
    return written;
}

int rename(const char *from, const char *to)
{
    const int result = REAL(rename)(from, to);
    if (result == 0 && is_wanted(to))
        record("rename", from, to);
    return result;
}

int renameat(int from_folder, const char *from, int to_folder, const char *to)
{
    char from_path[4096];
    char to_path[4096];
    const int result = REAL(renameat)(from_folder, from, to_folder, to);
    to = path_in(to_folder, to, to_path, sizeof to_path);
    if (result == 0 && is_wanted(to))
        record("rename", path_in(from_folder, from, from_path, sizeof from_path), to);
    return result;
}

int linkat(int from_folder, const char *from, int to_folder, const char *to, int flags)
{
    char from_path[4096];
    char to_path[4096];
    const int result = REAL(linkat)(from_folder, from, to_folder, to, flags);
    to = path_in(to_folder, to, to_path, sizeof to_path);
    if (result == 0 && is_wanted(to))
        record("link", path_in(from_folder, from, from_path, sizeof from_path), to);
    return result;
}

int unlinkat(int folder, const char *name, int flags)
{
    char path[4096];
    const int result = REAL(unlinkat)(folder, name, flags);
    name = path_in(folder, name, path, sizeof path);
    if (result == 0 && is_wanted(name))
        record(flags & AT_REMOVEDIR ? "rmdir" : "unlink", name, NULL);
    return result;
}

int mkdirat(int folder, const char *name, mode_t mode)
{
    char path[4096];
    const int result = REAL(mkdirat)(folder, name, mode);
    name = path_in(folder, name, path, sizeof path);
    if (result == 0 && is_wanted(name))
        record("mkdir", name, NULL);
    return result;
}

int link(const char *from, const char *to)
{
    const int result = REAL(link)(from, to);
    if (result == 0 && is_wanted(to))
        record("link", from, to);
    return result;
}

int unlink(const char *path)
{
    const int result = REAL(unlink)(path);
    if (result == 0 && is_wanted(path))
        record("unlink", path, NULL);
    return result;
}

int rmdir(const char *path)
{
    const int result = REAL(rmdir)(path);
    if (result == 0 && is_wanted(path))
        record("rmdir", path, NULL);
    return result;
}

int mkdir(const char *path, mode_t mode)
{
    const int result = REAL(mkdir)(path, mode);
    if (result == 0 && is_wanted(path))
        record("mkdir", path, NULL);
    return result;
}

int chmod(const char *path, mode_t mode)
{
    const int result = REAL(chmod)(path, mode);
    if (result == 0 && is_wanted(path))
        record_mode("mode", path, mode);
    return result;
}

int fchmod(int file, mode_t mode)
{
    char path[4096];
    const int result = REAL(fchmod)(file, mode);
    if (result == 0 && is_wanted(path_of(file, path, sizeof path)))
        record_mode("mode", path, mode);
    return result;
}

static void synced(const char *kind, int file, int result)
{
    char path[4096];
    if (result == 0 && is_wanted(path_of(file, path, sizeof path)))
        record(kind, path, NULL);
}

/* The disk is a model, so nobody needs to wait for the real one. */
int fsync(int file)
{
    synced("sync", file, 0);
    return 0;
}

int fdatasync(int file)
{
    synced("sync", file, 0);
    return 0;
}

int syncfs(int file)
{
    synced("syncall", file, 0);
    return 0;
}

ssize_t pwrite(int file, const void *data, size_t size, off_t position)
{
    char path[4096];
    refuse("pwrite", path_of(file, path, sizeof path));
    return REAL(pwrite)(file, data, size, position);
}

int ftruncate(int file, off_t size)
{
    char path[4096];
    refuse("ftruncate", path_of(file, path, sizeof path));
    return REAL(ftruncate)(file, size);
}

int truncate(const char *path, off_t size)
{
    refuse("truncate", path);
    return REAL(truncate)(path, size);
}

int remove(const char *path)
{
    refuse("remove", path);
    return REAL(remove)(path);
}

int renameat2(int from_folder, const char *from, int to_folder, const char *to, unsigned flags)
{
    refuse("renameat2", to);
    return REAL(renameat2)(from_folder, from, to_folder, to, flags);
}
