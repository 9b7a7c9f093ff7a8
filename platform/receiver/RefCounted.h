// platform/receiver/RefCounted.h: the library's one implementation of
// RefObject. An object starts with no reference; the last Release destroys it.
// MakeRefCounted is the only place where library objects are allocated.
#pragma once

#include <atomic>
#include <utility>

#include "platform/receiver/RefObject.h"

namespace refcount_detail
{

// Keep RefObjectLiveCount up to date; called only by RefCounted.
void NoteCreated();
void NoteDestroyed();

} // namespace refcount_detail

template <class Interface> class RefCounted : public Interface
{
public:
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;

    void AddRef() override { references.fetch_add(1, std::memory_order_relaxed); }

    // A Release without a matching AddRef is a caller's bug; it never drops
    // the count below zero, so it cannot destroy an object twice.
    void Release() override
    {
        int before = references.load(std::memory_order_relaxed);
        while (before > 0 &&
               !references.compare_exchange_weak(before, before - 1, std::memory_order_acq_rel))
            ;
        if (before == 1)
            delete this;
    }

protected:
    RefCounted() { refcount_detail::NoteCreated(); }
    ~RefCounted() override { refcount_detail::NoteDestroyed(); }

private:
    std::atomic<int> references{0};
};

// Allocates a library object with no reference taken; the caller's RefHolder
// takes the first one.
template <class T, class... Args> T* MakeRefCounted(Args&&... args)
{
    return new T(std::forward<Args>(args)...);
}
