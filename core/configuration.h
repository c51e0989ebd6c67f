#pragma once

#include <string_view>

#include "core/server_entry.h"
#include "platform/xml/document.h"

// Makes the servers of all documents and their servlets, in reading order. A server that is there already gets the
// further servlets; a servlet of an unknown kind is passed over. All "jsproxy" elements share one servlet, which is
// registered with the process's loop as a bus handler; the last such element names its path.
void buildServers(const xml::DocumentCollection& documents, ServerMap& servers);

// Makes the server of a record whose name nobody knows, under a name that is not there yet: it listens on a unix socket
// and, unless it speaks TLS, on TCP, and forwards every request over the bus.
ServerEntry& addForwardingServer(ServerMap& servers, std::string_view name, bool ssl);
