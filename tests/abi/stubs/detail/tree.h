// What the ordered containers share.
#pragma once

#include "absent.h"
#include "range.h"

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <utility>

namespace std {
template <class T>
class allocator;

namespace detail {
template <class T>
class tree_iterator
{
public:
    using value_type = T;

    tree_iterator() { QS_ABSENT(); }
    template <class U, class = enable_if_t<is_same_v<const U, T>>>
    tree_iterator(const tree_iterator<U>& other)
    {
        QS_ABSENT();
    }
    T& operator*() const { QS_ABSENT(); }
    T* operator->() const { QS_ABSENT(); }
    tree_iterator& operator++() { QS_ABSENT(); }
    tree_iterator operator++(int) { QS_ABSENT(); }
    tree_iterator& operator--() { QS_ABSENT(); }
};
template <class T, class U>
bool operator==(const tree_iterator<T>& a, const tree_iterator<U>& b)
{
    QS_ABSENT();
}
template <class T, class U>
bool operator!=(const tree_iterator<T>& a, const tree_iterator<U>& b)
{
    QS_ABSENT();
}

template <class Key, class Value, class Iterator>
class tree
{
public:
    using key_type = Key;
    using value_type = Value;
    using size_type = size_t;
    using iterator = Iterator;
    using const_iterator = tree_iterator<const Value>;

    tree() { QS_ABSENT(); }
    tree(const tree& other) { QS_ABSENT(); }
    tree(tree&& other) noexcept { QS_ABSENT(); }
    tree(initializer_list<Value> values) { QS_ABSENT(); }
    template <class Position>
    tree(Position first, Position last)
    {
        QS_ABSENT();
    }
    ~tree() { QS_ABSENT(); }
    tree& operator=(const tree& other) { QS_ABSENT(); }
    tree& operator=(tree&& other) noexcept { QS_ABSENT(); }

    size_type size() const noexcept { QS_ABSENT(); }
    bool empty() const noexcept { QS_ABSENT(); }
    void clear() noexcept { QS_ABSENT(); }
    size_type count(const Key& key) const { QS_ABSENT(); }
    iterator begin() noexcept { QS_ABSENT(); }
    const_iterator begin() const noexcept { QS_ABSENT(); }
    iterator end() noexcept { QS_ABSENT(); }
    const_iterator end() const noexcept { QS_ABSENT(); }
    iterator find(const Key& key) { QS_ABSENT(); }
    const_iterator find(const Key& key) const { QS_ABSENT(); }
    iterator lower_bound(const Key& key) { QS_ABSENT(); }
    const_iterator lower_bound(const Key& key) const { QS_ABSENT(); }
    pair<iterator, iterator> equal_range(const Key& key) { QS_ABSENT(); }
    pair<const_iterator, const_iterator> equal_range(const Key& key) const { QS_ABSENT(); }
    iterator erase(iterator position) { QS_ABSENT(); }
    size_type erase(const Key& key) { QS_ABSENT(); }
    template <class Position>
    void insert(Position first, Position last)
    {
        QS_ABSENT();
    }
    void swap(tree& other) noexcept { QS_ABSENT(); }

private:
    void* m_root;
    size_t m_size;
};
template <class K, class V, class I>
bool operator==(const tree<K, V, I>& a, const tree<K, V, I>& b)
{
    QS_ABSENT();
}
template <class K, class V, class I>
bool operator!=(const tree<K, V, I>& a, const tree<K, V, I>& b)
{
    QS_ABSENT();
}
} // namespace detail
} // namespace std
