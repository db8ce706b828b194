// Arrays of owned pointers. The array deletes its elements when it is
// destroyed; removeAt hands one back to the caller instead.
#pragma once

#include <vector>

#include "zrimap/base/ZendrelObject.h"

namespace zr {

class StringBuffer;

class ExtPtrArray {
public:
    ExtPtrArray() = default;
    virtual ~ExtPtrArray();
    ExtPtrArray(const ExtPtrArray&) = delete;
    ExtPtrArray& operator=(const ExtPtrArray&) = delete;

    // The array owns obj from now on. A null pointer may be stored (readers
    // skip it). When memory runs out, obj is deleted and the result is false,
    // so ownership never stays in limbo.
    bool appendPtr(ZendrelObject* obj);

    int getSize() const { return static_cast<int>(m_items.size()); }
    ZendrelObject* elementAt(int i) const;  // null when out of range

    // Removes without deleting: the caller owns the returned object. Null
    // when out of range.
    ZendrelObject* removeAt(int i);
    void removeAllObjects();  // deletes every element

private:
    std::vector<ZendrelObject*> m_items;
};

// Elements are StringBuffers.
class ExtPtrArraySb : public ExtPtrArray {
public:
    // The element at i, or null when out of range or not a StringBuffer.
    StringBuffer* sbAt(int i) const;
    // Appends a new copy of text; false when memory runs out.
    bool appendString(const char* text);
    void removeAllSbs() { removeAllObjects(); }
};

}  // namespace zr
