// Splits a fuzzer's bytes into the arguments of the routine under test: fixed-size numbers from
// the front, texts up to a NUL separator, then whatever is left.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

namespace korva::fuzz {

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  // The next sizeof(T) bytes as a T; zero bytes past the end.
  template <typename T>
  T Number() {
    static_assert(std::is_trivially_copyable_v<T>);
    unsigned char bytes[sizeof(T)] = {};
    const std::size_t n = size_ < sizeof(T) ? size_ : sizeof(T);
    if (n != 0) std::memcpy(bytes, data_, n);
    Skip(n);
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
  }
  // The bytes up to the next NUL (which is consumed), or all that is left.
  std::string Text() {
    const void* nul = size_ != 0 ? std::memchr(data_, 0, size_) : nullptr;
    const std::size_t n =
        nul != nullptr ? static_cast<std::size_t>(static_cast<const std::uint8_t*>(nul) - data_) : size_;
    std::string text(reinterpret_cast<const char*>(data_), n);
    Skip(n < size_ ? n + 1 : n);
    return text;
  }
  // The same, two bytes per character.
  std::wstring WideText() {
    std::wstring text;
    while (size_ >= 2) {
      const auto c = static_cast<wchar_t>(data_[0] | (data_[1] << 8));
      Skip(2);
      if (c == 0) break;
      text.push_back(c);
    }
    return text;
  }
  std::string Rest() {
    std::string rest(reinterpret_cast<const char*>(data_), size_);
    Skip(size_);
    return rest;
  }

 private:
  void Skip(std::size_t n) {
    data_ += n;
    size_ -= n;
  }
  const std::uint8_t* data_;
  std::size_t size_;
};

// A broken invariant is a finding: abort, so libFuzzer keeps the input.
inline void Check(bool holds) {
  if (!holds) std::abort();
}

}  // namespace korva::fuzz
