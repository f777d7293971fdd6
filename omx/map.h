// A small ordered map kept as a doubly linked list. The component keeps one
// per port to remember the buffer headers it handed out; the lists hold a
// handful of entries, so linear searches are all that is needed.
#ifndef EVRC_OMX_MAP_H
#define EVRC_OMX_MAP_H

#include <atomic>
#include <cstddef>
#include <new>

template <typename K, typename V>
class Map {
    struct Node {
        K key;
        V value;
        Node *prev;
        Node *next;
    };

public:
    Map() = default;
    Map(const Map &) = delete;
    Map &operator=(const Map &) = delete;
    ~Map() { eraseall(); }

    // Appends (key, value) at the tail; the cursor goes back to the head.
    // Returns false when the node cannot be allocated.
    bool insert(K key, V value) {
        Node *node = new (std::nothrow) Node{key, value, tail_, nullptr};
        if (!node) return false;
        if (tail_)
            tail_->next = node;
        else
            head_ = node;
        tail_ = node;
        ++count_;
        current_ = head_;
        return true;
    }

    // Walks from the head; leaves the cursor on the first node with this key
    // (or null) and reports whether one was found. Searches may run on two
    // client threads at once (empty and fill calls), so the walk uses a local
    // pointer and only the final cursor is published, atomically.
    bool find(K key) {
        Node *node = head_;
        while (node && !(node->key == key)) node = node->next;
        current_.store(node, std::memory_order_relaxed);
        return node != nullptr;
    }

    // Unlinks and deletes the first node with this key.
    bool erase(K key) {
        if (!find(key)) return false;
        Node *node = current_.load(std::memory_order_relaxed);
        if (node->prev)
            node->prev->next = node->next;
        else
            head_ = node->next;
        if (node->next)
            node->next->prev = node->prev;
        else
            tail_ = node->prev;
        delete node;
        --count_;
        current_ = head_;
        return true;
    }

    // Deletes every node (never what the keys point to).
    void eraseall() {
        while (head_) {
            Node *next = head_->next;
            delete head_;
            head_ = next;
        }
        tail_ = nullptr;
        current_ = nullptr;
        count_ = 0;
    }

    std::size_t size() const { return count_; }

    // Key of the node at position i from the head (i < size()).
    K key_at(std::size_t i) const {
        Node *node = head_;
        while (i-- && node) node = node->next;
        return node ? node->key : K();
    }

private:
    Node *head_ = nullptr;
    Node *tail_ = nullptr;
    std::atomic<Node *> current_{nullptr};
    std::size_t count_ = 0;
};

#endif  // EVRC_OMX_MAP_H
