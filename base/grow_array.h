// A heap array of plain values that is filled, emptied and filled again: its memory only grows, and
// a failed growth is reported instead of thrown.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

template <class T>
class grow_array {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

  public:
    grow_array() = default;
    ~grow_array() { free(data_); }
    grow_array(grow_array&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    grow_array(const grow_array&) = delete;
    grow_array& operator=(const grow_array&) = delete;

    T* data() { return data_; }
    const T* data() const { return data_; }
    size_t size() const { return size_; }
    T& operator[](size_t at) { return data_[at]; }
    const T& operator[](size_t at) const { return data_[at]; }
    T* begin() { return data_; }
    T* end() { return data_ + size_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + size_; }

    void clear() { size_ = 0; }

    // Makes room for `count` elements in all. Returns false, with nothing changed, when there is no
    // memory for them.
    bool reserve(size_t count) {
        if (count <= capacity_) return true;
        const size_t wanted = std::max(count, capacity_ * 2);
        if (wanted > PTRDIFF_MAX / sizeof(T)) return false;
        void* grown = realloc(static_cast<void*>(data_), wanted * sizeof(T));
        if (!grown) return false;
        data_ = static_cast<T*>(grown);
        capacity_ = wanted;
        return true;
    }

    bool push_back(const T& value) {
        const T copy = value;  // may be an element of this array
        if (size_ == capacity_ && !reserve(size_ + 1)) return false;
        data_[size_++] = copy;
        return true;
    }

    // Replaces the contents by `count` elements of zero bytes. As reserve.
    bool assign_zeroed(size_t count) {
        if (!reserve(count)) return false;
        if (count > 0) memset(static_cast<void*>(data_), 0, count * sizeof(T));
        size_ = count;
        return true;
    }

    // Appends `count` elements.
    bool append(const T* values, size_t count) {
        if (!reserve(size_ + count)) return false;
        std::copy_n(values, count, data_ + size_);
        size_ += count;
        return true;
    }

  private:
    T* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};
