#pragma once

#include <new>
#include <utility>

namespace velo::ssoService {

/// Holds an object that is never destroyed, for what threads may still use while the process ends. Make it static.
template <typename T>
class NoDestructor {
 public:
  template <typename... Arguments>
  explicit NoDestructor(Arguments&&... arguments) {
    new (&storage) T(std::forward<Arguments>(arguments)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;
  ~NoDestructor() = default;

  T* get() { return std::launder(reinterpret_cast<T*>(&storage)); }
  T* operator->() { return get(); }
  T& operator*() { return *get(); }

 private:
  alignas(T) unsigned char storage[sizeof(T)];
};

}  // namespace velo::ssoService
