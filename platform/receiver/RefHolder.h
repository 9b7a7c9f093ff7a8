// platform/receiver/RefHolder.h: the intrusive holder of a receiver object.
// Takes one reference when it is given a present object, drops it when it goes
// away. Copying is refused: one holder, one reference.
#pragma once

#include <utility>

template <class T> class RefHolder
{
public:
    RefHolder() = default;
    explicit RefHolder(T* object) : object(object)
    {
        if (object != nullptr)
            object->AddRef();
    }
    ~RefHolder() { Reset(); }

    RefHolder(const RefHolder&) = delete;
    RefHolder& operator=(const RefHolder&) = delete;
    RefHolder(RefHolder&& other) noexcept : object(std::exchange(other.object, nullptr)) {}

    void Reset()
    {
        if (object != nullptr)
            std::exchange(object, nullptr)->Release();
    }

    T* Get() const { return object; }
    T* operator->() const { return object; }
    T& operator*() const { return *object; }
    explicit operator bool() const { return object != nullptr; }

private:
    T* object = nullptr;
};
