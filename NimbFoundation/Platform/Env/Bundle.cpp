#include <NimbFoundation/Platform/Env/Bundle.h>

#include <mutex>

#include <NimbFoundation/Platform/Env/FileManager.h>
#include <NimbFoundation/Platform/Storage/PropertyList.h>

namespace nimb {

namespace {

std::mutex gMutex;
std::shared_ptr<const Bundle> gMain;
BundleSettings gMainSettings;
std::string gMainExecutable;

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
}

std::shared_ptr<const Bundle> load(Env& env, const BundleSettings& settings,
                                   const std::string& executable) {
  std::string folder = executable.empty() ? "." : folderOf(executable);
  const std::string infoPath = settings.infoDictionaryPath && !settings.infoDictionaryPath->empty()
                                   ? *settings.infoDictionaryPath
                                   : FileManager::appendingPathComponent(folder, "Info.plist");
  Dictionary info = PropertyList::dictionaryWithContentsOfFile(infoPath).value_or(Dictionary{});
  std::string identifier = settings.bundleIdentifier.value_or("");
  if (identifier.empty()) {
    auto found = info.find("CFBundleIdentifier");
    if (found != info.end() && found->second.asString() && !found->second.asString()->empty()) {
      identifier = *found->second.asString();
    }
  }
  const std::string processName = env.processName();
  if (identifier.empty()) identifier = processName;
  info["CFBundleIdentifier"] = identifier;
  if (!info.contains("CFBundleExecutable")) info["CFBundleExecutable"] = processName;
  return std::make_shared<const Bundle>(std::move(folder), std::move(info), std::move(identifier),
                                        settings.resourcePath.value_or(""));
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
  auto env = Env::current();
  BundleSettings settings = env->bundleSettings();
  std::string executable = env->executablePath();
  {
    std::lock_guard lock(gMutex);
    if (gMain && gMainSettings == settings && gMainExecutable == executable) return gMain;
  }
  // Read outside the lock: the information dictionary is a file.
  auto bundle = load(*env, settings, executable);
  std::lock_guard lock(gMutex);
  gMain = bundle;
  gMainSettings = std::move(settings);
  gMainExecutable = std::move(executable);
  return bundle;
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
