// NetworkInterfaces: the machine's network interfaces as the reporting
// protocol reads them: the address list (getifaddrs), interface indexes
// (if_nametoindex) and hardware addresses (SIOCGIFHWADDR).
//
// Every answer comes from Env::current() (interfaceAddresses, interfaceIndex,
// hardwareAddress), so a test's Env can show e.g. a list where only a
// cellular interface has an IPv4 address.
//
// Used by VQProtocolData (access type and hardware address). Thread rule:
// any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <NimbFoundation/Export.h>

namespace NIMB_EXPORT nimb {

// One address of one interface, as getifaddrs lists it: an interface with
// several addresses appears once per address.
struct InterfaceAddress {
  std::string name;
  int family = 0;      // AF_INET is 2
  unsigned flags = 0;  // IFF_LOOPBACK is 8
};

class NetworkInterfaces {
 public:
  // How a hardware-address query ended.
  enum class HardwareQuery {
    kOk,
    kQueryFailed,  // the kernel could not be asked
    kNoMemory,     // no room for the answer
    kReadFailed,   // the kernel gave no address for the interface
  };
  struct HardwareAddress {
    HardwareQuery status = HardwareQuery::kQueryFailed;
    std::array<std::uint8_t, 6> bytes{};
  };

  // nullopt when the list cannot be read.
  static std::optional<std::vector<InterfaceAddress>> list();
  // The index of the interface called `name`, 0 when there is none.
  static unsigned indexOf(std::string_view name);
  static HardwareAddress hardwareAddress(unsigned index);
};

}  // namespace nimb
