#pragma once

#include <string>

#include "http/outgoing.h"
#include "platform/bus/thin_runner.h"
#include "platform/web/request.h"
#include "platform/web/response.h"

// Turns an answered response into what is to be written: opens its file (and removes it from its directory if so
// flagged), puts the error page in place of the body of a status of 300 and above, cuts the part that the request asks
// for, decides whether the connection is kept, and adds the header fields that are the server's own.
//
// `head` gets the status line and the fields; `out`, new from its maker, everything else. `out.text` lies in the
// response. The runner is for the file cache.
void buildResponse(const Request& request, Response& response, tn::ThinRunner& runner, std::string& head,
                   Outgoing& out);
