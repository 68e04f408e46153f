#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes patches and keeps an installed build up to date, with a line of progress.

    python3 updater.py update BUILD PATCH [PUBLIC_KEY]
    python3 updater.py update-keep BUILD PATCH [PUBLIC_KEY]   so that rollback can undo it
    python3 updater.py rollback BUILD
    python3 updater.py check BUILD SIGNATURES
    python3 updater.py repair BUILD SIGNATURES SOURCE
    python3 updater.py sign BUILD SIGNATURES   of the first release, which has no patch
    python3 updater.py publish NEW_BUILD OLD_SIGNATURES PATCH NEW_SIGNATURES
    python3 updater.py pack FOLDER ARCHIVE   by the 7zr beside Python's interpreter
    python3 updater.py unpack ARCHIVE FOLDER   likewise; of several volumes name the first

It needs nothing but Python and the shared library, which the system finds, or which the environment
variable PELLOX_LIBRARY names. With PUBLIC_KEY only patches that its owner has sealed are taken.
Ctrl-C leaves the build as it was. Exits with 0 when it is done or nothing was to be done.
"""

import ctypes
import os
import signal
import sys

DONE, NOTHING_TO_DO = 0, 1
PHASES = {1: "finishing what was interrupted", 2: "checking", 3: "writing", 4: "putting in place"}
FILES = {2: "changed", 3: "missing", 4: "unreadable", 5: "extra"}
INTACT_FILES = 1
# The function of each command, and how many paths it takes.
RUNS = {
    "update": ("pellox_update", 2),
    "update-keep": ("pellox_update", 2),
    "rollback": ("pellox_rollback", 1),
    "check": ("pellox_check", 2),
    "repair": ("pellox_repair", 3),
    "sign": ("pellox_create_signatures", 2),
    "publish": ("pellox_publish", 4),
    "pack": ("pellox_pack", 2),
    "unpack": ("pellox_unpack", 2),
}


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
        "pellox_set_keep_previous": [job, ctypes.c_int],
        "pellox_add_trusted_key": [job, text],
        "pellox_figure": [job, ctypes.c_int],
    }.items():
        getattr(library, name).argtypes = arguments
    for name, path_count in RUNS.values():
        getattr(library, name).argtypes = [job] + path_count * [text]
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

    def keep_previous(self):
        self._library.pellox_set_keep_previous(self._job, 1)

    def trust(self, public_key):
        return self._library.pellox_add_trusted_key(self._job, public_key.encode())

    def run(self, function, *paths):
        paths = [path.encode() for path in paths]
        return getattr(self._library, function)(self._job, *paths)

    def intact_files(self):
        return self._library.pellox_figure(self._job, INTACT_FILES)

    @staticmethod
    def _show_progress(_, done, total):
        if total > 0:
            print(f"\r{100 * done / total:.0f} % ", end="", file=sys.stderr)

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


def run(job, command, *paths):
    function, path_count = RUNS[command]
    for public_key in paths[path_count:]:
        result = job.trust(public_key)
        if result != DONE:
            return result
    if command == "update-keep":
        job.keep_previous()
    result = job.run(function, *paths[:path_count])
    if command == "check":
        print(job.intact_files(), "intact")
    return result


def main(*arguments):
    library = load_library()
    job = Job(library)
    result = run(job, *arguments)
    job.close()
    print(library.pellox_result_name(result).decode())
    return 0 if result in (DONE, NOTHING_TO_DO) else 1


def is_understood(command=None, *paths):
    if command not in RUNS:
        return False
    _, path_count = RUNS[command]
    takes_key = command in ("update", "update-keep")
    return path_count <= len(paths) <= path_count + takes_key


if __name__ == "__main__":
    if not is_understood(*sys.argv[1:]):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
