#pragma once

// The program's log: one plain line a message, which says what is done and why. procd hands
// standard output on as information and standard error as errors.
//
// A line leaves in one write and is cut at 511 characters. Control characters, which a configured
// text may hold, become '?', so that a message is one line whatever it quotes. Failures to write
// are ignored.

void log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For mistakes in the configuration and for what somebody should look at.
void log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
