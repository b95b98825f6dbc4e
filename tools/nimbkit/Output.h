// Output: what nimbkit writes for the user, and the checks that make a lost
// write a failure rather than a silent success.
//
// Standard output: commands write through writeStandardOutput() or plain
// stdio, and main ends with finishStandardStreams(), which flushes and
// closes standard output and flushes standard error. Any write error on
// the way (a full disk, a closed pipe reader's EPIPE with SIGPIPE ignored,
// /dev/full) turns the exit status into 1 with one line
// "nimbkit: write error: <reason>" on standard error, as coreutils do.
//
// Files the user names (-o, --out): writeUserFile() creates them with mode
// 0666 as the umask allows (0644 under umask 022), like a shell
// redirection, through a temporary file next to the target and a rename,
// so a reader never sees half a file and a failure leaves the old one.
//
// Diagnostics: the tool's own error lines and the kit's diagnostics both go
// through the kit's log sink (NimbFoundation/Platform/Env/Log.h), which
// main sets with installDiagnosticSink(): every line lands on standard
// error, so the kit's messages never mix into what a command prints on
// standard output.
//
// Main thread only, apart from the sink, which the kit may call from any
// thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace nimbkit {

// Writes `bytes` to standard output; false (with the reason kept for the
// exit) when they could not all be written.
bool writeStandardOutput(std::span<const std::uint8_t> bytes);

// Flushes standard output; false (with the reason kept) on a write error.
bool flushStandardOutput();

// Flushes and closes standard output and flushes standard error. Returns
// `status`, or 1 in place of 0 when any write to either failed, after
// printing "nimbkit: write error: <reason>" for standard output.
int finishStandardStreams(int status);

// Sets the sink that writes diagnostics on standard error: the tool's own
// lines as they are, the kit's as "nimbkit: <subsystem>: <message>".
void installDiagnosticSink();

// Reports one of the tool's own failures, printf-style, through the sink
// (subsystem "nimbkit"); a final newline in `format` is dropped.
void diagnose(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes `bytes` to `path` as described above. Returns "" on success, else
// the reason (strerror text). A symbolic link at `path` is replaced, not
// followed.
std::string writeUserFile(const std::string& path, std::span<const std::uint8_t> bytes);
std::string writeUserFile(const std::string& path, std::string_view bytes);

}  // namespace nimbkit
