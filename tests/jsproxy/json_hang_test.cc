// The one text that the reader never comes back from: a stray character in a list of addresses.
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "jsproxy/json_form.h"

namespace {

enum class End { returned, ranOut, other };

// Reads a text in a process of its own, which may use that much processor time.
End readWithLimit(const std::string& text) {
  constexpr suseconds_t limitMicroseconds = 200000;
  const pid_t child = fork();
  if (child == 0) {
    const itimerval limit{{0, 0}, {0, limitMicroseconds}};
    signal(SIGVTALRM, SIG_DFL);
    setitimer(ITIMER_VIRTUAL, &limit, nullptr);
    tn::message msg;
    parseJson(text.c_str(), msg, 0);
    _exit(0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return End::other;
  if (WIFEXITED(status)) return End::returned;
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGVTALRM ? End::ranOut : End::other;
}

const std::string address = "[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,1]";

TEST(JsonHang, AStrayCharacterInAListOfAddresses) {
  for (const std::string& text :
       {std::string("{A1:[x]}"), "{A1:[" + address + "x]}", "{A1:[" + address + ", 5]}", std::string("A1:[}"),
        std::string("{m1:{A1:['a']}}"), std::string("{M1:[A1:[\t]}]}")}) {
    EXPECT_EQ(readWithLimit(text), End::ranOut) << text;
  }
}

TEST(JsonHang, AllElseComesToAnEnd) {
  for (const std::string& text :
       {std::string("{A1:[]}"), "{A1:[" + address + "]}", "{A1:[" + address, std::string("{A1:x}"),
        std::string("{A1:[[1]]}"), std::string("{A1:[[x]]}"), std::string("{U1:[x]}")}) {
    EXPECT_EQ(readWithLimit(text), End::returned) << text;
  }
}

}  // namespace
