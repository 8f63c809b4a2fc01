#pragma once

#include <array>
#include <fcntl.h>
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

/// The ends of a pipe.
struct Pipe {
  Descriptor reader;
  Descriptor writer;
};

/// A pipe that no executed program inherits. Its ends are not open if there is none; errno says
/// why.
[[nodiscard]] inline Pipe make_pipe() {
  std::array<int, 2> ends{};
  return pipe2(ends.data(), O_CLOEXEC) == 0 ? Pipe{Descriptor(ends[0]), Descriptor(ends[1])}
                                            : Pipe();
}

}  // namespace valta
