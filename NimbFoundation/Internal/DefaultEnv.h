// DefaultEnv: the Env that is Linux itself, as Env::Default() hands it out.
//
// What it answers:
//   - now() is CLOCK_REALTIME, monotonicSeconds() CLOCK_MONOTONIC.
//   - Files: directories are made 0700 and files 0600; a write goes through
//     "." + name + ".tmp-XXXXXX" in the same directory, renamed over the
//     target, so a reader never sees half a file. A read opens only a
//     regular file: with FollowLinks::No a symbolic link at the last
//     component fails with ELOOP, a directory with EISDIR, and a FIFO, a
//     device or a socket reads as missing (ENOENT) without ever blocking.
//     Every failure carries errno and the path.
//   - deviceFacts(): "Linux"; VERSION_ID of os-release, else the kernel
//     release; uname's machine; /etc/machine-id (or dbus's); no orientation
//     and an unspecified idiom; the first connected DRM display at scale 1;
//     integrity compromised when running as root, under LD_PRELOAD or traced.
//   - Network: getifaddrs, if_nametoindex, SIOCGIFHWADDR.
//   - pasteboardDirectory(): FileManager::dataDirectory() +
//     "/NimbFoundation/Pasteboards".
//   - bundleSettings(): nothing set, so the main bundle uses its defaults.
//   - localeIdentifier(): LC_ALL, LC_MESSAGES, then LANG, without codeset or
//     modifier ("" for C and POSIX); preferredLanguages() adds the ordered
//     LANGUAGE list before it, honoured only beside a real locale.
//   - systemTimeZoneName(): TZ, else /etc/localtime, detected once per
//     process.
//   - Facts that follow from environment variables (the home folder, the
//     locale and languages, the program found on PATH) read them through Env::current(), so a
//     wrapper that changes a variable changes what follows from it.
//   - homeDirectory(): $HOME, else the password database's home.
//   - launchDetached(): through a shell that backgrounds the program and
//     exits at once, with signals reset and no descriptors beyond the
//     standard three.
#pragma once

#include <NimbFoundation/Platform/Env/Env.h>

namespace nimb::detail {

class DefaultEnv final : public Env {
 public:
  Date now() override;
  double monotonicSeconds() override;
  std::optional<std::string> environmentVariable(std::string_view name) override;
  std::string homeDirectory() override;
  std::string processName() override;
  std::string executablePath() override;
  Result<Data> readFile(const std::string& path, FollowLinks follow) override;
  Result<void> writeFileAtomically(const std::string& path,
                                   std::span<const std::uint8_t> bytes) override;
  Result<void> copyFile(const std::string& from, const std::string& to) override;
  Result<FileInfo> fileInfo(const std::string& path, FollowLinks follow) override;
  Result<void> createDirectory(const std::string& path, bool intermediates) override;
  Result<void> removeItem(const std::string& path) override;
  Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) override;
  DeviceFacts deviceFacts() override;
  std::optional<std::vector<InterfaceAddress>> interfaceAddresses() override;
  unsigned interfaceIndex(std::string_view name) override;
  NetworkInterfaces::HardwareAddress hardwareAddress(unsigned index) override;
  std::string pasteboardDirectory() override;
  BundleSettings bundleSettings() override;
  std::string localeIdentifier() override;
  std::vector<std::string> preferredLanguages() override;
  std::string systemTimeZoneName() override;
  bool launchDetached(const std::vector<std::string>& argv) override;
  std::optional<std::string> outputOfProgram(const std::vector<std::string>& argv) override;
};

}  // namespace nimb::detail
