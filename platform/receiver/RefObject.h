// platform/receiver/RefObject.h: the reference count that every object of the
// receiver library carries as a virtual base. An object destroys itself when
// its last reference is dropped; nobody deletes one directly.
#pragma once

class RefObject
{
public:
    virtual void AddRef() = 0;
    virtual void Release() = 0;

protected:
    virtual ~RefObject() = default;
};

// Objects of the receiver library alive in this process; tests use it to
// check that every AddRef was matched by a Release.
int RefObjectLiveCount();
