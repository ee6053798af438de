#include "Plugin/SlotQueue.h"

namespace ML {

SlotQueue::SlotQueue(int slots) {
    for (int i = 0; i < slots; ++i) freeSlots.push_back(i);
}

int SlotQueue::acquire() {
    std::unique_lock<std::mutex> lock(mutex);
    const std::thread::id self = std::this_thread::get_id();
    waiting.push_back(self);
    changed.notify_all();
    changed.wait(lock, [&] { return waiting.front() == self && !freeSlots.empty(); });
    const int index = freeSlots.front();
    freeSlots.pop_front();
    waiting.pop_front();
    // The next in line may find a slot free too.
    changed.notify_all();
    return index;
}

void SlotQueue::release(int index) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        freeSlots.push_back(index);
    }
    changed.notify_all();
}

}  // namespace ML
