#pragma once
// A process-wide table whose values are made once per key, with no lock held
// while a value is made: the first caller of a key makes it, later callers
// of the same key wait for that one result, and callers of other keys go on,
// making theirs in parallel. A value that could not be made is not stored:
// the callers waiting for it get the same exception, and the next caller
// tries again. A made value is found under a shared lock only.
#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace ondrel {

template <class Key, class Value>
class OnceMap {
 public:
  // The value of `key`, made by `make()` when no caller has made it yet.
  template <class Make>
  Value get(const Key& key, Make&& make) {
    {
      std::shared_lock read(lock_);
      if (auto it = slots_.find(key); it != slots_.end() && it->second->ready.load(std::memory_order_acquire))
        return it->second->value;
    }
    std::shared_ptr<Slot> slot;
    bool maker = false;
    {
      std::unique_lock write(lock_);
      auto [it, inserted] = slots_.try_emplace(key);
      if (inserted) it->second = std::make_shared<Slot>();
      slot = it->second;
      maker = inserted;
    }
    if (!maker) return slot->wait();
    const Key mine = key;  // `key` may be a buffer that `make` reuses
    try {
      const Value value = make();
      slot->finish(value, nullptr);
      return value;
    } catch (...) {
      {
        std::unique_lock write(lock_);
        slots_.erase(mine);
      }
      slot->finish(Value{}, std::current_exception());
      throw;
    }
  }

 private:
  struct Slot {
    std::mutex mutex;
    std::condition_variable done_cv;
    bool done = false;
    std::atomic<bool> ready{false};  // set once `value` is final; read without `mutex`
    Value value{};
    std::exception_ptr error;

    Value wait() {
      std::unique_lock lock(mutex);
      done_cv.wait(lock, [this] { return done; });
      if (error) std::rethrow_exception(error);
      return value;
    }
    void finish(const Value& made, std::exception_ptr failure) {
      {
        std::lock_guard lock(mutex);
        value = made;
        error = std::move(failure);
        done = true;
        if (!error) ready.store(true, std::memory_order_release);
      }
      done_cv.notify_all();
    }
  };

  std::shared_mutex lock_;
  std::unordered_map<Key, std::shared_ptr<Slot>> slots_;
};

}  // namespace ondrel
