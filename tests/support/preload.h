/* SPDX-License-Identifier: MIT */
/* What the libraries for LD_PRELOAD share. They define _GNU_SOURCE before it. */
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/types.h>

/* The C library's own function of that name. */
#define REAL(name) ((__typeof__(&(name)))dlsym(RTLD_NEXT, #name))

/* The mode of an open() that has one. */
#define TAKE_MODE(flags, mode)                                                                     \
    mode_t mode = 0;                                                                               \
    if ((flags) & (O_CREAT | O_TMPFILE)) {                                                         \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        mode = (mode_t)va_arg(arguments, unsigned);                                                \
        va_end(arguments);                                                                         \
    }
