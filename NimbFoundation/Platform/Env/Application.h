// Application: the application object's URL opening, on a Linux desktop.
//
// A URL can be opened when it names a scheme and the desktop has a handler
// for that scheme, registered the freedesktop.org way: a desktop entry whose
// MimeType key lists "x-scheme-handler/<scheme>", or that a mimeapps.list
// file names for that type as a default or added association. Opening hands
// the URL to xdg-open, which asks the same registry which program to start.
//
// Used by VQUtils (canOpenUrl, openUrl, makingACall). Thread rule: any
// thread; nothing is cached, the registry is read again on every call, which
// is cheap enough for something the user triggers.
#pragma once

#include <string_view>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

class Application {
 public:
  // True when `url` starts with a scheme (ALPHA *(ALPHA / DIGIT / "+" / "-"
  // / "."), then ":") that a desktop entry handles. Schemes compare without
  // regard to case. Entries marked Hidden=true do not count, nor does a
  // MimeType key that a mimeapps.list file lists under
  // [Removed Associations]. Files that cannot be read are skipped.
  static bool canOpenURL(std::string_view url);

  // Hands `url` to xdg-open (the first executable one on $PATH) in a
  // detached process and returns at once, without waiting for the handler.
  // False when canOpenURL(url) is false, when there is no xdg-open on $PATH,
  // or when the process could not be started. The URL reaches xdg-open as
  // one argument, never as part of a command line.
  static bool openURL(std::string_view url);
};

}  // namespace nimb
