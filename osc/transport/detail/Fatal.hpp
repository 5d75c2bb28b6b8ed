#pragma once

namespace kavrin {

/// Stops the program for a broken invariant (a programming error, never bad input): prints
/// message on stderr and aborts. Safe from any thread. Internal to the transport layer.
[[noreturn]] void fatalError(const char* message);

}  // namespace kavrin
