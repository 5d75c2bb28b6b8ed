#pragma once

#include <string_view>

namespace kavrin {

// The monitor's stdout, where each event is one line and is out at once. A line written outside
// a batch leaves with one write(); inside one, lines wait and leave together with one write()
// when the outermost batch closes, so a block of deliveries costs one system call and every
// line is still out before the event-loop turn that made it ends. Batches are per thread.
class StdoutLines {
  public:
    static void write(std::string_view line);
    // Writes what waits now, batch or not; the fatal-error path calls it before stopping.
    static void flush();

    // Open for the life of the object; nests.
    class Batch {
      public:
        Batch();
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
    };
};

}  // namespace kavrin
