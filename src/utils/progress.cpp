#include "utils/progress.h"

#include <atomic>

#include "utils/shared_memory.h"

namespace valta {
namespace {

// Parent and child are the same program, so a text has the same address in both.
std::atomic<const char*>& step() {
  static SharedMemory<std::atomic<const char*>> shared;
  return *shared;
}

}  // namespace

void begin_step(const char* text) { step() = text; }

const char* current_step() {
  const char* const text = step();
  return text == nullptr ? "" : text;
}

}  // namespace valta
