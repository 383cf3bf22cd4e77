#pragma once

#include <sigc++/signal.h>

#include <utility>

namespace tamsel {

/// Emitted just before something that a view shows changes.
using ChangeSignal = sigc::signal<void()>;

/// A field whose changes others want to know of. Every assignment emits the signal once, just
/// before the new value is stored, whether or not it differs. For the main thread.
template <typename T>
class Observable {
 public:
  /// `willChange` must outlive this.
  explicit Observable(ChangeSignal& willChange, T value = T())
      : willChange_(willChange), value_(std::move(value)) {}
  Observable(const Observable&) = delete;

  Observable& operator=(T value) {
    (void)exchange(std::move(value));
    return *this;
  }
  Observable& operator=(const Observable&) = delete;

  /// Assigns, and returns the value of before.
  T exchange(T value) {
    willChange_.emit();
    std::swap(value_, value);
    return value;
  }

  /// Changes the value in place, which counts as one assignment.
  template <typename Change>
  void modify(Change change) {
    willChange_.emit();
    change(value_);
  }

  const T& get() const noexcept { return value_; }
  operator const T&() const noexcept { return value_; }
  const T& operator*() const noexcept { return value_; }
  const T* operator->() const noexcept { return &value_; }

 private:
  ChangeSignal& willChange_;
  T value_;
};

}  // namespace tamsel
