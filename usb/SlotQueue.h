#pragma once

#include <cstddef>
#include <new>
#include <vector>

// First in, first out, with room made once for as many entries as there are
// read slots. Every slot sits in at most one queue at a time, so once Reserve
// has succeeded no operation allocates: the data path has no heap traffic.
// A handful of entries at most, so taking the front by moving the rest is
// cheaper than any bookkeeping.
template <typename T>
class SlotQueue {
public:
    // False when the room cannot be had.
    bool Reserve(size_t capacity) noexcept {
        try {
            entries.reserve(capacity);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    bool Empty() const { return entries.empty(); }
    T& Front() { return entries.front(); }
    const T& Front() const { return entries.front(); }
    // Within the reserved room: never allocates.
    void PushBack(const T& entry) { entries.push_back(entry); }
    void PopFront() { entries.erase(entries.begin()); }
    void PopBack() { entries.pop_back(); }
    void Clear() { entries.clear(); }
    typename std::vector<T>::iterator begin() { return entries.begin(); }
    typename std::vector<T>::iterator end() { return entries.end(); }

private:
    std::vector<T> entries;
};
