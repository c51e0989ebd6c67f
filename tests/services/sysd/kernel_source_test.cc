#include "services/sysd/kernel_source.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <net/if.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "services/sysd/fields.h"

namespace sysd {
namespace {

using ::testing::Gt;
using ::testing::Le;

std::vector<tn::message> partsOf(const tn::message& object) {
  EXPECT_FALSE(object.has(field::failure));
  return object.get(field::all).value_or(std::vector<tn::message>());
}

// What this very machine says otherwise.
TEST(KernelSource, TellsOfTheSystem) {
  KernelSource source;
  const tn::message system = source.read(Object::system);
  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  struct sysinfo info {};
  ASSERT_EQ(sysinfo(&info), 0);
  EXPECT_EQ(system.get(field::system::hostName), names.nodename);
  EXPECT_EQ(system.get(field::system::architecture), names.machine);
  EXPECT_EQ(system.get(field::system::kernel), std::string(names.sysname) + " " + names.release);
  const auto uptime = system.get(field::system::uptime).value_or(0);
  EXPECT_LE(uptime / 1000, static_cast<std::uint64_t>(info.uptime) + 1);
  EXPECT_GE(uptime / 1000 + 60, static_cast<std::uint64_t>(info.uptime));
  EXPECT_GE(system.get(field::system::processors).value_or(0), 1U);
  EXPECT_GE(system.get(field::system::tasks).value_or(0), 1U);
  EXPECT_GE(system.get(field::system::time).value_or(0), 1'600'000'000'000U);
  const auto busy = system.get(field::system::busyTime).value_or(0);
  EXPECT_THAT(busy, Gt(0U));
  EXPECT_THAT(busy, Le(system.get(field::system::allTime).value_or(0)));
}

TEST(KernelSource, TellsOfTheMemory) {
  KernelSource source;
  const tn::message memory = source.read(Object::memory);
  const auto total = memory.get(field::memory::total).value_or(0);
  struct sysinfo info {};
  ASSERT_EQ(sysinfo(&info), 0);
  EXPECT_EQ(total, std::uint64_t{info.totalram} * info.mem_unit);
  EXPECT_THAT(memory.get(field::memory::available).value_or(0), Le(total));
  EXPECT_THAT(memory.get(field::memory::free).value_or(0), Le(total));
}

TEST(KernelSource, TellsOfTheStorage) {
  KernelSource source;
  const auto parts = partsOf(source.read(Object::storage));
  ASSERT_FALSE(parts.empty());
  EXPECT_TRUE(std::ranges::is_sorted(
      parts, {}, [](const tn::message& part) { return std::string(part.get(field::storage::point).value_or("")); }));
  const auto root = std::ranges::find(
      parts, "/", [](const tn::message& part) { return part.get(field::storage::point).value_or(""); });
  ASSERT_NE(root, parts.end());
  struct statvfs status {};
  ASSERT_EQ(statvfs("/", &status), 0);
  EXPECT_EQ(root->get(field::storage::total), status.f_blocks * std::uint64_t{status.f_frsize});
  EXPECT_THAT(root->get(field::storage::free).value_or(0), Le(root->get(field::storage::total).value_or(0)));
}

TEST(KernelSource, TellsOfTheInterfaces) {
  KernelSource source;
  const auto parts = partsOf(source.read(Object::interfaces));
  const auto loopback = std::ranges::find(
      parts, "lo", [](const tn::message& part) { return part.get(field::interface::name).value_or(""); });
  ASSERT_NE(loopback, parts.end());
  EXPECT_EQ(loopback->get(field::interface::index), if_nametoindex("lo"));
  EXPECT_EQ(loopback->get(field::interface::loopback), true);
  EXPECT_THAT(loopback->get(field::interface::largestPacket).value_or(0), Gt(0U));
  const auto addresses = loopback->get(field::interface::addresses).value_or(std::vector<tn::Addr6>());
  EXPECT_EQ(addresses.size(), loopback->get(field::interface::prefixLengths)->size());
}

TEST(KernelSource, TellsOfTheProcesses) {
  KernelSource source;
  const tn::message processes = source.read(Object::processes);
  const auto parts = partsOf(processes);
  EXPECT_THAT(parts.size(), Le(KernelSource::maxProcesses));
  EXPECT_THAT(parts.size(), Le(processes.get(field::process::count).value_or(0)));
  const auto self = std::ranges::find(parts, static_cast<std::uint32_t>(getpid()),
                                      [](const tn::message& part) { return part.get(field::process::id).value_or(0); });
  ASSERT_NE(self, parts.end());
  EXPECT_EQ(self->get(field::process::name), std::string_view("sysd_kernel_source_test").substr(0, 15));
  EXPECT_EQ(self->get(field::process::parent), static_cast<std::uint32_t>(getppid()));
  EXPECT_EQ(self->get(field::process::user), getuid());
  EXPECT_THAT(self->get(field::process::memory).value_or(0), Gt(0U));
}

// A part of an object, and an object in a push, cannot be longer than a message says.
TEST(KernelSource, TellsWhatFitsIntoAMessage) {
  KernelSource source;
  for (std::uint32_t number = 1; number <= objectCount; ++number) {
    const tn::message object = source.read(static_cast<Object>(number));
    tn::message list;
    EXPECT_TRUE(list.insert_vector(field::all, std::array{object})) << number;
  }
}

class Recorded : public ::testing::Test {
 protected:
  Recorded() {
    std::string pattern = std::filesystem::temp_directory_path() / "sysd_XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  ~Recorded() override { std::filesystem::remove_all(folder_); }

  void plant(const std::string& name, std::string_view text) const {
    std::filesystem::create_directories(std::filesystem::path(folder_ + name).parent_path());
    std::ofstream(folder_ + name, std::ios::binary) << text;
  }
  static std::string failureOf(const tn::message& object) {
    return std::string(object.get(field::failure).value_or("none"));
  }

  std::string folder_;
};

TEST_F(Recorded, SaysWhatTheKernelDoesNotTell) {
  KernelSource source(folder_);
  EXPECT_EQ(failureOf(source.read(Object::system)), folder_ + "/uptime: No such file or directory");
  EXPECT_EQ(failureOf(source.read(Object::memory)), folder_ + "/meminfo: No such file or directory");
  EXPECT_EQ(failureOf(source.read(Object::storage)), folder_ + "/self/mountinfo: No such file or directory");
  EXPECT_EQ(failureOf(source.read(Object::interfaces)), folder_ + "/net/dev: No such file or directory");
  EXPECT_TRUE(partsOf(source.read(Object::processes)).empty());
  EXPECT_EQ(failureOf(KernelSource(folder_ + "/none").read(Object::processes)),
            folder_ + "/none: No such file or directory");
  plant("/meminfo", "what?");
  EXPECT_EQ(failureOf(source.read(Object::memory)), folder_ + "/meminfo: of an unknown form");
}

TEST_F(Recorded, DoesNotReadWithoutEnd) {
  plant("/meminfo", std::string(3U << 20U, 'x'));
  EXPECT_EQ(failureOf(KernelSource(folder_).read(Object::memory)), folder_ + "/meminfo: File too large");
}

TEST_F(Recorded, TellsOfEachFileSystemOnceAndAsksNoOtherMachine) {
  plant("/self/mountinfo",
        "1 0 8:1 / /proc rw - ext4 /dev/hidden rw\n"
        "2 1 8:2 / / rw - ext4 /dev/root rw\n"
        "3 1 8:2 /tmp /tmp rw - ext4 /dev/root rw\n"
        "4 1 8:3 / /dev rw - nfs4 server:/x rw\n"
        "5 1 8:4 / /dev rw - fuse.sshfs x rw\n"
        "6 1 8:5 / /missing/folder rw - ext4 /dev/x rw\n");
  const auto parts = partsOf(KernelSource(folder_).read(Object::storage));
  ASSERT_EQ(parts.size(), 1U);
  EXPECT_EQ(parts[0].get(field::storage::point), "/");
  EXPECT_EQ(parts[0].get(field::storage::device), "/dev/root");
}

TEST_F(Recorded, KeepsToTheLimitOfProcesses) {
  for (unsigned id = 1; id <= 600; ++id)
    plant("/" + std::to_string(id) + "/stat",
          std::to_string(id) + " (a\x1b[31m) S 1 0 0 0 -1 0 0 0 0 0 1 2 0 0 20 0 1 0 9 100 5 0");
  plant("/700/stat", "ended");
  plant("/8x/stat", "8 (no process) S 1 0 0 0 -1 0 0 0 0 0 1 2 0 0 20 0 1 0 9 100 5 0");
  const tn::message processes = KernelSource(folder_).read(Object::processes);
  const auto parts = partsOf(processes);
  ASSERT_EQ(parts.size(), KernelSource::maxProcesses);
  EXPECT_EQ(processes.get(field::process::count), 601U);
  EXPECT_EQ(parts[511].get(field::process::id), 512U);
  EXPECT_EQ(parts[0].get(field::process::name), "a\\x1b[31m");
  tn::message list;
  EXPECT_TRUE(list.insert_vector(field::all, std::array{processes}));
}

}  // namespace
}  // namespace sysd
