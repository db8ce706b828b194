// Common bases: ZendrelObject for anything an owning array holds,
// RefCountedObject for objects shared by reference count (the transport).
#pragma once

#include <atomic>

namespace zr {

class ZendrelObject {
public:
    ZendrelObject() = default;
    virtual ~ZendrelObject();
    ZendrelObject(const ZendrelObject&) = default;
    ZendrelObject& operator=(const ZendrelObject&) = default;
};

// Starts with a count of zero: whoever creates the object takes the first
// reference with incRefCount(). The last decRefCount() deletes it, so such
// objects must live on the heap and are never deleted directly.
class RefCountedObject : public ZendrelObject {
public:
    RefCountedObject() : m_refCount(0) {}
    RefCountedObject(const RefCountedObject&) = delete;
    RefCountedObject& operator=(const RefCountedObject&) = delete;

    void incRefCount();
    // Deletes the object when the count drops to zero (or was already zero).
    void decRefCount();
    int getRefCount() const { return m_refCount.load(); }

protected:
    ~RefCountedObject() override;

private:
    std::atomic<int> m_refCount;
};

}  // namespace zr
