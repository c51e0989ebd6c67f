#pragma once

#include "tools/context.h"

// What each verb of the table in table.cc does; one file for each, or for a few that are alike.
namespace tool::verbs {

// What the fields of the broker's answers are called.
extern const tn::FieldNames brokerNames;

ExitStatus list(Context& context);
ExitStatus stats(Context& context);
ExitStatus status(Context& context);
ExitStatus servers(Context& context);
ExitStatus users(Context& context);
ExitStatus sessions(Context& context);
ExitStatus log(Context& context);
ExitStatus check(Context& context);
ExitStatus call(Context& context);
ExitStatus send(Context& context);
ExitStatus monitor(Context& context);
ExitStatus names(Context& context);
ExitStatus help(Context& context);
ExitStatus complete(Context& context);

}  // namespace tool::verbs
