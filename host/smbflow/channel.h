// A bounded blocking channel between threads. push blocks while the channel is full, pop
// while it is empty; after close, pop drains what is left and then reports the end.
//
// Wake-ups are what such a channel costs between a fast and a slow thread, so it makes few:
// a producer that found the channel full is woken once, when the channel is down to half, not
// at every item taken; a side is signalled only when a thread of it is known to wait; and the
// signal is given after the lock is released, so that the woken thread does not run straight
// into the lock that its waker still holds (a second futex call on each side).
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
        bool wake;
        {
            std::unique_lock lock(mutex_);
            while (items_.size() >= capacity_ && !closed_) {
                ++producers_waiting_;
                not_full_.wait(lock);
                --producers_waiting_;
                producers_signalled_ = false;
            }
            items_.push_back(std::move(item));
            wake = consumers_waiting_ > 0;
        }
        if (wake) not_empty_.notify_one();
    }

    // Adds the item unless the channel is full or closed; false when it was not added.
    bool try_push(T &&item) {
        bool wake;
        {
            std::lock_guard lock(mutex_);
            if (items_.size() >= capacity_ || closed_) return false;
            items_.push_back(std::move(item));
            wake = consumers_waiting_ > 0;
        }
        if (wake) not_empty_.notify_one();
        return true;
    }

    // Waits for an item; empty once the channel is closed and drained.
    std::optional<T> pop() {
        std::optional<T> item;
        bool wake;
        {
            std::unique_lock lock(mutex_);
            while (items_.empty() && !closed_) {
                ++consumers_waiting_;
                not_empty_.wait(lock);
                --consumers_waiting_;
            }
            if (items_.empty()) return std::nullopt;
            item.emplace(std::move(items_.front()));
            items_.pop_front();
            wake = wake_producers();
        }
        if (wake) not_full_.notify_all();
        return item;
    }

    // An item if one is waiting, without blocking.
    std::optional<T> try_pop() {
        std::optional<T> item;
        bool wake;
        {
            std::lock_guard lock(mutex_);
            if (items_.empty()) return std::nullopt;
            item.emplace(std::move(items_.front()));
            items_.pop_front();
            wake = wake_producers();
        }
        if (wake) not_full_.notify_all();
        return item;
    }

    // Whether nothing is waiting right now (another thread may push the next moment).
    bool empty() {
        std::lock_guard lock(mutex_);
        return items_.empty();
    }

    void close() {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
        }
        not_empty_.notify_all();
        not_full_.notify_all();
    }

  private:
    // Under the lock, after an item was taken: whether the waiting producers are to be woken
    // now. Once signalled they are not signalled again until one of them has run; they all
    // wake, as there may be room for each by then.
    bool wake_producers() {
        if (producers_waiting_ == 0 || producers_signalled_ || items_.size() > capacity_ / 2)
            return false;
        producers_signalled_ = true;
        return true;
    }

    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::condition_variable not_full_;
    std::deque<T> items_;
    size_t capacity_;
    size_t producers_waiting_ = 0;
    size_t consumers_waiting_ = 0;
    bool producers_signalled_ = false;
    bool closed_ = false;
};

}  // namespace smbflow
