// The camera's identity: hardware address and system id.
#include "vesk/variant/camerainfo.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdio>
#include <mutex>

namespace vesk {
namespace variant {

namespace {

// Used when this machine has no interface with a hardware address (only
// loopback): a locally administered unicast address.
const char kFallbackHwaddr[] = "020000000001";

std::mutex g_overrideMutex;
std::string g_hwaddrOverride;
int64_t g_sysidOverride = -1;
bool g_failInit = false;

// 12 upper-case hex digits of the first non-loopback interface with a
// non-zero 6-byte hardware address; the fallback when there is none.
std::string DetectHwaddr() {
  struct ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return kFallbackHwaddr;
  std::string result;
  for (struct ifaddrs* it = list; it != nullptr && result.empty(); it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_PACKET) continue;
    if ((it->ifa_flags & IFF_LOOPBACK) != 0) continue;
    const struct sockaddr_ll* ll = (const struct sockaddr_ll*)it->ifa_addr;
    if (ll->sll_halen != 6) continue;
    bool nonZero = false;
    for (int i = 0; i < 6; i++) nonZero = nonZero || ll->sll_addr[i] != 0;
    if (!nonZero) continue;
    char text[13];
    snprintf(text, sizeof(text), "%02X%02X%02X%02X%02X%02X", ll->sll_addr[0], ll->sll_addr[1],
             ll->sll_addr[2], ll->sll_addr[3], ll->sll_addr[4], ll->sll_addr[5]);
    result = text;
  }
  freeifaddrs(list);
  return result.empty() ? std::string(kFallbackHwaddr) : result;
}

bool ValidHwaddr(const std::string& hwaddr) {
  if (hwaddr.size() != 12) return false;
  for (char c : hwaddr) {
    if (!isxdigit((unsigned char)c) || islower((unsigned char)c)) return false;
  }
  return true;
}

// The system id is the low 32 bits of the hardware address.
uint32_t SysidFromHwaddr(const std::string& hwaddr) {
  uint32_t sysid = 0;
  for (size_t i = hwaddr.size() - 8; i < hwaddr.size(); i++) {
    char c = hwaddr[i];
    sysid = (sysid << 4) | (uint32_t)(c <= '9' ? c - '0' : c - 'A' + 10);
  }
  return sysid;
}

}  // namespace

CameraInfo::CameraInfo() {}

bool CameraInfo::Init() {
  std::string hwaddr;
  int64_t sysid;
  {
    std::lock_guard<std::mutex> lock(g_overrideMutex);
    if (g_failInit) return false;
    hwaddr = g_hwaddrOverride;
    sysid = g_sysidOverride;
  }
  if (hwaddr.empty()) hwaddr = DetectHwaddr();
  for (char& c : hwaddr) c = (char)toupper((unsigned char)c);
  if (!ValidHwaddr(hwaddr)) return false;

  EnsureMap();
  (*this)["hwaddr"] = hwaddr;
  (*this)["sysid"] = sysid >= 0 ? (uint32_t)sysid : SysidFromHwaddr(hwaddr);
  return true;
}

void CameraInfo::OverrideHwaddr(const std::string& hwaddr) {
  std::lock_guard<std::mutex> lock(g_overrideMutex);
  g_hwaddrOverride = hwaddr;
}

void CameraInfo::OverrideSysid(int64_t sysid) {
  std::lock_guard<std::mutex> lock(g_overrideMutex);
  g_sysidOverride = sysid < 0 ? -1 : sysid;
}

void CameraInfo::SetFailInit(bool fail) {
  std::lock_guard<std::mutex> lock(g_overrideMutex);
  g_failInit = fail;
}

}  // namespace variant
}  // namespace vesk
