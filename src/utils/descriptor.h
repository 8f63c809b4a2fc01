#pragma once

#include <unistd.h>
#include <utility>

namespace valta {

/// Owns an open file descriptor, or none.
class Descriptor {
 public:
  explicit Descriptor(int number = kNone) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, kNone)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { reset(); }

  [[nodiscard]] bool is_open() const { return number_ != kNone; }
  [[nodiscard]] int get() const { return number_; }

  void reset() {
    if (is_open()) {
      close(std::exchange(number_, kNone));
    }
  }

 private:
  static constexpr int kNone = -1;

  int number_;
};

}  // namespace valta
