// platform/receiver/RefObject.cpp: the count of library objects alive in this
// process, kept by RefCounted for RefObjectLiveCount.
#include "platform/receiver/RefObject.h"

#include <atomic>

#include "platform/receiver/RefCounted.h"

namespace
{

std::atomic<int> liveObjects{0};

} // namespace

namespace refcount_detail
{

void NoteCreated()
{
    liveObjects.fetch_add(1, std::memory_order_relaxed);
}

void NoteDestroyed()
{
    liveObjects.fetch_sub(1, std::memory_order_relaxed);
}

} // namespace refcount_detail

int RefObjectLiveCount()
{
    return liveObjects.load(std::memory_order_relaxed);
}
