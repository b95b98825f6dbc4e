// The shared device identifier: 40 hex digits that every application
// embedding the kit on this machine answers alike, without reading any
// identifier of the machine itself. Each application keeps its own copy in
// its user defaults and publishes one in a named pasteboard the others read.
//
// An application's identity is its bundle identifier, and the kit answers
// the identifier once per process, so this program plays two applications
// by running itself twice, each time as another application:
//   shared_identifier                 asks as "org.example.photos" and
//                                     "org.example.chat", then compares
//   shared_identifier --app ID        asks as application ID (one process)
// Run without arguments it keeps the applications' defaults and the
// pasteboards in a scratch folder, a fresh machine each time, and leaves
// the user's files alone.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <NimbFoundation/Platform/Env/Env.h>
#include <NimbFoundation/Platform/Storage/UserDefaults.h>
#include <NimbFoundation/Utils/VQSharedUDID.h>

namespace {

// The machine as it is, except for the bundle identifier. A real
// application has its own in the Info.plist beside its executable (key
// CFBundleIdentifier) and needs none of this.
class AppEnv final : public nimb::EnvWrapper {
 public:
  explicit AppEnv(std::string appId) : appId_(std::move(appId)) {}
  nimb::BundleSettings bundleSettings() override {
    nimb::BundleSettings settings = target().bundleSettings();
    settings.bundleIdentifier = appId_;
    return settings;
  }

 private:
  std::string appId_;
};

// One application's answer, printed as "<app id>: <identifier>".
int askAs(const std::string& appId) {
  nimb::Env::setCurrent(std::make_shared<AppEnv>(appId));
  nimb::UserDefaults::resetStandardUserDefaults();  // the defaults of appId from now on
  nimb::Error error;
  const std::string identifier = nimb::VQSharedUDID::valueWithError(&error);
  std::printf("%s: %s\n", appId.c_str(), identifier.c_str());
  // Code 0: retrieved; 1: this application opted out; 2: the pasteboards
  // disagree with what this application had stored (its own copy wins).
  std::printf("  code %ld\n", error.code);
  return identifier.size() == 40 ? 0 : 1;
}

// Runs this program again as `appId` and gives the identifier it printed.
std::string askInAnotherProcess(const std::string& self, const std::string& appId) {
  const std::string command = "'" + self + "' --app " + appId;
  FILE* child = popen(command.c_str(), "r");
  if (!child) return {};
  std::string output;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, child)) output += buffer;
  const bool ok = pclose(child) == 0;
  std::fputs(output.c_str(), stdout);
  const auto colon = output.find(": ");
  return ok && colon != std::string::npos ? output.substr(colon + 2, 40) : std::string();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--app") return askAs(argv[2]);

  // The kit keeps user defaults under $XDG_CONFIG_HOME and the pasteboards
  // under $XDG_DATA_HOME; both children inherit the scratch ones.
  std::error_code error;
  std::string scratch =
      (std::filesystem::temp_directory_path(error) / "shared_identifier-XXXXXX").string();
  if (!mkdtemp(scratch.data())) return 1;
  setenv("XDG_CONFIG_HOME", (scratch + "/config").c_str(), 1);
  setenv("XDG_DATA_HOME", (scratch + "/data").c_str(), 1);

  const std::string self = std::filesystem::read_symlink("/proc/self/exe", error).string();
  const std::string photos = askInAnotherProcess(self, "org.example.photos");
  const std::string chat = askInAnotherProcess(self, "org.example.chat");
  std::filesystem::remove_all(scratch, error);

  const bool same = photos.size() == 40 && photos == chat;
  std::printf("same identifier for both applications: %s\n", same ? "yes" : "NO");
  return same ? 0 : 1;
}
