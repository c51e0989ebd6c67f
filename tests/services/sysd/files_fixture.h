#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/bus/text.h"
#include "platform/log.h"
#include "services/sysd/fields.h"
#include "services/sysd/files_handler.h"
#include "tests/fakes/recording_bus.h"

namespace sysd {

// A store on disk and in flash, with a place outside it, and the handler on a bus without a broker.
class FilesTest : public ::testing::Test {
 protected:
  using Path = std::vector<std::uint32_t>;

  FilesTest() {
    for (const char* folder : {"/disk", "/flash", "/outside"})
      std::filesystem::create_directory(folder_ + folder);
    loop_.looper.addHandler(FilesHandler::id, files_);
  }
  ~FilesTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // A path below the place that the test has for itself.
  [[nodiscard]] std::string at(std::string_view path) const { return folder_ + "/" + std::string(path); }
  void write(std::string_view path, std::string_view content = {}) const {
    const std::string file = at(path);
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    const UniqueFd fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    ASSERT_EQ(::write(fd.get(), content.data(), content.size()), static_cast<ssize_t>(content.size())) << file;
  }
  void makeDirectory(std::string_view path) const { std::filesystem::create_directories(at(path)); }
  void link(std::string_view path, const std::string& target) const {
    ASSERT_EQ(::symlink(target.c_str(), at(path).c_str()), 0);
  }
  [[nodiscard]] bool isThere(std::string_view path) const {
    struct stat status {};
    return ::lstat(at(path).c_str(), &status) == 0;
  }

  // Who asks from now on: a session with these policies.
  void beSession(std::uint32_t policies) {
    marks_ = tn::message();
    marks_.insert(tn::field::user, "bob");
    marks_.insert(tn::field::policies, policies);
  }

  std::uint32_t send(std::uint32_t command, tn::message fields, const Path& from = {1500, 7}) {
    if (const auto policies = marks_.get(tn::field::policies)) {
      fields.insert(tn::field::user, marks_.get(tn::field::user).value_or(std::string_view()));
      fields.insert(tn::field::policies, *policies);
    }
    fields.insert_vector(tn::field::sender, std::span(from).subspan(1));
    return loop_.bus.request(from.front(), FilesHandler::id, command, std::move(fields));
  }
  // The answer, once it has come; the time it takes is let pass.
  tn::message ask(std::uint32_t command, const tn::message& fields) {
    const std::uint32_t number = send(command, fields);
    for (int turn = 0; loop_.bus.replyTo(number) == nullptr && turn < 1000; ++turn)
      loop_.advance(1);
    const auto* const reply = loop_.bus.replyTo(number);
    tn::message answer = reply == nullptr ? tn::errorMsg(0, "no answer") : reply->content;
    loop_.bus.sent.clear();
    for (const tn::u32_array_id path : {tn::field::sender, tn::field::destination})
      answer.remove(path);
    answer.remove(tn::field::requestNumber);
    answer.remove(tn::field::isReply);
    return answer;
  }

  static std::string shown(const tn::message& msg) {
    if (!tn::isError(msg)) return tn::writeText(msg);
    return std::string(NumberText(msg.get(tn::field::errorCode).value_or(0), 16)) + ' ' + tn::getError(msg);
  }
  static tn::message named(std::string_view name, std::string_view newName = {}) {
    tn::message fields;
    fields.insert(field::file::name, name);
    if (!newName.empty()) fields.insert(field::file::newName, newName);
    return fields;
  }
  // "{}" for success.
  std::string make(std::string_view name) { return shown(ask(tn::command::addObj, named(name))); }
  std::string remove(std::string_view name) { return shown(ask(tn::command::removeObj, named(name))); }
  std::string move(std::string_view name, std::string_view newName) {
    return shown(ask(tn::command::moveObj, named(name, newName)));
  }
  tn::message list(std::string_view name) { return ask(tn::command::getAll, named(name)); }
  static std::vector<std::string> namesOf(const tn::message& listing) {
    std::vector<std::string> names;
    for (const tn::message& entry : listing.get(field::all).value_or(std::vector<tn::message>()))
      names.emplace_back(entry.get(field::entry::name).value_or("none"));
    return names;
  }
  // The names of a directory, or the error.
  std::vector<std::string> names(std::string_view name) {
    const tn::message listing = list(name);
    return tn::isError(listing) ? std::vector{shown(listing)} : namesOf(listing);
  }

  const std::string folder_ = [] {
    // Nothing here is to outlast the machine, so it need not wait for a disk.
    std::string pattern = std::filesystem::is_directory("/dev/shm") ? "/dev/shm/files_XXXXXX" : "/tmp/files_XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    return pattern;
  }();
  tn::message marks_;
  tn::fakes::TestLooper loop_;
  FileStore store_{{folder_ + "/disk", folder_ + "/flash", folder_ + "/flash-skins"}};
  FilesHandler files_{store_, loop_.runner.timers()};
};

}  // namespace sysd
