#pragma once

// The descriptor operations behind core::ConsoleLogPostProcessor
// (console_capture_pipe_<platform>.cpp): the runtime library's descriptors, on POSIX the
// system's own.

#include <string_view>

namespace core::console_capture {

/// A duplicate of `fd` that child processes do not inherit; -1 with errno set on failure.
int duplicateUninherited(int fd);
/// The capture pipe, read end then write end, which child processes do not inherit; false with
/// errno set on failure.
bool createPipe(int fds[2]);
/// Closes `to` and makes it refer to what `from` refers to.
void redirect(int from, int to);
void closeDescriptor(int fd);
/// Reads one byte: 1, or less at end of file or on error.
int readByte(int fd, char& byte);
/// Writes all of `text` unless the descriptor fails.
void writeAll(int fd, std::string_view text);
/// Nothing waits to be read at the pipe's read end `fd`, or that cannot be found out.
bool pipeEmpty(int fd);
/// Runs `hook` when the process exits normally, while its other threads still run.
void atProcessExit(void (*hook)());

}  // namespace core::console_capture
