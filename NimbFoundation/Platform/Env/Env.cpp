#include <NimbFoundation/Platform/Env/Env.h>

#include <atomic>
#include <mutex>
#include <utility>

#include <NimbFoundation/Internal/DefaultEnv.h>

namespace nimb {

namespace {

// The one process-wide setting of the platform layer. Until a host or a
// test installs an Env, current() reads only the flag: no lock on the paths
// that ask for the time or a file, and none a forked child could find held.
std::mutex gMutex;
std::shared_ptr<Env> gCurrent;  // null: Default()
std::atomic<bool> gInstalled{false};

}  // namespace

Env::~Env() = default;

std::shared_ptr<Env> Env::Default() {
  // Never destroyed: work may still ask for it while the process exits.
  static auto* env = new std::shared_ptr<Env>(std::make_shared<detail::DefaultEnv>());
  return *env;
}

std::shared_ptr<Env> Env::current() {
  if (gInstalled.load(std::memory_order_acquire)) {
    std::lock_guard lock(gMutex);
    if (gCurrent) return gCurrent;
  }
  return Default();
}

void Env::setCurrent(std::shared_ptr<Env> env) {
  std::shared_ptr<Env> previous;  // released outside the lock
  std::lock_guard lock(gMutex);
  previous = std::exchange(gCurrent, std::move(env));
  gInstalled.store(gCurrent != nullptr, std::memory_order_release);
}

EnvWrapper::EnvWrapper(std::shared_ptr<Env> target)
    : target_(target ? std::move(target) : Env::Default()) {}

Date EnvWrapper::now() {
  return target_->now();
}
double EnvWrapper::monotonicSeconds() {
  return target_->monotonicSeconds();
}
std::optional<std::string> EnvWrapper::environmentVariable(std::string_view name) {
  return target_->environmentVariable(name);
}
std::string EnvWrapper::homeDirectory() {
  return target_->homeDirectory();
}
std::string EnvWrapper::processName() {
  return target_->processName();
}
std::string EnvWrapper::executablePath() {
  return target_->executablePath();
}
Result<Data> EnvWrapper::readFile(const std::string& path, FollowLinks follow) {
  return target_->readFile(path, follow);
}
Result<void> EnvWrapper::writeFileAtomically(const std::string& path,
                                             std::span<const std::uint8_t> bytes) {
  return target_->writeFileAtomically(path, bytes);
}
Result<void> EnvWrapper::copyFile(const std::string& from, const std::string& to) {
  return target_->copyFile(from, to);
}
Result<FileInfo> EnvWrapper::fileInfo(const std::string& path, FollowLinks follow) {
  return target_->fileInfo(path, follow);
}
Result<void> EnvWrapper::createDirectory(const std::string& path, bool intermediates) {
  return target_->createDirectory(path, intermediates);
}
Result<void> EnvWrapper::removeItem(const std::string& path) {
  return target_->removeItem(path);
}
Result<std::vector<std::string>> EnvWrapper::contentsOfDirectory(const std::string& path) {
  return target_->contentsOfDirectory(path);
}
DeviceFacts EnvWrapper::deviceFacts() {
  return target_->deviceFacts();
}
std::optional<std::vector<InterfaceAddress>> EnvWrapper::interfaceAddresses() {
  return target_->interfaceAddresses();
}
unsigned EnvWrapper::interfaceIndex(std::string_view name) {
  return target_->interfaceIndex(name);
}
NetworkInterfaces::HardwareAddress EnvWrapper::hardwareAddress(unsigned index) {
  return target_->hardwareAddress(index);
}
std::string EnvWrapper::pasteboardDirectory() {
  return target_->pasteboardDirectory();
}
BundleSettings EnvWrapper::bundleSettings() {
  return target_->bundleSettings();
}
std::string EnvWrapper::localeIdentifier() {
  return target_->localeIdentifier();
}
std::vector<std::string> EnvWrapper::preferredLanguages() {
  return target_->preferredLanguages();
}
std::string EnvWrapper::systemTimeZoneName() {
  return target_->systemTimeZoneName();
}
bool EnvWrapper::launchDetached(const std::vector<std::string>& argv) {
  return target_->launchDetached(argv);
}

std::optional<std::string> EnvWrapper::outputOfProgram(const std::vector<std::string>& argv) {
  return target_->outputOfProgram(argv);
}

}  // namespace nimb
