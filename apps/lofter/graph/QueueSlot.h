// Memory for the elements of ready queues, set aside beforehand.
//
// A worker that finishes a node queues those behind it, and nobody could be told if memory ran out there. So every node
// has a slot for as long as it lives, and so has every queue for its own use: as long as no node is in two queues,
// there is always a free one. Guarded by the graph lock, which the functions take.
#pragma once

#include <cstddef>

namespace lofter {

class QueueSlot {
  public:
    // Throws std::bad_alloc.
    QueueSlot();
    ~QueueSlot();
    QueueSlot(const QueueSlot&) = delete;
    QueueSlot& operator=(const QueueSlot&) = delete;

    static constexpr std::size_t kSize = 96;

    // The memory of any free slot, kSize bytes aligned for every type, and its return. Without a free one, allocates
    // and may throw std::bad_alloc.
    static void* Take();
    static void GiveBack(void* memory) noexcept;
};

// The allocator of a container whose elements are in slots.
template <typename T>
struct QueueSlotAllocator {
    using value_type = T;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using const_pointer = const T*;
    using reference = T&;
    using const_reference = const T&;

    QueueSlotAllocator() = default;
    template <typename Other>
    explicit QueueSlotAllocator(const QueueSlotAllocator<Other>&) {}

    // Only ever asked for one.
    static T* allocate(std::size_t) {
        static_assert(sizeof(T) <= QueueSlot::kSize);
        return static_cast<T*>(QueueSlot::Take());
    }
    static void deallocate(T* element, std::size_t) { QueueSlot::GiveBack(element); }
};

}  // namespace lofter
