// Owner of the live objects behind one kind of HIP handle. A handle that is
// not in its registry is refused with hipErrorInvalidHandle rather than
// followed. Registries, like all process-wide state of the runtime, are
// created on first use and never destroyed: callers may still release their
// handles from their own static destructors at exit, after ours would have run.
#pragma once
#include <memory>
#include <mutex>
#include <unordered_map>

namespace ondrel_cpu {

template <class T>
class Registry {
 public:
  T* add(std::unique_ptr<T> object) {
    std::lock_guard lock(mutex_);
    T* handle = object.get();
    live_.emplace(handle, std::move(object));
    return handle;
  }
  bool contains(const T* handle) const {
    std::lock_guard lock(mutex_);
    return live_.count(const_cast<T*>(handle)) != 0;
  }
  // The object, now owned by the caller; null when the handle is not live.
  std::unique_ptr<T> take(T* handle) {
    std::lock_guard lock(mutex_);
    auto it = live_.find(handle);
    if (it == live_.end()) return nullptr;
    std::unique_ptr<T> object = std::move(it->second);
    live_.erase(it);
    return object;
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<T*, std::unique_ptr<T>> live_;
};

}  // namespace ondrel_cpu
