#include <NimbFoundation/Platform/Env/Application.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <NimbFoundation/Platform/Env/FileManager.h>

namespace nimb {

namespace {

// Registry files are a few kilobytes; anything far larger is not one, and is
// not worth reading on every call.
constexpr off_t kMaxRegistryFile = 1 << 20;
// Desktop entries may sit in subfolders of an applications folder; a deeper
// tree than this is no registry either.
constexpr int kMaxFolderDepth = 8;

bool isAlpha(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
char toLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = toLower(c);
  return out;
}

// The URL's scheme in lower case, or nullopt when it does not start with one.
std::optional<std::string> schemeOf(std::string_view url) {
  if (url.empty() || !isAlpha(url[0])) return std::nullopt;
  for (std::size_t i = 1; i < url.size(); ++i) {
    const char c = url[i];
    if (c == ':') return lowered(url.substr(0, i));
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
  }
  return std::nullopt;
}

std::string_view trimmed(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

// The items of a ";"-separated list, without blanks and empty items.
std::vector<std::string> listItems(std::string_view value) {
  std::vector<std::string> items;
  while (!value.empty()) {
    const auto semicolon = value.find(';');
    std::string_view item = trimmed(value.substr(0, semicolon));
    if (!item.empty()) items.emplace_back(item);
    if (semicolon == std::string_view::npos) break;
    value.remove_prefix(semicolon + 1);
  }
  return items;
}

// A registry file's text. Only regular files of sensible size are read, and
// the open never waits (a FIFO planted under a registry name must not hang
// the caller).
std::optional<std::string> readRegistryFile(const std::string& path) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxRegistryFile) {
    ::close(fd);
    return std::nullopt;
  }
  std::string text;
  char buffer[8192];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
    if (text.size() > static_cast<std::size_t>(kMaxRegistryFile)) break;
  }
  ::close(fd);
  return text;
}

// Calls visit(group, key, value) for every "key=value" line of a desktop
// key file. Comments, blank lines and lines that are neither a group header
// nor an assignment are passed over, so a damaged file yields what it can.
template <typename Visit>
void forEachKey(std::string_view text, Visit&& visit) {
  std::string_view group;
  while (!text.empty()) {
    const auto newline = text.find('\n');
    std::string_view line = trimmed(text.substr(0, newline));
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      group = line.back() == ']' ? line.substr(1, line.size() - 2) : std::string_view{};
      continue;
    }
    const auto equals = line.find('=');
    if (equals == std::string_view::npos || group.empty()) continue;
    visit(group, trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
  }
}

// $`variable` split at ':', absolute entries only; `fallback` when the
// variable is unset or empty, as the base directory conventions say.
std::vector<std::string> searchPath(const char* variable, std::string_view fallback) {
  const auto value = Env::current()->environmentVariable(variable);
  std::string_view list = (value && !value->empty()) ? std::string_view(*value) : fallback;
  std::vector<std::string> folders;
  while (!list.empty()) {
    const auto colon = list.find(':');
    std::string_view folder = list.substr(0, colon);
    if (!folder.empty() && folder.front() == '/') folders.emplace_back(folder);
    if (colon == std::string_view::npos) break;
    list.remove_prefix(colon + 1);
  }
  return folders;
}

// The applications folders, most important first.
std::vector<std::string> applicationFolders() {
  std::vector<std::string> folders{
      FileManager::appendingPathComponent(FileManager::dataDirectory(), "applications")};
  for (const auto& data : searchPath("XDG_DATA_DIRS", "/usr/local/share:/usr/share")) {
    folders.push_back(FileManager::appendingPathComponent(data, "applications"));
  }
  return folders;
}

// The mimeapps.list files, most important first.
std::vector<std::string> associationFiles(const std::vector<std::string>& applicationFolders) {
  std::vector<std::string> files{
      FileManager::appendingPathComponent(FileManager::configDirectory(), "mimeapps.list")};
  for (const auto& config : searchPath("XDG_CONFIG_DIRS", "/etc/xdg")) {
    files.push_back(FileManager::appendingPathComponent(config, "mimeapps.list"));
  }
  for (const auto& folder : applicationFolders) {
    files.push_back(FileManager::appendingPathComponent(folder, "mimeapps.list"));
  }
  return files;
}

// Every desktop entry, by desktop file ID (the path below the applications
// folder with '/' turned into '-'). An ID found in a more important folder
// shadows the same ID further down, so a user's Hidden=true copy removes
// the system's entry.
std::map<std::string, std::string> desktopEntries(const std::vector<std::string>& folders) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> entries;
  for (const auto& folder : folders) {
    std::error_code ec;
    fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (it.depth() >= kMaxFolderDepth) it.disable_recursion_pending();
      const fs::path& path = it->path();
      std::error_code typeError;
      if (path.extension() != ".desktop" || !it->is_regular_file(typeError)) continue;
      std::string id = path.lexically_relative(folder).string();
      for (char& c : id) {
        if (c == '/') c = '-';
      }
      entries.try_emplace(std::move(id), path.string());
    }
  }
  return entries;
}

struct DesktopEntry {
  bool hidden = false;
  bool listsType = false;
};

// The parts of a desktop entry that matter here; nullopt when the file cannot
// be read or has no [Desktop Entry] group.
std::optional<DesktopEntry> readDesktopEntry(const std::string& path, const std::string& type) {
  auto text = readRegistryFile(path);
  if (!text) return std::nullopt;
  bool found = false;
  DesktopEntry entry;
  forEachKey(*text, [&](std::string_view group, std::string_view key, std::string_view value) {
    if (group != "Desktop Entry") return;
    found = true;
    if (key == "Hidden") {
      entry.hidden = value == "true";
    } else if (key == "MimeType") {
      for (const auto& item : listItems(value)) {
        if (lowered(item) == type) entry.listsType = true;
      }
    }
  });
  if (!found) return std::nullopt;
  return entry;
}

struct Associations {
  // Entries named as default or added handlers of the type.
  std::set<std::string> named;
  // Entries whose own MimeType key no longer counts for the type.
  std::set<std::string> removed;
};

// What the mimeapps.list files say about `type`. A removal also cancels an
// added association of a less important file, never one of a more important.
Associations readAssociations(const std::vector<std::string>& files, const std::string& type) {
  Associations found;
  for (const auto& file : files) {
    auto text = readRegistryFile(file);
    if (!text) continue;
    std::set<std::string> removedHere;
    forEachKey(*text, [&](std::string_view group, std::string_view key, std::string_view value) {
      if (lowered(key) != type) return;
      for (auto& id : listItems(value)) {
        if (group == "Default Applications") {
          found.named.insert(std::move(id));
        } else if (group == "Added Associations") {
          if (!found.removed.contains(id)) found.named.insert(std::move(id));
        } else if (group == "Removed Associations") {
          removedHere.insert(std::move(id));
        }
      }
    });
    found.removed.merge(removedHere);
  }
  return found;
}

bool hasHandler(const std::string& scheme) {
  const std::string type = "x-scheme-handler/" + scheme;
  const auto folders = applicationFolders();
  const Associations associations = readAssociations(associationFiles(folders), type);
  const auto entries = desktopEntries(folders);

  for (const auto& id : associations.named) {
    auto found = entries.find(id);
    if (found == entries.end()) continue;
    auto entry = readDesktopEntry(found->second, type);
    if (entry && !entry->hidden) return true;
  }
  for (const auto& [id, path] : entries) {
    if (associations.removed.contains(id)) continue;
    auto entry = readDesktopEntry(path, type);
    if (entry && !entry->hidden && entry->listsType) return true;
  }
  return false;
}

}  // namespace

bool Application::canOpenURL(std::string_view url) {
  try {
    auto scheme = schemeOf(url);
    return scheme && hasHandler(*scheme);
  } catch (...) {
    return false;
  }
}

bool Application::openURL(std::string_view url) {
  try {
    // A NUL would cut the argument short, and a different URL would be opened
    // than the one checked.
    if (url.find('\0') != std::string_view::npos || !canOpenURL(url)) return false;
    return Env::current()->launchDetached({"xdg-open", std::string(url)});
  } catch (...) {
    return false;
  }
}

}  // namespace nimb
