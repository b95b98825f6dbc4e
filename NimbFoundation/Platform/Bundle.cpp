#include <NimbFoundation/Platform/Bundle.h>

#include <unistd.h>

#include <climits>
#include <mutex>

#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/PropertyList.h>

namespace nimb {

namespace {

std::mutex gMutex;
std::shared_ptr<const Bundle> gMain;
std::string gInfoPath;
std::string gIdentifier;

std::string executableFolder() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return ".";
  std::string path(buffer, static_cast<std::size_t>(n));
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
}

std::shared_ptr<const Bundle> load() {
  std::string folder = executableFolder();
  const std::string infoPath =
      gInfoPath.empty() ? FileManager::appendingPathComponent(folder, "Info.plist") : gInfoPath;
  Dictionary info = PropertyList::dictionaryWithContentsOfFile(infoPath).value_or(Dictionary{});
  std::string identifier = gIdentifier;
  if (identifier.empty()) {
    auto found = info.find("CFBundleIdentifier");
    if (found != info.end() && found->second.asString() && !found->second.asString()->empty()) {
      identifier = *found->second.asString();
    }
  }
  if (identifier.empty()) identifier = FileManager::processName();
  info["CFBundleIdentifier"] = identifier;
  if (!info.contains("CFBundleExecutable")) info["CFBundleExecutable"] = FileManager::processName();
  return std::make_shared<const Bundle>(std::move(folder), std::move(info), std::move(identifier));
}

}  // namespace

std::shared_ptr<const Bundle> Bundle::mainBundle() {
  std::lock_guard lock(gMutex);
  if (!gMain) gMain = load();
  return gMain;
}

void Bundle::setInfoDictionaryPath(std::string path) {
  std::lock_guard lock(gMutex);
  gInfoPath = std::move(path);
  gMain.reset();
}

void Bundle::setBundleIdentifier(std::string identifier) {
  std::lock_guard lock(gMutex);
  gIdentifier = std::move(identifier);
  gMain.reset();
}

const Value* Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  auto found = info_.find(key);
  return found == info_.end() ? nullptr : &found->second;
}

}  // namespace nimb
