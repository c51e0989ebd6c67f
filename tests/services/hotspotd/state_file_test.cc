#include "services/hotspotd/state_file.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>

#include "platform/log.h"
#include "tests/services/hotspotd/typed.h"

namespace {

using hotspot::Settings;
using hotspot::State;
using hotspot::StateFile;
using testing::HasSubstr;

const char* const good =
    "settings {s1:'Caf\xc3\xa9',s2:'secret1',u3:5}\n"
    "server {s1:'a',u2:8090,M6:[{u1:2130706432,u2:4278190080}]}\n"
    "server {s1:'b',u2:8091,u5:1,M6:[]}\n";

class HotspotStateFileTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "hotspot_XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    folder = pattern;
    path = folder + "/hotspot.conf";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
  }
  void TearDown() override {
    drainLog();
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    std::filesystem::remove_all(folder);
  }
  void write(const std::string& text) const { std::ofstream(path) << text; }
  static std::string read(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
  }
  [[nodiscard]] State load() const {
    std::optional<State> state = StateFile(path).load();
    EXPECT_TRUE(state.has_value());
    return state ? std::move(*state) : State();
  }
  [[nodiscard]] bool damagedIsKept() const { return std::filesystem::exists(path + ".damaged"); }
  static std::string log() {
    drainLog();
    std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return text;
  }

  std::string folder;
  std::string path;
};

TEST_F(HotspotStateFileTest, TheFirstStartMakesTheFile) {
  const State state = load();
  EXPECT_EQ(state.settings.title, "tarn hotspot");
  EXPECT_EQ(state.settings.code.size(), 8U);
  EXPECT_EQ(state.settings.minutes, 60U);
  ASSERT_EQ(state.servers.size(), 1U);
  EXPECT_EQ(state.servers[0], hotspot::defaultRecord());
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  const State again = load();
  EXPECT_EQ(again.settings, state.settings);
  EXPECT_EQ(again.servers, state.servers);
  EXPECT_FALSE(damagedIsKept());
}

TEST_F(HotspotStateFileTest, EveryMachineHasItsOwnCode) {
  EXPECT_NE(hotspot::defaultState().settings.code, hotspot::defaultState().settings.code);
  EXPECT_EQ(hotspot::defaultState().settings.code.find_first_not_of("ABCDEFGHJKLMNPQRSTUVWXYZ23456789"),
            std::string::npos);
}

TEST_F(HotspotStateFileTest, ReadsWhatWasWritten) {
  write(std::string("# a word\n\n") + good);
  const State state = load();
  EXPECT_EQ(state.settings, (Settings{"Caf\xc3\xa9", "secret1", 5}));
  ASSERT_EQ(state.servers.size(), 2U);
  EXPECT_EQ(state.servers[1], typed("{s1:'b',u2:8091,u5:1,M6:[]}"));
  EXPECT_EQ(read(path), std::string("# a word\n\n") + good);
  EXPECT_EQ(StateFile(path).save(state), std::nullopt);
  EXPECT_THAT(read(path), HasSubstr(good));
  EXPECT_EQ(load().servers, state.servers);
}

TEST_F(HotspotStateFileTest, AllServersMayBeRemoved) {
  EXPECT_EQ(StateFile(path).save({{"x", "secret1", 5}, {}}), std::nullopt);
  EXPECT_TRUE(load().servers.empty());
}

TEST_F(HotspotStateFileTest, WithoutSettingsTheyAreMade) {
  write("server {s1:'b',u2:8091,M6:[]}\n");
  const State state = load();
  EXPECT_EQ(state.servers.size(), 1U);
  EXPECT_EQ(load().settings, state.settings);
  EXPECT_FALSE(damagedIsKept());
}

TEST_F(HotspotStateFileTest, BadLinesAreToldAndTheOthersStand) {
  const char* const lines[] = {"nonsense",
                               "server",
                               "server {",
                               "server {s1:'x'}",
                               "server {s1:'a',u2:8090,M6:[]}",
                               "settings {u3:0}",
                               "settings {s2:'short'}",
                               "settings {s1:'a\\n'}",
                               "settings {s2:'\\x01secret'}"};
  for (const char* line : lines) {
    const std::string text = std::string(good) + line + "\n";
    write(text);
    const State state = load();
    EXPECT_EQ(state.settings, (Settings{"Caf\xc3\xa9", "secret1", 5})) << line;
    EXPECT_EQ(state.servers.size(), 2U) << line;
    EXPECT_THAT(log(), HasSubstr(path + ":4: ")) << line;
    EXPECT_EQ(read(path + ".damaged"), text);
    EXPECT_THAT(read(path), HasSubstr(good));
    std::filesystem::remove(path + ".damaged");
  }
}

TEST_F(HotspotStateFileTest, SoManyServersAndNoMore) {
  std::string text = "settings {}\n";
  for (std::size_t i = 0; i <= hotspot::maxServers; ++i)
    text += "server {s1:'" + std::to_string(i) + "',u2:1,M6:[]}\n";
  write(text);
  EXPECT_EQ(load().servers.size(), hotspot::maxServers);
  EXPECT_TRUE(damagedIsKept());
}

TEST_F(HotspotStateFileTest, AFileTooLargeIsSetAside) {
  write("#" + std::string(70000, 'x'));
  EXPECT_EQ(load().servers.size(), 1U);
  EXPECT_TRUE(damagedIsKept());
  EXPECT_FALSE(load().settings.code.empty());
}

TEST_F(HotspotStateFileTest, ADirectoryInItsPlaceIsSetAside) {
  std::filesystem::create_directory(path);
  EXPECT_EQ(load().servers.size(), 1U);
  EXPECT_TRUE(std::filesystem::is_directory(path + ".damaged"));
}

// It may be as good as ever when it can be read again.
TEST_F(HotspotStateFileTest, AFileThatCannotBeReadStaysWhereItIs) {
  std::filesystem::create_symlink(path, path);  // ELOOP, also for root
  EXPECT_FALSE(StateFile(path).load().has_value());
  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_FALSE(damagedIsKept());
}

TEST_F(HotspotStateFileTest, ADamagedFileThatCannotBeSetAsideStaysAsItIs) {
  write("nonsense\n");
  std::filesystem::create_directory(path + ".damaged");
  EXPECT_FALSE(StateFile(path).load().has_value());
  EXPECT_EQ(read(path), "nonsense\n");
}

TEST_F(HotspotStateFileTest, BytesThatAreNoText) {
  std::string bytes;
  for (int i = 0; i < 256; ++i)
    bytes.push_back(static_cast<char>(i));
  write(bytes);
  EXPECT_TRUE(load().servers.empty());
  EXPECT_TRUE(damagedIsKept());
}

TEST_F(HotspotStateFileTest, WithoutAFolderNothingIsStored) {
  path = folder + "/missing/hotspot.conf";
  EXPECT_EQ(load().servers.size(), 1U);
  EXPECT_EQ(StateFile(path).save(hotspot::defaultState()), "open: No such file or directory");
}

TEST_F(HotspotStateFileTest, AFullStorageKeepsWhatWasThere) {
  write(good);
  std::filesystem::create_symlink("/dev/full", path + ".new");
  EXPECT_EQ(StateFile(path).save(hotspot::defaultState()), "write: No space left on device");
  EXPECT_EQ(read(path), good);
}

TEST_F(HotspotStateFileTest, SettingsAreChangedFieldByField) {
  Settings settings{"a", "secret1", 5};
  EXPECT_EQ(hotspot::applySettings(settings, typed("{s1:'b'}")), std::nullopt);
  EXPECT_EQ(hotspot::applySettings(settings, typed("{s2:'secret2',u3:44640}")), std::nullopt);
  EXPECT_EQ(settings, (Settings{"b", "secret2", 44640}));
  for (const char* text : {"{s1:'x',u3:44641}", "{s1:'x',u3:0}", "{s1:'x',s2:'12345'}", "{u3:7,s1:'\\x7f'}"})
    EXPECT_NE(hotspot::applySettings(settings, typed(text)), std::nullopt) << text;
  EXPECT_NE(hotspot::applySettings(settings, typed("{s1:'" + std::string(65, 'x') + "'}")), std::nullopt);
  EXPECT_NE(hotspot::applySettings(settings, typed("{s2:'" + std::string(65, 'x') + "'}")), std::nullopt);
  EXPECT_EQ(settings, (Settings{"b", "secret2", 44640}));
}

}  // namespace
