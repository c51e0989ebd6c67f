// The table of everything that the program does.

#include "tools/verbs/verbs.h"

namespace tool {

namespace {

constexpr std::uint32_t monitorOptions = bitOf(Option::count) | bitOf(Option::program) | bitOf(Option::from) |
                                         bitOf(Option::to) | bitOf(Option::path) | bitOf(Option::command) |
                                         bitOf(Option::kind);
constexpr std::uint32_t logOptions = bitOf(Option::count) | bitOf(Option::follow) | bitOf(Option::program);

constexpr Verb table[] = {
    {"status", "status", "servers, programs and sessions at a glance",
     R"(The columns of a server: connections that are open, were accepted, were refused because
of their address; responses by the class of their status; bytes; requests that came too
late (waiting for a head, in a body, while writing); pauses at the limit of connections.
Of a program: since when it runs, how often it was started again, and what it sent and was
sent over the bus.
)",
     0, 0, 0, false, verbs::status},
    {"servers", "servers [list | set NAME SETTING... | add NAME [SETTING...] | remove NAME]",
     "servers, where they listen and who may connect",
     R"(SETTING  port=8081, enabled=yes or no, tls=1 (the number of a certificate) or no,
         allowed=127.0.0.0/8,fe80::/10 or everyone
)",
     0, anyNumber, 0, false, verbs::servers},
    {"users",
     "users [list | add NAME [FIELD=VALUE...] | set NAME FIELD=VALUE... | remove NAME | password NAME | groups ...]",
     "users and groups",
     R"(tn users groups [list | add NAME [policies=...] | set NAME FIELD=VALUE... | remove NAME]

The password of add and password is asked for, or read as the first line of standard input.
FIELD of a user: full-name, group, hidden, disabled. Of a group: skin, and policies with
names: read, read-files, write-files, change-settings, manage-users, sensitive-files.
)",
     0, anyNumber, 0, false, verbs::users},
    {"sessions", "sessions [list | end ID]", "who is logged in", "", 0, 2, 0, false, verbs::sessions},
    {"log", "log [-f] [-n N] [-p PROGRAM] [TEXT]", "the log of all programs", "With TEXT only lines that contain it.\n",
     0, 1, logOptions, false, verbs::log},
    {"check", "check [DIRECTORY or FILE...]", "look for mistakes in configuration documents",
     "Without an operand the documents of /tarn/etc/www, or else of /etc/tarn/www. Ends with 1\nwhen there are "
     "errors.\n",
     0, anyNumber, 0, false, verbs::check},
    {"list", "list", "programs on the bus: id and name", "", 0, 0, 0, false, verbs::list},
    {"call", "call PATH COMMAND [MESSAGE | FIELD=VALUE...]", "send a message and show the answer",
     R"(tn call sermgr/servers get name=http
tn call 68/1 set "{s1:'http',u2:8081}"

A key of the line form is the letter of the type and the field's number in hexadecimal:
{b1:1,u2:500,q3:0xff,s4:'it\'s',r5:[1,2],m6:{u1:1},a7:[16 bytes]}
and the capital letters are lists: {U1:[68,1],S2:['a','b'],M3:[{}]}
)",
     2, anyNumber, 0, false, verbs::call},
    {"send", "send PATH COMMAND [MESSAGE | FIELD=VALUE...]", "send a message that wants no answer",
     "Groups (0xff0000 and above) can be sent to.\n", 2, anyNumber, 0, false, verbs::send},
    {"monitor", "monitor [FILTER...]", "show what passes over the bus (root only)",
     "A frame is shown when it passes all filters that are given.\n", 0, 0, monitorOptions, false, verbs::monitor},
    {"stats", "stats", "what the broker has counted", "", 0, 0, 0, false, verbs::stats},
    {"names", "names [PATH]", "names of services, commands and fields", "", 0, 1, bitOf(Option::markdown), false,
     verbs::names},
    {"help", "help [COMMAND]", "tell about tn, or about a command", "", 0, 1, 0, false, verbs::help},
    {"complete", "complete WORD...", "for the completion of shells", "", 0, anyNumber, 0, true, verbs::complete},
};

}  // namespace

std::span<const Verb> allVerbs() {
  return table;
}

}  // namespace tool
