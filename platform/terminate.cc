// What the C++ library runs when the program cannot go on, in place of its own handler, which would bring the demangler
// for the name of an exception: a twentieth of the program, for a line that says less than the core does. It is linked
// into each program by itself, because from a library it would come too late to be preferred.
//
// Where there is no memory the program is not to blame, and a core says nothing: a line does, and whoever has started
// the program starts it anew.

#include <cerrno>
#include <cstdlib>
#include <cxxabi.h>
#include <string_view>
#include <typeinfo>
#include <unistd.h>

#include "platform/log.h"

namespace __gnu_cxx {

void __verbose_terminate_handler();
void __verbose_terminate_handler() {
  const std::type_info* const thrown = abi::__cxa_current_exception_type();
  if (thrown == nullptr || thrown->name() != std::string_view("St9bad_alloc")) std::abort();
  errno = ENOMEM;
  logSystemError(program_invocation_short_name);
  _exit(1);
}

}  // namespace __gnu_cxx
