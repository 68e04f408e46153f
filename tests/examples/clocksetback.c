/* SPDX-License-Identifier: MIT */
/* For LD_PRELOAD: the time of day goes back by a minute whenever somebody asks for it. */
#define _GNU_SOURCE
#include <stdatomic.h>
#include <stddef.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static atomic_int s_asked;

time_t time(time_t *result)
{
    const time_t now = (time_t)1700000000 - 60 * (time_t)++s_asked;
    if (result)
        *result = now;
    return now;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
    if (clock != CLOCK_REALTIME)
        return (int)syscall(SYS_clock_gettime, clock, now);
    now->tv_sec = time(NULL);
    now->tv_nsec = 0;
    return 0;
}
