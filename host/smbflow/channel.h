// A bounded blocking channel between threads. push blocks while the channel is full, pop
// while it is empty; after close, pop drains what is left and then reports the end. A producer
// that found the channel full is woken when it is down to half, not at every item taken: a
// faster producer then wakes once per half a channel instead of once per item.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace smbflow {

template <typename T>
class Channel {
  public:
    explicit Channel(size_t capacity) : capacity_(capacity) {}

    void push(T item) {
        std::unique_lock lock(mutex_);
        not_full_.wait(lock, [&] { return items_.size() < capacity_ || closed_; });
        items_.push_back(std::move(item));
        not_empty_.notify_one();
    }

    // Adds the item unless the channel is full or closed; false when it was not added.
    bool try_push(T &&item) {
        std::lock_guard lock(mutex_);
        if (items_.size() >= capacity_ || closed_) return false;
        items_.push_back(std::move(item));
        not_empty_.notify_one();
        return true;
    }

    // Waits for an item; empty once the channel is closed and drained.
    std::optional<T> pop() {
        std::unique_lock lock(mutex_);
        not_empty_.wait(lock, [&] { return !items_.empty() || closed_; });
        if (items_.empty()) return std::nullopt;
        T item = std::move(items_.front());
        items_.pop_front();
        if (items_.size() <= capacity_ / 2) not_full_.notify_one();
        return item;
    }

    // An item if one is waiting, without blocking.
    std::optional<T> try_pop() {
        std::lock_guard lock(mutex_);
        if (items_.empty()) return std::nullopt;
        T item = std::move(items_.front());
        items_.pop_front();
        if (items_.size() <= capacity_ / 2) not_full_.notify_one();
        return item;
    }

    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        not_empty_.notify_all();
        not_full_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::condition_variable not_full_;
    std::deque<T> items_;
    size_t capacity_;
    bool closed_ = false;
};

}  // namespace smbflow
