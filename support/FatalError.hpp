#pragma once

#include <string_view>

namespace kavrin {

// What happens when a program reaches a state its code rules out: a broken invariant, a
// programming error, never bad input (bad input is an error the caller sees). The library calls
// fatalError(), which runs the handler in force and never returns. The default handler prints
// the message on stderr and aborts, so that a debugger or a core dump shows where; a program
// may install its own way to stop, which must not return either. Safe from any thread.
using FatalErrorHandler = void (*)(std::string_view message);

[[noreturn]] void fatalError(std::string_view message);
// Installs `handler` for every later fatalError(); nullptr puts the default back.
void setFatalErrorHandler(FatalErrorHandler handler);

}  // namespace kavrin
