// An owning COM interface pointer: Release on reset and destruction, move-only.
#pragma once

#include <unknwn.h>

#include <utility>

namespace korva::win {

template <typename T>
class ComPtr {
 public:
  ComPtr() = default;
  ComPtr(const ComPtr&) = delete;
  ComPtr& operator=(const ComPtr&) = delete;
  ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ComPtr& operator=(ComPtr&& other) noexcept {
    if (this != &other) reset(std::exchange(other.p_, nullptr));
    return *this;
  }
  ~ComPtr() { reset(); }

  [[nodiscard]] T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  // Releases what it holds and takes ownership of `p`.
  void reset(T* p = nullptr) noexcept {
    if (p_ != nullptr) p_->Release();
    p_ = p;
  }
  // The slot for a call that hands back a new reference; releases what it held first.
  T** put() noexcept {
    reset();
    return &p_;
  }
  // Gives up ownership without releasing.
  T* detach() noexcept { return std::exchange(p_, nullptr); }

 private:
  T* p_ = nullptr;
};

}  // namespace korva::win
