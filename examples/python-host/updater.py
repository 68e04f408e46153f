#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Brings an installed build up to date, with a line of progress, and checks it.

    python3 updater.py update BUILD PATCH [PUBLIC_KEY]
    python3 updater.py check BUILD SIGNATURES

It needs nothing but Python and the shared library, which the system finds, or which the environment
variable PELLOX_LIBRARY names. With PUBLIC_KEY only patches that its owner has sealed are taken.
Ctrl-C leaves the build as it was. Exits with 0 when the build is the new one, or intact.
"""

import ctypes
import os
import signal
import sys

DONE, NOTHING_TO_DO = 0, 1
PHASES = {1: "finishing what was interrupted", 2: "checking", 3: "writing", 4: "putting in place"}
FILES = {2: "changed", 3: "missing", 4: "unreadable", 5: "extra"}
INTACT_FILES = 1


class Problem(ctypes.Structure):
    """Later versions of the library may have more fields behind these."""

    _fields_ = [("code", ctypes.c_int)] + [
        (name, ctypes.c_char_p) for name in ("code_name", "file", "reason", "message", "advice")
    ]


ON_PROGRESS = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int64, ctypes.c_int64)
ON_PHASE = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int)
ON_PROBLEM = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(Problem))
ON_FILE = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p)


def load_library():
    library = ctypes.CDLL(os.environ.get("PELLOX_LIBRARY", "libPellox.so.1"))
    job, text = ctypes.c_void_p, ctypes.c_char_p
    library.pellox_job_new.restype = job
    library.pellox_result_name.restype = text
    library.pellox_figure.restype = ctypes.c_int64
    for name, arguments in {
        "pellox_job_free": [job],
        "pellox_cancel": [job],
        "pellox_on_progress": [job, ON_PROGRESS, ctypes.c_void_p],
        "pellox_on_phase": [job, ON_PHASE, ctypes.c_void_p],
        "pellox_on_problem": [job, ON_PROBLEM, ctypes.c_void_p],
        "pellox_on_file": [job, ON_FILE, ctypes.c_void_p],
        "pellox_add_trusted_key": [job, text],
        "pellox_update": [job, text, text],
        "pellox_check": [job, text, text],
        "pellox_figure": [job, ctypes.c_int],
    }.items():
        getattr(library, name).argtypes = arguments
    return library


class Job:
    """A run at a time; its callbacks come on the thread that calls."""

    def __init__(self, library):
        self._library = library
        self._job = library.pellox_job_new()
        if not self._job:
            raise MemoryError
        # The library keeps no reference to what it calls.
        self._callbacks = [
            ON_PROGRESS(self._show_progress),
            ON_PHASE(self._show_phase),
            ON_PROBLEM(self._show_problem),
            ON_FILE(self._show_file),
        ]
        for name, callback in zip(("progress", "phase", "problem", "file"), self._callbacks):
            getattr(library, f"pellox_on_{name}")(self._job, callback, None)
        # Python runs its signal handlers between two callbacks.
        signal.signal(signal.SIGINT, lambda *_: library.pellox_cancel(self._job))

    def close(self):
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        self._library.pellox_job_free(self._job)

    def update(self, build, patch, public_key=None):
        if public_key:
            self._library.pellox_add_trusted_key(self._job, public_key.encode())
        return self._library.pellox_update(self._job, build.encode(), patch.encode())

    def check(self, build, signatures):
        result = self._library.pellox_check(self._job, build.encode(), signatures.encode())
        print(self._library.pellox_figure(self._job, INTACT_FILES), "intact")
        return result

    @staticmethod
    def _show_progress(_, done, total):
        print(f"\r{done / 2**20:.1f} of {total / 2**20:.1f} MiB ", end="", file=sys.stderr)

    @staticmethod
    def _show_phase(_, phase):
        if phase in PHASES:  # a later version of the library may have more
            print(f"\n{PHASES[phase]}", file=sys.stderr)

    @staticmethod
    def _show_problem(_, problem):
        problem = problem.contents
        for text in (problem.code_name + b": " + problem.message, problem.advice):
            print(text.decode(), file=sys.stderr)

    @staticmethod
    def _show_file(_, event, path):
        if event in FILES:
            print(FILES[event], path.decode())


def main(command, *paths):
    library = load_library()
    job = Job(library)
    run = {"update": job.update, "check": job.check}[command]
    result = run(*paths)
    job.close()
    print(library.pellox_result_name(result).decode())
    return 0 if result in (DONE, NOTHING_TO_DO) else 1


if __name__ == "__main__":
    if len(sys.argv) not in (4, 5) or sys.argv[1] not in ("update", "check"):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
