// SPDX-License-Identifier: MIT
/*
 * A library for LD_PRELOAD: below the folder FOLDING_PATH (canonical path) names that differ only
 * in the case of their letters, or in whether an umlaut is composed, lead to the same file, as on
 * some file systems. Files are made with small letters and composed; those that are there must be
 * so.
 */
#define _GNU_SOURCE
#include "preload.h"

#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { Longest = 4200 };

static const char *end_of_base(const char *path)
{
    const char *base = getenv("FOLDING_PATH");
    const size_t length = base ? strlen(base) : 0;
    const bool lies_in = length > 0 && strncmp(path, base, length) == 0
        && (path[length] == '/' || path[length] == '\0');
    return lies_in ? path + length : NULL;
}

/* Whether what is not absolute begins in a folder of such names. */
static bool begins_inside(int folder)
{
    char link[32];
    char path[Longest];
    if (folder == AT_FDCWD)
        return false;
    snprintf(link, sizeof link, "/proc/self/fd/%d", folder);
    const ssize_t length = readlink(link, path, sizeof path - 1);
    if (length < 0)
        return false;
    path[length] = '\0';
    return end_of_base(path) != NULL;
}

/* Replaces PART wherever it is by the shorter WITH. */
static void shorten(char *text, const char *part, const char *with)
{
    for (char *at = text; (at = strstr(at, part)) != NULL;) {
        memcpy(at, with, strlen(with));
        memmove(at + strlen(with), at + strlen(part), strlen(at + strlen(part)) + 1);
    }
}

static const char *folded(int folder, const char *path, char buffer[Longest])
{
    const char *end = path && *path == '/' ? end_of_base(path) : path;
    if (!path || !end || (*path != '/' && !begins_inside(folder)) || strlen(path) >= Longest)
        return path;
    strcpy(buffer, path);
    for (char *letter = buffer + (end - path); *letter; ++letter) {
        if (*letter >= 'A' && *letter <= 'Z')
            *letter = (char)(*letter - 'A' + 'a');
    }
    shorten(buffer + (end - path), "u\xcc\x88", "\xc3\xbc");
    shorten(buffer + (end - path), "\xc3\x9c", "\xc3\xbc");
    return buffer;
}

#define FOLD(folder, path)                                                                         \
    char buffer_of_##path[Longest];                                                                \
    path = folded(folder, path, buffer_of_##path);

int open(const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    FOLD(AT_FDCWD, path)
    return REAL(open)(path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    FOLD(AT_FDCWD, path)
    return REAL(open64)(path, flags, mode);
}

int openat(int folder, const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    FOLD(folder, path)
    return REAL(openat)(folder, path, flags, mode);
}

int openat64(int folder, const char *path, int flags, ...)
{
    TAKE_MODE(flags, mode)
    FOLD(folder, path)
    return REAL(openat64)(folder, path, flags, mode);
}

int stat(const char *path, struct stat *status)
{
    FOLD(AT_FDCWD, path)
    return REAL(stat)(path, status);
}

int stat64(const char *path, struct stat64 *status)
{
    FOLD(AT_FDCWD, path)
    return REAL(stat64)(path, status);
}

int lstat(const char *path, struct stat *status)
{
    FOLD(AT_FDCWD, path)
    return REAL(lstat)(path, status);
}

int lstat64(const char *path, struct stat64 *status)
{
    FOLD(AT_FDCWD, path)
    return REAL(lstat64)(path, status);
}

int fstatat(int folder, const char *path, struct stat *status, int flags)
{
    FOLD(folder, path)
    return REAL(fstatat)(folder, path, status, flags);
}

int fstatat64(int folder, const char *path, struct stat64 *status, int flags)
{
    FOLD(folder, path)
    return REAL(fstatat64)(folder, path, status, flags);
}

int statx(int folder, const char *path, int flags, unsigned mask, struct statx *status)
{
    FOLD(folder, path)
    return REAL(statx)(folder, path, flags, mask, status);
}

int access(const char *path, int mode)
{
    FOLD(AT_FDCWD, path)
    return REAL(access)(path, mode);
}

int rename(const char *from, const char *to)
{
    FOLD(AT_FDCWD, from)
    FOLD(AT_FDCWD, to)
    return REAL(rename)(from, to);
}

int renameat(int from_folder, const char *from, int to_folder, const char *to)
{
    FOLD(from_folder, from)
    FOLD(to_folder, to)
    return REAL(renameat)(from_folder, from, to_folder, to);
}

int linkat(int from_folder, const char *from, int to_folder, const char *to, int flags)
{
    FOLD(from_folder, from)
    FOLD(to_folder, to)
    return REAL(linkat)(from_folder, from, to_folder, to, flags);
}

int unlink(const char *path)
{
    FOLD(AT_FDCWD, path)
    return REAL(unlink)(path);
}

int unlinkat(int folder, const char *path, int flags)
{
    FOLD(folder, path)
    return REAL(unlinkat)(folder, path, flags);
}

int rmdir(const char *path)
{
    FOLD(AT_FDCWD, path)
    return REAL(rmdir)(path);
}

int mkdir(const char *path, mode_t mode)
{
    FOLD(AT_FDCWD, path)
    return REAL(mkdir)(path, mode);
}

int mkdirat(int folder, const char *path, mode_t mode)
{
    FOLD(folder, path)
    return REAL(mkdirat)(folder, path, mode);
}

int chmod(const char *path, mode_t mode)
{
    FOLD(AT_FDCWD, path)
    return REAL(chmod)(path, mode);
}
