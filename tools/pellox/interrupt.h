// SPDX-License-Identifier: MIT
#pragma once

/**
 * Ctrl-C ends the program at once with status 130. What it had under way can be started
 * again: manifests are written last and temporary files are never reused.
 */
namespace Interrupt {

void install();

/// Tells whether a progress bar stands on the terminal's line, which the end then closes.
void setLineOpen(bool open);

/// @p line, which must live as long as the program, goes to standard output at that end.
void sayOnExit(const char *line);

} // namespace Interrupt
