// What the C++ library runs when the program cannot go on, in place of its own handler, which would bring the demangler
// for the name of an exception: a twentieth of the program, for a line that says less than the core does. It is linked
// into each program by itself, because from a library it would come too late to be preferred.

#include <cstdlib>

namespace __gnu_cxx {

void __verbose_terminate_handler();
void __verbose_terminate_handler() {
  std::abort();
}

}  // namespace __gnu_cxx
