// The table itself. Fields are those of the documents of the services.

#include "platform/bus/text_parts.h"
#include "tools/names.h"

namespace tool {

namespace {

using tn::FieldName;
using tn::FieldNames;
namespace command = tn::command;

consteval FieldName f(char letter, std::uint32_t id, std::string_view name, const FieldNames* below = nullptr) {
  return {static_cast<std::uint32_t>(*tn::typeOfLetter(letter)) | id, name, below};
}

constexpr FieldName numberFields[] = {f('u', 0xfe0001, "number")};
constexpr FieldNames number{numberFields};
constexpr FieldName nameFields[] = {f('s', 1, "name")};
constexpr FieldNames name{nameFields};

// ---- sermgr, hotspotd: server records

constexpr FieldName prefixFields[] = {f('u', 1, "ipv4"), f('u', 2, "mask"), f('a', 3, "ipv6"), f('u', 4, "length")};
constexpr FieldNames prefix{prefixFields};
constexpr FieldName recordFields[] = {
    f('s', 1, "name"),        f('b', 0xfe000a, "disabled"),  f('u', 2, "port"),
    f('u', 5, "certificate"), f('M', 6, "allowed", &prefix), f('s', 0x10, "error"),
    f('b', 0x11, "applied"),
};
constexpr FieldNames record{recordFields};
constexpr FieldName recordsFields[] = {f('M', 1, "servers", &record)};
constexpr FieldNames records{recordsFields};
constexpr FieldName trialFields[] = {
    f('s', 1, "name"),        f('b', 0xfe000a, "disabled"),  f('u', 2, "port"),
    f('u', 5, "certificate"), f('M', 6, "allowed", &prefix), f('s', 0x10, "error"),
    f('b', 0x11, "applied"),  f('u', 0x12, "trial"),
};
constexpr FieldNames recordOnTrial{trialFields};
constexpr FieldName recordsOnTrialFields[] = {f('M', 1, "servers", &recordOnTrial)};
constexpr FieldNames recordsOnTrial{recordsOnTrialFields};
constexpr FieldName outcomeFields[] = {f('s', 0x10, "error")};
constexpr FieldNames outcome{outcomeFields};

constexpr CommandShape recordCommands[] = {
    {command::getAll, "getAll", "all records", nullptr, &recordsOnTrial},
    {command::get, "get", "one record", &name, &recordOnTrial},
    {command::set, "set", "changes the given fields of a record, or tries them", &recordOnTrial, &outcome},
    {command::addObj, "addObj", "adds a record, or replaces it as a whole", &record, &outcome},
    {command::removeObj, "removeObj", "removes a record", &name, &outcome},
    {0x30003, "sendAll", "sends all records to the asking program"},
};
constexpr CommandShape hotspotServerCommands[] = {
    {command::getAll, "getAll", "all records", nullptr, &records},
    {command::addObj, "addObj", "adds a record, or replaces it", &record, &outcome},
    {command::set, "set", "changes the given fields of a record", &record, &outcome},
    {command::removeObj, "removeObj", "removes a record", &name, &outcome},
};
constexpr FieldName hotspotFields[] = {f('s', 1, "title"), f('s', 2, "code"), f('u', 3, "minutes"),
                                       f('u', 4, "guests")};
constexpr FieldNames hotspot{hotspotFields};
constexpr CommandShape hotspotPageCommands[] = {
    {command::get, "get", "the page's settings", nullptr, &hotspot},
    {command::set, "set", "changes them", &hotspot, nullptr},
};

// ---- userd

constexpr FieldName userFields[] = {
    f('u', 0xfe0001, "number"), f('s', 1, "name"),     f('s', 3, "password"),  f('s', 4, "old-password"),
    f('s', 0x11, "full-name"),  f('s', 0x12, "group"), f('b', 0x1c, "hidden"), f('b', 0xfe000a, "disabled"),
    f('u', 0xb, "policies"),
};
constexpr FieldNames user{userFields};
constexpr FieldName usersFields[] = {f('M', 1, "users", &user)};
constexpr FieldNames users{usersFields};
constexpr CommandShape userCommands[] = {
    {command::getAll, "getAll", "all users", nullptr, &users},
    {command::get, "get", "one user, by number or name", &user, &user},
    {command::addObj, "addObj", "adds a user", &user, &number},
    {command::setObj, "setObj", "changes the given fields of a user", &user, nullptr},
    {command::removeObj, "removeObj", "removes a user", &user, nullptr},
    {0x20001, "setPassword", "gives a user another password", &user, nullptr},
};
constexpr FieldName groupFields[] = {f('u', 0xfe0001, "number"), f('s', 1, "name"), f('u', 0xb, "policies"),
                                     f('s', 0x18, "skin"), f('u', 2, "users")};
constexpr FieldNames group{groupFields};
constexpr FieldName groupsFields[] = {f('M', 1, "groups", &group)};
constexpr FieldNames groups{groupsFields};
constexpr CommandShape groupCommands[] = {
    {command::getAll, "getAll", "all groups", nullptr, &groups},
    {command::get, "get", "one group, by number or name", &group, &group},
    {command::addObj, "addObj", "adds a group", &group, &number},
    {command::setObj, "setObj", "changes the given fields of a group", &group, nullptr},
    {command::removeObj, "removeObj", "removes a group without users", &group, nullptr},
};
constexpr FieldName loginFields[] = {f('s', 1, "user"), f('s', 3, "password"), f('a', 0xff0013, "client")};
constexpr FieldNames login{loginFields};
constexpr FieldName loggedInFields[] = {f('u', 0xfe0001, "login"), f('u', 0xb, "policies"), f('s', 0x11, "full-name"),
                                        f('s', 0x12, "group"),     f('s', 0x15, "host"),    f('s', 0x17, "version"),
                                        f('s', 0x18, "skin")};
constexpr FieldNames loggedIn{loggedInFields};
constexpr CommandShape loginCommands[] = {{1, "login", "looks at a user's password", &login, &loggedIn}};
constexpr CommandShape startPageCommands[] = {
    {command::getObj, "getObj", "the name that the start page shows", &number, &user},
};

// ---- sysd

constexpr FieldName systemFields[] = {
    f('u', 0xfe0001, "number"), f('s', 0xfe000b, "error"), f('s', 1, "host"),       f('s', 2, "version"),
    f('s', 3, "kernel"),        f('s', 4, "architecture"), f('q', 5, "uptime-ms"),  f('u', 6, "load-1"),
    f('u', 7, "load-5"),        f('u', 8, "load-15"),      f('u', 9, "processors"), f('q', 0xa, "busy-ms"),
    f('q', 0xb, "all-ms"),      f('u', 0xc, "running"),    f('u', 0xd, "tasks"),    f('q', 0xe, "time-ms"),
};
constexpr FieldNames systemStatus{systemFields};
constexpr FieldName memoryFields[] = {
    f('u', 0xfe0001, "number"), f('s', 0xfe000b, "error"), f('q', 1, "all"),
    f('q', 2, "available"),     f('q', 3, "unused"),       f('q', 4, "buffers"),
    f('q', 5, "cached"),        f('q', 6, "swap"),         f('q', 7, "unused-swap"),
};
constexpr FieldNames memoryStatus{memoryFields};
constexpr FieldName mountFields[] = {
    f('s', 1, "mount-point"), f('s', 2, "type"),          f('s', 3, "device"),
    f('q', 4, "all"),         f('q', 5, "unused"),        f('q', 6, "available"),
    f('q', 7, "inodes"),      f('q', 8, "unused-inodes"), f('b', 9, "read-only"),
};
constexpr FieldNames mount{mountFields};
constexpr FieldName storageFields[] = {f('u', 0xfe0001, "number"), f('s', 0xfe000b, "error"),
                                       f('M', 1, "file-systems", &mount)};
constexpr FieldNames storageStatus{storageFields};
constexpr FieldName interfaceFields[] = {
    f('s', 1, "name"),        f('u', 2, "index"),         f('b', 3, "up"),           f('b', 4, "link"),
    f('s', 5, "hardware"),    f('u', 6, "mtu"),           f('A', 7, "addresses"),    f('U', 8, "prefix-lengths"),
    f('q', 9, "bytes-in"),    f('q', 0xa, "packets-in"),  f('q', 0xb, "errors-in"),  f('q', 0xc, "dropped-in"),
    f('q', 0xd, "bytes-out"), f('q', 0xe, "packets-out"), f('q', 0xf, "errors-out"), f('q', 0x10, "dropped-out"),
    f('b', 0x11, "loopback"),
};
constexpr FieldNames interface { interfaceFields };
constexpr FieldName interfacesFields[] = {f('u', 0xfe0001, "number"), f('s', 0xfe000b, "error"),
                                          f('M', 1, "interfaces", &interface)};
constexpr FieldNames interfaceStatus{interfacesFields};
constexpr FieldName processFields[] = {
    f('u', 1, "pid"),    f('s', 2, "name"),    f('s', 3, "state"),    f('u', 4, "parent"), f('q', 5, "processor-ms"),
    f('q', 6, "memory"), f('u', 7, "threads"), f('q', 8, "began-ms"), f('u', 9, "user"),
};
constexpr FieldNames process{processFields};
constexpr FieldName processesFields[] = {f('u', 0xfe0001, "number"), f('s', 0xfe000b, "error"), f('u', 2, "count"),
                                         f('M', 1, "processes", &process)};
constexpr FieldNames processStatus{processesFields};
constexpr const FieldNames* statusObjects[] = {nullptr,        &systemStatus,    &memoryStatus,
                                               &storageStatus, &interfaceStatus, &processStatus};
constexpr FieldNames statusObject{numberFields, statusObjects};
constexpr FieldName statusFields[] = {f('M', 1, "objects", &statusObject), f('u', 2, "interval")};
constexpr FieldNames status{statusFields};
constexpr FieldName subscribeFields[] = {f('U', 1, "objects"), f('u', 2, "interval")};
constexpr FieldNames subscribe{subscribeFields};
constexpr CommandShape statusCommands[] = {
    {command::getObj, "getObj", "1 system, 2 memory, 3 storage, 4 interfaces or 5 processes", &number, &statusObject},
    {command::getAll, "getAll", "the objects 1 to 4", nullptr, &status},
    {0x20011, "subscribe", "objects now, and their changes", &subscribe, &status},
    {0x20012, "unsubscribe", "no changes any more"},
    {0x20013, "push", "changes, sent to subscribers", &status, nullptr},
};
constexpr FieldName fileFields[] = {f('s', 1, "name"), f('u', 2, "kind"), f('q', 3, "size"), f('q', 4, "changed-ms"),
                                    f('b', 5, "sensitive")};
constexpr FieldNames file{fileFields};
constexpr FieldName listingInFields[] = {f('s', 1, "name"), f('s', 2, "from"), f('u', 3, "most")};
constexpr FieldNames listingIn{listingInFields};
constexpr FieldName listingFields[] = {f('M', 1, "entries", &file), f('s', 2, "next"), f('u', 3, "shown"),
                                       f('u', 4, "hidden")};
constexpr FieldNames listing{listingFields};
constexpr FieldName moveFields[] = {f('s', 1, "name"), f('s', 2, "to")};
constexpr FieldNames move{moveFields};
constexpr CommandShape fileCommands[] = {
    {command::getAll, "getAll", "lists a directory of the user store", &listingIn, &listing},
    {command::get, "get", "the room where a directory lies", &name, &mount},
    {command::addObj, "addObj", "makes a directory", &name, nullptr},
    {command::removeObj, "removeObj", "removes a file or an empty directory", &name, nullptr},
    {command::moveObj, "moveObj", "renames a file or directory", &move, nullptr},
};
constexpr FieldName framesInFields[] = {f('q', 1, "after"), f('u', 2, "most"), f('u', 3, "program"),
                                        f('s', 4, "containing")};
constexpr FieldNames framesIn{framesInFields};
constexpr FieldName frameFields[] = {f('q', 1, "number"), f('q', 2, "time-ms"), f('u', 3, "from"), f('u', 4, "to"),
                                     f('u', 5, "kind"),   f('u', 6, "bytes"),   f('s', 7, "text")};
constexpr FieldNames frame{frameFields};
constexpr FieldName framesFields[] = {f('M', 1, "frames", &frame), f('q', 2, "newest"), f('q', 3, "lost")};
constexpr FieldNames frames{framesFields};
constexpr CommandShape consoleCommands[] = {
    {command::getAll, "getAll", "what passed over the bus", &framesIn, &frames},
};

// ---- tlsd

constexpr FieldName failureFields[] = {f('s', 1, "kind"), f('q', 2, "count")};
constexpr FieldNames failure{failureFields};
constexpr FieldName certificateFields[] = {
    f('s', 1, "subject"),       f('s', 2, "fingerprint"),
    f('q', 3, "good-from"),     f('q', 4, "good-until"),
    f('S', 5, "for"),           f('s', 6, "issuer"),
    f('s', 7, "source"),        f('s', 8, "error"),
    f('s', 9, "certificate"),   f('s', 0x10, "means"),
    f('u', 0x11, "handshakes"), f('u', 0x12, "relayed-now"),
    f('u', 0x13, "lingering"),  f('q', 0x14, "handed-over"),
    f('q', 0x15, "kernel"),     f('q', 0x16, "relayed"),
    f('q', 0x17, "resumed"),    f('q', 0x18, "bytes-in"),
    f('q', 0x19, "bytes-out"),  f('M', 0x1a, "failures", &failure),
};
constexpr FieldNames certificate{certificateFields};
constexpr FieldName pairFields[] = {f('s', 1, "certificates"), f('s', 2, "key")};
constexpr FieldNames pair{pairFields};
constexpr CommandShape certificateCommands[] = {
    {command::get, "get", "the certificate and the counters", nullptr, &certificate},
    {command::set, "set", "another certificate and its key", &pair, nullptr},
    {command::reset, "reset", "a new self-signed certificate"},
    {0x60001, "reload", "reads the files now"},
};

// ---- tnrun

constexpr FieldName programFields[] = {f('s', 1, "name"),     f('u', 2, "id"),        f('u', 3, "pid"),
                                       f('u', 4, "restarts"), f('q', 5, "uptime-ms"), f('b', 6, "answers")};
constexpr FieldNames program{programFields};
constexpr FieldName programsFields[] = {f('M', 1, "programs", &program)};
constexpr FieldNames programs{programsFields};
constexpr CommandShape programCommands[] = {
    {command::get, "get", "the programs that are looked after", nullptr, &programs},
};
constexpr FieldName logInFields[] = {f('q', 1, "after"), f('u', 2, "most"), f('s', 3, "containing"),
                                     f('s', 4, "program")};
constexpr FieldNames logIn{logInFields};
constexpr FieldName lineFields[] = {f('q', 1, "number"), f('q', 2, "time-ms"), f('s', 3, "program"), f('s', 4, "text"),
                                    f('b', 5, "error-output")};
constexpr FieldNames line{lineFields};
constexpr FieldName linesFields[] = {f('M', 1, "lines", &line), f('q', 2, "newest"), f('q', 3, "lost")};
constexpr FieldNames lines{linesFields};
constexpr CommandShape logCommands[] = {{command::getAll, "getAll", "lines of the log", &logIn, &lines}};

// ---- www

constexpr CommandShape wwwCommands[] = {
    {command::set, "set", "a record for a server", &record, nullptr},
    {0x30001, "takeRecord", "a record, as the service manager sends it", &record, nullptr},
    {command::addObj, "addObj", "a record, also for a new server", &record, nullptr},
    {command::removeObj, "removeObj", "closes a server's listeners", &name, nullptr},
};
constexpr FieldName serverCounterFields[] = {
    f('s', 1, "name"),
    f('b', 2, "enabled"),
    f('u', 3, "port"),
    f('b', 4, "tls"),
    f('q', 5, "accepted"),
    f('q', 6, "refused"),
    f('q', 7, "status-2xx"),
    f('q', 8, "status-3xx"),
    f('q', 9, "status-4xx"),
    f('q', 0xa, "status-5xx"),
    f('q', 0xb, "bytes-in"),
    f('q', 0xc, "bytes-out"),
    f('q', 0xd, "head-timeouts"),
    f('q', 0xe, "body-timeouts"),
    f('q', 0xf, "write-timeouts"),
    f('q', 0x10, "pauses"),
    f('u', 0x11, "open"),
    f('b', 0x12, "listens"),
};
constexpr FieldNames serverCounter{serverCounterFields};
constexpr FieldName counterFields[] = {f('M', 1, "servers", &serverCounter), f('u', 2, "open"), f('u', 3, "limit"),
                                       f('q', 4, "uptime-ms"), f('q', 5, "dropped-log-lines")};
constexpr FieldNames counter{counterFields};
constexpr CommandShape counterCommands[] = {
    {command::get, "get", "what was counted for each server", nullptr, &counter},
};
constexpr FieldName sessionFields[] = {f('u', 1, "id"),     f('s', 2, "user"),    f('a', 3, "address"),
                                       f('q', 4, "age-ms"), f('q', 5, "idle-ms"), f('u', 6, "policies"),
                                       f('b', 7, "own")};
constexpr FieldNames session{sessionFields};
constexpr FieldName sessionsFields[] = {f('M', 1, "sessions", &session), f('u', 2, "count")};
constexpr FieldNames sessions{sessionsFields};
constexpr CommandShape sessionCommands[] = {
    {command::getAll, "getAll", "who is logged in", nullptr, &sessions},
    {command::removeObj, "removeObj", "ends a session", &number, nullptr},
};

constexpr HandlerShape table[] = {
    {"sermgr", 68, "servers", 1, "server records", recordCommands},
    {"userd", 13, "users", 2, "users", userCommands},
    {"userd", 13, "groups", 3, "groups of users", groupCommands},
    {"userd", 13, "login", 4, "logging in", loginCommands},
    {"userd", 13, "start-page", 1, "the name on the start page", startPageCommands},
    {"sysd", 24, "status", 1, "how the machine is", statusCommands},
    {"sysd", 24, "files", 2, "files of the user store", fileCommands},
    {"sysd", 24, "console", 3, "frames on the bus", consoleCommands},
    {"tlsd", 12, "certificate", 1, "the certificate of https", certificateCommands},
    {"hotspotd", 63, "servers", 1, "server records of the hotspot", hotspotServerCommands},
    {"hotspotd", 63, "page", 15, "the hotspot's login page", hotspotPageCommands},
    {"tnrun", 2, "programs", 1, "the programs of the system", programCommands},
    {"tnrun", 2, "log", 2, "the log of all programs", logCommands},
    {"www", 0, "servers", 1, "servers that run", wwwCommands},
    {"www", 0, "counters", 2, "counters of the servers", counterCommands},
    {"www", 0, "sessions", 3, "sessions of the tunnel", sessionCommands},
};

constexpr ShortName shorts[] = {
    {"list", command::getAll},   {"add", command::addObj},   {"remove", command::removeObj},
    {"change", command::setObj}, {"move", command::moveObj}, {"count", command::getCount},
};

}  // namespace

std::span<const HandlerShape> knownHandlers() {
  return table;
}

std::span<const ShortName> shortNames() {
  return shorts;
}

}  // namespace tool
