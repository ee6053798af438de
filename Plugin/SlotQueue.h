#pragma once
// A small pool of work slots handed out strictly in order of arrival: a thread that asked
// first is served first, even when a slot frees up while a later thread is the only one awake.
// The denoisers use it instead of one lock over the whole render, so that two host threads
// work side by side, each in a slot of its own.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace ML {

class SlotQueue {
public:
    explicit SlotQueue(int slots);

    // Waits until this thread is first in line and a slot is free; returns the slot's index.
    int acquire();
    void release(int index);

    // Gives its slot back however the scope ends.
    class Guard {
    public:
        explicit Guard(SlotQueue& queue) : queue(queue), index(queue.acquire()) {}
        ~Guard() { queue.release(index); }
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;
        int slot() const { return index; }

    private:
        SlotQueue& queue;
        int index;
    };

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::thread::id> waiting;
    std::deque<int> freeSlots;
};

}  // namespace ML
