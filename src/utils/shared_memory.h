#pragma once

#include <new>
#include <sys/mman.h>

namespace valta {

/// A value that this process shares with the processes that it forks from now on. `Value` must need
/// no destructor and no lock, such as std::atomic of a number.
template <typename Value>
class SharedMemory {
 public:
  SharedMemory()
      : page_(mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                   0)) {
    if (page_ == MAP_FAILED) {
      throw std::bad_alloc();
    }
    value_ = new (page_) Value{};
  }
  ~SharedMemory() { munmap(page_, sizeof(Value)); }
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  Value& operator*() { return *value_; }

 private:
  void* page_;
  Value* value_ = nullptr;
};

}  // namespace valta
