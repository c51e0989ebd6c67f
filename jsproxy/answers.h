#pragma once

#include <string>

#include "jsproxy/session.h"
#include "platform/web/response.h"

// Each answers a request, parked or not. The response of a parked one may be gone when it returns.
void answer(Response& response, std::string text);
void refuse(Response& response, int status);
// Answers a poll with the message that it waited for.
void deliver(JsSession& session, const Poll& poll, const tn::message& msg);
