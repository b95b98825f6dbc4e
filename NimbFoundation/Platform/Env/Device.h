// Device: facts about the machine for the reporting protocol: model,
// operating system, the per-vendor identifier, orientation, interface
// idiom, the main screen and an integrity probe.
//
// Linux values:
//   - model() and systemName() are "Linux"; machine() is uname's machine
//     name ("x86_64"), the counterpart of "hw.machine".
//   - systemVersion() is VERSION_ID of /etc/os-release ("12"), else the
//     kernel release.
//   - identifierForVendor() is the version-5 UUID of the vendor within the
//     machine's /etc/machine-id, so it is stable for one machine and one
//     vendor and differs between machines. The vendor is the main bundle's
//     identifier without its last component ("com.example" for
//     "com.example.app"). nullopt without a machine id.
//   - orientation() is unknown and the idiom unspecified: a desktop has
//     neither; a host on a tablet sets them.
//   - mainScreen() is the first connected display that the kernel's DRM
//     drivers list, its preferred mode as the current mode at scale 1;
//     nullopt when there is none (a server, a container).
//   - isIntegrityCompromised() is the counterpart of a jailbreak check: true
//     when the process runs with root privileges (effective uid 0), when
//     LD_PRELOAD injects code into it, or when a debugger traces it
//     (TracerPid in /proc/self/status).
// Every fact comes from Env::current()->deviceFacts() on each call, so a
// host, or a test, that installs another Env changes them at once.
//
// Used by VQProtocolData. Thread rule: any thread.
#pragma once

#include <optional>
#include <string>

#include <NimbFoundation/Export.h>
#include <NimbFoundation/Platform/Core/Geometry.h>
#include <NimbFoundation/Platform/Core/UUID.h>

namespace NIMB_EXPORT nimb {

// The platform's orientation codes.
enum class DeviceOrientation : int {
  kUnknown = 0,
  kPortrait = 1,
  kPortraitUpsideDown = 2,
  kLandscapeLeft = 3,
  kLandscapeRight = 4,
  kFaceUp = 5,
  kFaceDown = 6,
};

// The platform's interface idioms.
enum class UserInterfaceIdiom : int {
  kUnspecified = -1,
  kPhone = 0,
  kPad = 1,
  kTV = 2,
  kCarPlay = 3,
  kMac = 5,
};

struct ScreenFacts {
  Size bounds;                   // in points
  std::optional<double> scale;   // nullopt: the screen offers no scale
  std::optional<Size> modeSize;  // the current display mode in pixels, if offered
};

class Device {
 public:
  static std::string model();
  static std::string systemName();
  static std::string systemVersion();
  static std::string machine();
  static std::optional<UUID> identifierForVendor();
  static DeviceOrientation orientation();
  // nullopt when the device offers no interface idiom.
  static std::optional<UserInterfaceIdiom> userInterfaceIdiom();
  static std::optional<ScreenFacts> mainScreen();
  // The main screen's scale: 1 without a screen, a scale, or one that is a
  // positive finite number. Reads the device facts, so callers on a hot
  // path keep the answer.
  static double mainScreenScale();
  static bool isIntegrityCompromised();
};

}  // namespace nimb
