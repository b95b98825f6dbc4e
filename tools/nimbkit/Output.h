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
// Main thread only.
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

// Writes `bytes` to `path` as described above. Returns "" on success, else
// the reason (strerror text). A symbolic link at `path` is replaced, not
// followed.
std::string writeUserFile(const std::string& path, std::span<const std::uint8_t> bytes);
std::string writeUserFile(const std::string& path, std::string_view bytes);

}  // namespace nimbkit
