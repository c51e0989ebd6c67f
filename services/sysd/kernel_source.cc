#include "services/sysd/kernel_source.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/bus/text.h"
#include "platform/web/functions.h"
#include "services/sysd/fields.h"
#include "services/sysd/interfaces.h"
#include "services/sysd/proc_text.h"

namespace sysd {
namespace {

// The longest text is that of a machine with many mounts.
constexpr std::size_t maxTextBytes = 1U << 20;
// Of one name or path of the kernel's.
constexpr std::size_t maxNameBytes = 255;

tn::message failure(std::string_view what, std::string_view why) {
  tn::message msg;
  msg.insert(field::failure, std::string(what) + ": " + std::string(why));
  return msg;
}

tn::message systemFailure(std::string_view what) {
  return failure(what, std::strerror(errno));
}

// Ticks of the clock that the kernel counts processor time with, as ms.
std::uint64_t ticksToMs(std::uint64_t ticks) {
  static const auto perSecond = static_cast<std::uint64_t>(std::max(::sysconf(_SC_CLK_TCK), 1L));
  return ticks / perSecond * 1000 + ticks % perSecond * 1000 / perSecond;
}

// A name as anybody may be shown it, cut between two characters.
std::string shown(std::string_view name) {
  std::string text = tn::printableText(name);
  if (text.size() <= maxNameBytes) return text;
  std::size_t end = maxNameBytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
    --end;
  text.resize(end);
  return text;
}

// File systems that may ask other machines, or programs, before they answer; and the one of the device files.
bool isLeftOut(std::string_view type) {
  constexpr std::array<std::string_view, 11> beginnings = {"nfs",  "cifs", "smb",  "fuse", "autofs",  "afs",
                                                           "ceph", "9p",   "coda", "ncp",  "devtmpfs"};
  return std::ranges::any_of(beginnings, [type](std::string_view prefix) { return type.starts_with(prefix); });
}

tn::message describe(const Mount& mount, const struct statvfs& status) {
  const std::uint64_t unit = status.f_frsize;
  tn::message msg;
  msg.insert(field::storage::point, shown(mount.point));
  msg.insert(field::storage::type, shown(mount.type));
  msg.insert(field::storage::device, shown(mount.source));
  msg.insert(field::storage::total, status.f_blocks * unit);
  msg.insert(field::storage::free, status.f_bfree * unit);
  msg.insert(field::storage::available, status.f_bavail * unit);
  msg.insert(field::storage::inodes, std::uint64_t{status.f_files});
  msg.insert(field::storage::freeInodes, std::uint64_t{status.f_ffree});
  msg.insert(field::storage::readOnly, mount.readOnly);
  return msg;
}

tn::message describe(const Interface& interface) {
  tn::message msg;
  msg.insert(field::interface::name, shown(interface.name));
  msg.insert(field::interface::index, interface.index);
  msg.insert(field::interface::up, interface.up);
  msg.insert(field::interface::running, interface.running);
  if (!interface.hardware.empty()) msg.insert(field::interface::hardware, interface.hardware);
  msg.insert(field::interface::largestPacket, interface.largestPacket);
  msg.insert_vector(field::interface::addresses, interface.addresses);
  msg.insert_vector(field::interface::prefixLengths, interface.prefixLengths);
  msg.insert(field::interface::receivedBytes, interface.received.bytes);
  msg.insert(field::interface::receivedPackets, interface.received.packets);
  msg.insert(field::interface::receiveErrors, interface.received.errors);
  msg.insert(field::interface::receiveDropped, interface.received.dropped);
  msg.insert(field::interface::sentBytes, interface.sent.bytes);
  msg.insert(field::interface::sentPackets, interface.sent.packets);
  msg.insert(field::interface::sendErrors, interface.sent.errors);
  msg.insert(field::interface::sendDropped, interface.sent.dropped);
  msg.insert(field::interface::loopback, interface.loopback);
  return msg;
}

tn::message describe(const Process& process, std::uint32_t user) {
  static const auto pageBytes = static_cast<std::uint64_t>(std::max(::sysconf(_SC_PAGESIZE), 1L));
  tn::message msg;
  msg.insert(field::process::id, process.id);
  msg.insert(field::process::name, shown(process.name));
  msg.insert(field::process::state, shown(std::string_view(&process.state, 1)));
  msg.insert(field::process::parent, process.parent);
  msg.insert(field::process::time, ticksToMs(process.ticks));
  msg.insert(field::process::memory, process.pages * pageBytes);
  msg.insert(field::process::threads, process.threads);
  msg.insert(field::process::began, ticksToMs(process.startTicks));
  msg.insert(field::process::user, user);
  return msg;
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

struct FreeAddresses {
  void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

std::uint32_t largestPacketOf(int socket, std::string_view name) {
  ifreq request{};
  if (name.size() >= sizeof request.ifr_name) return 0;
  std::ranges::copy(name, request.ifr_name);
  if (::ioctl(socket, SIOCGIFMTU, &request) != 0) return 0;
  return static_cast<std::uint32_t>(std::max(request.ifr_mtu, 0));
}

}  // namespace

KernelSource::KernelSource(std::string proc)
    : proc_(std::move(proc)), socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

tn::message KernelSource::read(Object object) {
  switch (object) {
    case Object::system:
      return readSystem();
    case Object::memory:
      return readMemoryObject();
    case Object::storage:
      return readStorage();
    case Object::interfaces:
      return readInterfaces();
    case Object::processes:
      return readProcesses();
  }
  return {};
}

std::optional<std::string> KernelSource::readText(const std::string& name) {
  const UniqueFd file(::open((proc_ + name).c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  constexpr std::size_t step = 16384;
  std::string text;
  for (;;) {
    const std::size_t held = text.size();
    text.resize(held + step);
    const ssize_t count = ::read(file.get(), text.data() + held, step);
    text.resize(held + (count > 0 ? static_cast<std::size_t>(count) : 0));
    if (count == 0) return text;
    if (count < 0) return std::nullopt;
    if (text.size() > maxTextBytes) {
      errno = EFBIG;
      return std::nullopt;
    }
  }
}

tn::message KernelSource::readSystem() {
  utsname names{};
  if (::uname(&names) != 0) return systemFailure("uname");
  const auto uptimeText = readText("/uptime");
  if (!uptimeText) return systemFailure(proc_ + "/uptime");
  const auto loadText = readText("/loadavg");
  if (!loadText) return systemFailure(proc_ + "/loadavg");
  const auto statText = readText("/stat");
  if (!statText) return systemFailure(proc_ + "/stat");
  const auto uptime = readUptime(*uptimeText);
  const auto load = readLoad(*loadText);
  const auto processors = readProcessorTime(*statText);
  if (!uptime || !load || !processors) return failure(proc_, "the kernel's figures are of an unknown form");
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tn::message msg;
  msg.insert(field::system::hostName, shown(names.nodename));
  msg.insert(field::system::version, getOSVersion());
  msg.insert(field::system::kernel, shown(std::string(names.sysname) + ' ' + names.release));
  msg.insert(field::system::architecture, shown(names.machine));
  msg.insert(field::system::uptime, *uptime);
  msg.insert(field::system::load1, load->hundredths[0]);
  msg.insert(field::system::load5, load->hundredths[1]);
  msg.insert(field::system::load15, load->hundredths[2]);
  msg.insert(field::system::processors, processors->processors);
  msg.insert(field::system::busyTime, ticksToMs(processors->busy));
  msg.insert(field::system::allTime, ticksToMs(processors->all));
  msg.insert(field::system::running, load->running);
  msg.insert(field::system::tasks, load->tasks);
  msg.insert(field::system::time,
             static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000);
  return msg;
}

tn::message KernelSource::readMemoryObject() {
  const auto text = readText("/meminfo");
  if (!text) return systemFailure(proc_ + "/meminfo");
  const auto memory = readMemory(*text);
  if (!memory) return failure(proc_ + "/meminfo", "of an unknown form");
  tn::message msg;
  msg.insert(field::memory::total, memory->total);
  msg.insert(field::memory::available, memory->available);
  msg.insert(field::memory::free, memory->free);
  msg.insert(field::memory::buffers, memory->buffers);
  msg.insert(field::memory::cached, memory->cached);
  msg.insert(field::memory::swapTotal, memory->swapTotal);
  msg.insert(field::memory::swapFree, memory->swapFree);
  return msg;
}

// Of file systems that are mounted at several points the first one counts, and of several at one point the last.
tn::message KernelSource::readStorage() {
  const auto text = readText("/self/mountinfo");
  if (!text) return systemFailure(proc_ + "/self/mountinfo");
  std::vector<Mount> mounts = readMounts(*text);
  std::ranges::reverse(mounts);
  std::ranges::stable_sort(mounts, {}, &Mount::point);
  mounts.erase(std::ranges::unique(mounts, {}, &Mount::point).begin(), mounts.end());
  std::vector<std::string> devices;
  std::vector<tn::message> parts;
  for (const Mount& mount : mounts) {
    if (isLeftOut(mount.type) || std::ranges::find(devices, mount.device) != devices.end()) continue;
    struct statvfs status {};
    // Those without blocks are the kernel's own views.
    if (::statvfs(mount.point.c_str(), &status) != 0 || status.f_blocks == 0) continue;
    devices.push_back(mount.device);
    parts.push_back(describe(mount, status));
    if (parts.size() == maxFileSystems) break;
  }
  tn::message msg;
  msg.insert_vector(field::all, parts);
  return msg;
}

tn::message KernelSource::readInterfaces() {
  const auto text = readText("/net/dev");
  if (!text) return systemFailure(proc_ + "/net/dev");
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return systemFailure("getifaddrs");
  const std::unique_ptr<ifaddrs, FreeAddresses> owned(list);
  std::vector<Interface> interfaces = listInterfaces(list);
  addCounters(interfaces, readCounters(*text));
  std::vector<tn::message> parts;
  for (Interface& interface : interfaces) {
    interface.largestPacket = largestPacketOf(socket_.get(), interface.name);
    parts.push_back(describe(interface));
  }
  tn::message msg;
  msg.insert_vector(field::all, parts);
  return msg;
}

// A process that ends meanwhile is left out.
tn::message KernelSource::readProcesses() {
  const std::unique_ptr<DIR, CloseFolder> folder(::opendir(proc_.c_str()));
  if (!folder) return systemFailure(proc_);
  std::vector<std::uint32_t> ids;
  while (const dirent* const entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    std::uint32_t id = 0;
    const auto [end, code] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (code == std::errc() && end == name.data() + name.size()) ids.push_back(id);
  }
  std::ranges::sort(ids);
  std::vector<tn::message> parts;
  for (const std::uint32_t id : ids) {
    if (parts.size() == maxProcesses) break;
    const std::string name = "/" + std::to_string(id);
    const auto text = readText(name + "/stat");
    const auto process = text ? readProcess(*text) : std::nullopt;
    struct stat status {};
    if (!process || ::stat((proc_ + name).c_str(), &status) != 0) continue;
    parts.push_back(describe(*process, status.st_uid));
  }
  tn::message msg;
  msg.insert(field::process::count, static_cast<std::uint32_t>(ids.size()));
  msg.insert_vector(field::all, parts);
  return msg;
}

}  // namespace sysd
