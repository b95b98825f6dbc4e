// Env: the one seam between the kit and the operating system.
//
// Every effect the platform layer has on the machine, and every fact it
// reads from it, goes through an Env: clocks, files and directories, the
// user's folders, device and machine facts, network interfaces, the
// pasteboard store, the main bundle's settings, locale and time zone, and
// launching a process. Env::Default() is Linux. A host or a test that wants
// a different machine derives from EnvWrapper, overrides only what it needs,
// and installs it with Env::setCurrent(); everything else still reaches the
// real system.
//
// The platform classes (FileManager, Device, NetworkInterfaces, Bundle,
// Locale, TimeZone, Pasteboard, Application, RunLoop, Date::now) ask
// Env::current() on each call, so a new Env takes effect at once. Services that are built
// rather than shared (VQCache::open) take an Env of their own.
//
// Thread rule: current() and setCurrent() may be called from any thread; an
// Env must be safe to call from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Date.h>
#include <NimbFoundation/Platform/Core/Result.h>
#include <NimbFoundation/Platform/Core/Value.h>
#include <NimbFoundation/Platform/Env/Device.h>
#include <NimbFoundation/Platform/Env/NetworkInterfaces.h>

namespace NIMB_EXPORT nimb {

// Whether a read follows a symbolic link at the last component of its path.
enum class FollowLinks : bool { No = false, Yes = true };

// What lstat/stat says about a path.
struct FileInfo {
  enum class Kind { kRegular, kDirectory, kSymbolicLink, kOther };
  Kind kind = Kind::kOther;
  std::uint64_t size = 0;
  Date modified;
  // The file's identity on its device: a file replaced by a rename has
  // another one. 0 when the system gives none.
  std::uint64_t inode = 0;
};

// Facts about the device, as Device reports them.
struct DeviceFacts {
  std::string model;                     // "Linux"
  std::string systemVersion;             // VERSION_ID of os-release, else the kernel release
  std::string machine;                   // uname's machine name
  std::optional<std::string> machineId;  // /etc/machine-id; nullopt without one
  DeviceOrientation orientation = DeviceOrientation::kUnknown;
  std::optional<UserInterfaceIdiom> userInterfaceIdiom;
  std::optional<ScreenFacts> mainScreen;
  bool integrityCompromised = false;
};

// The host's settings for the main bundle; an empty optional keeps the
// default (Info.plist beside the executable, its identifier, its folder).
struct BundleSettings {
  std::optional<std::string> infoDictionaryPath;
  std::optional<std::string> bundleIdentifier;
  std::optional<std::string> resourcePath;
  bool operator==(const BundleSettings&) const = default;
};

class Env {
 public:
  virtual ~Env();

  // Linux, shared by the whole process.
  static std::shared_ptr<Env> Default();
  // The Env the platform classes use: Default() unless setCurrent() said otherwise.
  static std::shared_ptr<Env> current();
  // Installs `env` for the whole process; nullptr restores Default().
  static void setCurrent(std::shared_ptr<Env> env);

  // --- Time ---
  // The wall clock (CLOCK_REALTIME): cache expiry, log stamps, dates.
  virtual Date now() = 0;
  // Seconds on a clock that never goes back (CLOCK_MONOTONIC): run-loop
  // timers, delayed performs and waits.
  virtual double monotonicSeconds() = 0;

  // --- Environment and user folders ---
  // The process environment's value for `name`; nullopt when unset.
  virtual std::optional<std::string> environmentVariable(std::string_view name) = 0;
  // $HOME, else the password database's home; "" when neither is known.
  virtual std::string homeDirectory() = 0;
  // The running program's name (the last component of argv[0]).
  virtual std::string processName() = 0;
  // The running program's path (/proc/self/exe); "" when unknown.
  virtual std::string executablePath() = 0;

  // --- Files and directories ---
  // Every failure carries the errno and the path.
  // The contents of a regular file, read without ever blocking: a symbolic
  // link at the last component with FollowLinks::No fails with ELOOP, a
  // directory with EISDIR, and a FIFO, a device or a socket reads as
  // missing (ENOENT).
  virtual Result<Data> readFile(const std::string& path, FollowLinks follow) = 0;
  // Through a temporary in the same directory, renamed over `path`; 0600.
  virtual Result<void> writeFileAtomically(const std::string& path,
                                           std::span<const std::uint8_t> bytes) = 0;
  // Copies the regular file `from` to `to`, which must not exist (EEXIST
  // otherwise); `to` appears whole or not at all.
  virtual Result<void> copyFile(const std::string& from, const std::string& to) = 0;
  virtual Result<FileInfo> fileInfo(const std::string& path, FollowLinks follow) = 0;
  // 0700; with `intermediates`, every missing parent too.
  virtual Result<void> createDirectory(const std::string& path, bool intermediates) = 0;
  // A file, or a directory with everything in it.
  virtual Result<void> removeItem(const std::string& path) = 0;
  // Names of the entries, without "." and "..".
  virtual Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) = 0;

  // --- Device, machine and network ---
  virtual DeviceFacts deviceFacts() = 0;
  // nullopt when the list cannot be read.
  virtual std::optional<std::vector<InterfaceAddress>> interfaceAddresses() = 0;
  // 0 when there is no such interface.
  virtual unsigned interfaceIndex(std::string_view name) = 0;
  virtual NetworkInterfaces::HardwareAddress hardwareAddress(unsigned index) = 0;

  // --- Application settings the host chooses ---
  // The folder of the named pasteboards.
  virtual std::string pasteboardDirectory() = 0;
  virtual BundleSettings bundleSettings() = 0;
  // The ICU locale identifier of the user's region and language ("de_CH").
  virtual std::string localeIdentifier() = 0;
  // The user's languages, most preferred first (BCP 47 tags).
  virtual std::vector<std::string> preferredLanguages() = 0;
  // The machine's time zone (IANA name, or "GMT+05:45"-style).
  virtual std::string systemTimeZoneName() = 0;

  // --- Processes ---
  // Starts `argv` (argv[0] found on $PATH) detached, without waiting for it.
  virtual bool launchDetached(const std::vector<std::string>& argv) = 0;
  // Runs `argv` (argv[0] found on $PATH) to its end and returns what it
  // wrote on standard output; nullopt when it cannot start or does not exit
  // with 0. Standard input reads nothing and standard error is dropped.
  virtual std::optional<std::string> outputOfProgram(const std::vector<std::string>& argv) = 0;
};

// Forwards every call to another Env; derive from it to change a few.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(std::shared_ptr<Env> target = Env::Default());
  Env& target() const { return *target_; }

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

 private:
  std::shared_ptr<Env> target_;
};

}  // namespace nimb
