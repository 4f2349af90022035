// Collective functions of a group or sub-group. Every item lays down a record and waits; the last one to come works out
// all results in the order of the items, so that a result never depends on who came first.
#pragma once

#include <cstddef>

#include "hostsycl/functional.hpp"
#include "hostsycl/work_group.hpp"

namespace sycl {

namespace detail {

template <class T>
struct shuffle_record {
    T value;
    std::size_t source;
    T result;
};

/// Each item gets the value of the item that it names, or its own if there is no such item.
template <class Group, class T>
T shuffle(const Group& which, const T& value, std::size_t source) {
    using record = shuffle_record<T>;
    record mine{value, source, value};
    which.synchronise(&mine, [](void* const* records, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            auto* to = static_cast<record*>(records[i]);
            if (to != nullptr && to->source < count && records[to->source] != nullptr)
                to->result = static_cast<record*>(records[to->source])->value;
        }
    });
    return mine.result;
}

template <class T, class Operation>
struct fold_record {
    T value;
    Operation* operation;
};

/// The results of a fold over the items so far: `inclusive` counts the item itself in, else `value` starts the fold.
template <bool inclusive, class Group, class T, class Operation>
T scan(const Group& which, const T& value, const T& start, Operation operation) {
    struct record {
        T value;
        T start;
        Operation* operation;
    };
    record mine{value, start, &operation};
    which.synchronise(&mine, [](void* const* records, std::size_t count) {
        bool first = true;
        T sum{};
        for (std::size_t i = 0; i < count; ++i) {
            auto* at = static_cast<record*>(records[i]);
            if (at == nullptr)
                continue;
            if (first)
                sum = at->start;
            first = false;
            const T next = (*at->operation)(sum, at->value);
            at->value = inclusive ? next : sum;
            sum = next;
        }
    });
    return mine.value;
}

template <class Group, class T, class Operation>
T fold(const Group& which, const T& value, Operation operation) {
    using record = fold_record<T, Operation>;
    record mine{value, &operation};
    which.synchronise(&mine, [](void* const* records, std::size_t count) {
        record* first = nullptr;
        for (std::size_t i = 0; i < count; ++i) {
            auto* at = static_cast<record*>(records[i]);
            if (at == nullptr)
                continue;
            if (first == nullptr)
                first = at;
            else
                first->value = (*at->operation)(first->value, at->value);
        }
        for (std::size_t i = 0; i < count; ++i)
            if (records[i] != nullptr)
                static_cast<record*>(records[i])->value = first->value;
    });
    return mine.value;
}

} // namespace detail

template <class Group, class T, class Operation>
requires is_group_v<Group> T reduce_over_group(const Group& which, T value, Operation operation) {
    return detail::fold(which, value, operation);
}
template <class Group, class V, class T, class Operation>
requires is_group_v<Group> T reduce_over_group(const Group& which, V value, T start, Operation operation) {
    return operation(start, detail::fold(which, static_cast<T>(value), operation));
}

template <class Group, class T, class Operation>
requires is_group_v<Group> T exclusive_scan_over_group(const Group& which, T value, Operation operation) {
    return detail::scan<false>(which, value, known_identity_v<Operation, T>, operation);
}
template <class Group, class V, class T, class Operation>
requires is_group_v<Group> T exclusive_scan_over_group(const Group& which, V value, T start, Operation operation) {
    return detail::scan<false>(which, static_cast<T>(value), start, operation);
}
template <class Group, class T, class Operation>
requires is_group_v<Group> T inclusive_scan_over_group(const Group& which, T value, Operation operation) {
    return detail::scan<true>(which, value, known_identity_v<Operation, T>, operation);
}
template <class Group, class V, class Operation, class T>
requires is_group_v<Group> T inclusive_scan_over_group(const Group& which, V value, Operation operation, T start) {
    return detail::scan<true>(which, static_cast<T>(value), start, operation);
}

template <class Group, class T>
requires is_group_v<Group> T group_broadcast(const Group& which, T value, typename Group::linear_id_type source = 0) {
    return detail::shuffle(which, value, static_cast<std::size_t>(source));
}
template <class Group, class T>
requires(is_group_v<Group>&& Group::dimensions > 1) T
    group_broadcast(const Group& which, T value, typename Group::id_type source) {
    return detail::shuffle(which, value, detail::linear_index(source, which.get_local_range()));
}

template <class Group>
requires is_group_v<Group>
bool any_of_group(const Group& which, bool holds) {
    return detail::fold(which, holds, logical_or<bool>());
}
template <class Group>
requires is_group_v<Group>
bool all_of_group(const Group& which, bool holds) {
    return detail::fold(which, holds, logical_and<bool>());
}
template <class Group>
requires is_group_v<Group>
bool none_of_group(const Group& which, bool holds) {
    return !any_of_group(which, holds);
}

template <class T>
T select_from_group(const sub_group& which, T value, id<1> source) {
    return detail::shuffle(which, value, source[0]);
}
template <class T>
T shift_group_left(const sub_group& which, T value, std::size_t distance = 1) {
    return detail::shuffle(which, value, which.get_local_id()[0] + distance);
}
template <class T>
T shift_group_right(const sub_group& which, T value, std::size_t distance = 1) {
    return detail::shuffle(which, value, which.get_local_id()[0] - distance);
}
template <class T>
T permute_group_by_xor(const sub_group& which, T value, std::size_t mask) {
    return detail::shuffle(which, value, which.get_local_id()[0] ^ mask);
}

} // namespace sycl
