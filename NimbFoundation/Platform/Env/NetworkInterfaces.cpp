#include <NimbFoundation/Platform/Env/NetworkInterfaces.h>

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

namespace nimb {

namespace {

std::mutex gMutex;
NetworkInterfaces::Source gSource;

NetworkInterfaces::Source source() {
  std::lock_guard lock(gMutex);
  return gSource;
}

std::optional<std::vector<InterfaceAddress>> systemList() {
  ifaddrs* all = nullptr;
  if (::getifaddrs(&all) != 0) return std::nullopt;
  std::vector<InterfaceAddress> out;
  for (ifaddrs* a = all; a; a = a->ifa_next) {
    InterfaceAddress entry;
    entry.name = a->ifa_name ? a->ifa_name : "";
    entry.family = a->ifa_addr ? a->ifa_addr->sa_family : AF_UNSPEC;
    entry.flags = a->ifa_flags;
    out.push_back(std::move(entry));
  }
  ::freeifaddrs(all);
  return out;
}

NetworkInterfaces::HardwareAddress systemHardwareAddress(unsigned index) {
  using Query = NetworkInterfaces::HardwareQuery;
  NetworkInterfaces::HardwareAddress out;
  ifreq request{};
  // The kernel answers link-level questions through any socket.
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || !::if_indextoname(index, request.ifr_name)) {
    if (fd >= 0) ::close(fd);
    out.status = Query::kQueryFailed;
    return out;
  }
  const int rc = ::ioctl(fd, SIOCGIFHWADDR, &request);
  ::close(fd);
  if (rc != 0) {
    out.status = Query::kReadFailed;
    return out;
  }
  std::memcpy(out.bytes.data(), request.ifr_hwaddr.sa_data, out.bytes.size());
  out.status = Query::kOk;
  return out;
}

}  // namespace

std::optional<std::vector<InterfaceAddress>> NetworkInterfaces::list() {
  auto s = source();
  return s.list ? s.list() : systemList();
}

unsigned NetworkInterfaces::indexOf(std::string_view name) {
  auto s = source();
  if (s.indexOf) return s.indexOf(name);
  return ::if_nametoindex(std::string(name).c_str());
}

NetworkInterfaces::HardwareAddress NetworkInterfaces::hardwareAddress(unsigned index) {
  auto s = source();
  return s.hardwareAddress ? s.hardwareAddress(index) : systemHardwareAddress(index);
}

void NetworkInterfaces::setSource(Source source) {
  std::lock_guard lock(gMutex);
  gSource = std::move(source);
}

}  // namespace nimb
