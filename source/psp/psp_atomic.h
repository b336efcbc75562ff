// Relaxed access to plain integers and pointers that threads share without a lock.
//
// The exported variables and the fields of shared records stay plain in the headers; every access
// that is not under the lock which guards them goes through these two, so that it is one whole
// read or write for the machine and no data race for the language. Order is not implied: where it
// matters, a lock gives it.
#pragma once

#include <atomic>
#include <type_traits>

template <class T>
inline std::remove_cv_t<T> relaxed_load(const T& variable)
{
    return std::atomic_ref<std::remove_cv_t<T>>(
               const_cast<std::remove_cv_t<T>&>(variable)) // atomic_ref<const T> comes with C++26
        .load(std::memory_order_relaxed);
}

template <class T>
inline void relaxed_store(T& variable, std::type_identity_t<T> value)
{
    std::atomic_ref<T>(variable).store(value, std::memory_order_relaxed);
}
