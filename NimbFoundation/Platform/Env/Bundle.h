// Bundle: the main bundle, that is the running application as a reporting
// protocol sees it: its information dictionary and its identifier.
//
// On Linux an application has no bundle folder. Its information dictionary
// is the property list "Info.plist" beside the executable, or the file the
// host names in Env::bundleSettings(). The dictionary always answers
// "CFBundleIdentifier" and "CFBundleExecutable": the identifier is the one
// the host's settings name (nimbkit's --app-id), else the file's, else the
// process name. User defaults are kept per identifier.
//
// Resources sit in the executable's folder, the flat layout of phone
// applications, unless the host's settings name another folder. bundleWithPath()
// opens a bundle folder found among them ("Assets.bundle"), flat or in the
// desktop layout with Contents/Info.plist and Contents/Resources.
//
// Used by VQProtocolData (bundle fields), UserDefaults (its folder),
// Device (the vendor of the per-vendor identifier) and VQUtils (resources).
// Thread rule: any thread; a snapshot once handed out never changes, and
// mainBundle() reads a fresh one whenever the Env's settings change.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Value.h>

namespace NIMB_EXPORT nimb {

class Bundle {
 public:
  // The running application's bundle as Env::current()->bundleSettings()
  // describes it; read once and kept while those settings stay the same.
  static std::shared_ptr<const Bundle> mainBundle();

  // The bundle in the folder `path`, or nullptr when there is no such
  // folder. Its information dictionary is its Info.plist (or
  // Contents/Info.plist), empty when it has none; its identifier is that
  // dictionary's CFBundleIdentifier, else the folder name without its
  // extension. A fresh snapshot on every call.
  static std::shared_ptr<const Bundle> bundleWithPath(std::string_view path);

  const Dictionary& infoDictionary() const { return info_; }
  // The value under `key`, or nullptr.
  const Value* objectForInfoDictionaryKey(std::string_view key) const;
  // "CFBundleIdentifier", never empty.
  const std::string& bundleIdentifier() const { return identifier_; }
  // The folder of the executable.
  const std::string& bundlePath() const { return path_; }
  // The folder of the bundle's resources: Contents/Resources for a bundle in
  // the desktop layout, else the bundle path.
  const std::string& resourcePath() const { return resourcePath_; }

  // An empty `resourcePath` means the bundle path.
  Bundle(std::string path, Dictionary info, std::string identifier, std::string resourcePath = {})
      : path_(std::move(path)),
        resourcePath_(resourcePath.empty() ? path_ : std::move(resourcePath)),
        info_(std::move(info)),
        identifier_(std::move(identifier)) {}

 private:
  std::string path_;
  std::string resourcePath_;
  Dictionary info_;
  std::string identifier_;
};

}  // namespace nimb
