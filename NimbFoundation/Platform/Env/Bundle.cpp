#include <NimbFoundation/Platform/Env/Bundle.h>

#include <unistd.h>

#include <climits>
#include <mutex>

#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

namespace nimb {

namespace {

std::mutex gMutex;
std::shared_ptr<const Bundle> gMain;
std::string gInfoPath;
std::string gIdentifier;
std::string gResourcePath;

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
  return std::make_shared<const Bundle>(std::move(folder), std::move(info), std::move(identifier),
                                        gResourcePath);
}

// The string value under CFBundleIdentifier, "" when there is none.
std::string identifierIn(const Dictionary& info) {
  auto found = info.find("CFBundleIdentifier");
  if (found == info.end() || !found->second.asString()) return {};
  return *found->second.asString();
}

// "Assets" for ".../Assets.bundle"; a leading dot starts no extension.
std::string nameWithoutExtension(std::string_view path) {
  const auto slash = path.rfind('/');
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  const auto dot = name.rfind('.');
  if (dot != std::string_view::npos && dot > 0) name = name.substr(0, dot);
  return std::string(name);
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

void Bundle::setResourcePath(std::string path) {
  std::lock_guard lock(gMutex);
  gResourcePath = std::move(path);
  gMain.reset();
}

std::shared_ptr<const Bundle> Bundle::bundleWithPath(std::string_view path) {
  try {
    std::string folder(path);
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    if (folder.empty() || folder.find('\0') != std::string::npos ||
        !FileManager::isDirectory(folder)) {
      return nullptr;
    }
    const std::string contents = FileManager::appendingPathComponent(folder, "Contents");
    auto info = PropertyList::dictionaryWithContentsOfFile(
        FileManager::appendingPathComponent(folder, "Info.plist"));
    if (!info) {
      info = PropertyList::dictionaryWithContentsOfFile(
          FileManager::appendingPathComponent(contents, "Info.plist"));
    }
    if (!info) info.emplace();
    std::string identifier = identifierIn(*info);
    if (identifier.empty()) identifier = nameWithoutExtension(folder);
    if (identifier.empty()) identifier = folder;
    std::string resources = FileManager::appendingPathComponent(contents, "Resources");
    if (!FileManager::isDirectory(resources)) resources = folder;
    return std::make_shared<const Bundle>(std::move(folder), std::move(*info),
                                          std::move(identifier), std::move(resources));
  } catch (...) {
    return nullptr;
  }
}

const Value* Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  auto found = info_.find(key);
  return found == info_.end() ? nullptr : &found->second;
}

}  // namespace nimb
