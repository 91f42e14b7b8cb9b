#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace oryx::sip {

/// Hands objects from one thread to another, in order and without a lock.
template <typename Item, std::size_t Capacity>
class Ring {
public:
    /// Takes the item unless the ring is full.
    bool push(std::unique_ptr<Item>& item)
    {
        const std::size_t tail = m_tail.load(std::memory_order_relaxed);
        if (tail - m_head.load(std::memory_order_acquire) == Capacity) {
            return false;
        }
        m_items[tail % Capacity] = std::move(item);
        m_tail.store(tail + 1, std::memory_order_release);
        return true;
    }
    /// The oldest item, which stays; null when there is none. For the thread that takes them.
    const Item* next() const
    {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        return head != m_tail.load(std::memory_order_acquire) ? m_items[head % Capacity].get() : nullptr;
    }
    /// The oldest item; null when there is none.
    std::unique_ptr<Item> pop()
    {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        if (head == m_tail.load(std::memory_order_acquire)) {
            return nullptr;
        }
        std::unique_ptr<Item> item = std::move(m_items[head % Capacity]);
        m_head.store(head + 1, std::memory_order_release);
        return item;
    }

private:
    static constexpr std::size_t kLine = 64; // what the two threads write stays apart in their caches

    std::array<std::unique_ptr<Item>, Capacity> m_items;
    alignas(kLine) std::atomic<std::size_t> m_head{0};
    alignas(kLine) std::atomic<std::size_t> m_tail{0};
};

} // namespace oryx::sip
